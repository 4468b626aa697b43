#include "korvane/transport/connect_stream_serializer.h"

#include <cstdio>
#include <exception>
#include <string>
#include <typeinfo>
#include <utility>

#include "korvane/codec/messages.h"
#include "korvane/codec/serialize.h"
#include "korvane/frame/logger.h"

namespace korvane::bayeux {

namespace {

common::diagnostic_logger logger("korvane::bayeux::http");

constexpr std::size_t chunkLogLimit = 500;

// Room for a usual chunk in one allocation: grown member by member, a chunk went
// through a malloc and three or four reallocs. A publish needs its data and names
// beside the envelope; a reply with a larger advice than usual grows as before.
constexpr std::size_t envelopeRoom = 192;

std::size_t chunkRoom(const Message* message) {
    if (message == nullptr || typeid(*message) != typeid(PublishRequest)) {
        return envelopeRoom;
    }
    const auto& publish = static_cast<const PublishRequest&>(*message);
    return envelopeRoom + publish.channel.size() + publish.id.size() + publish.clientId.size() +
           (publish.data ? publish.data->size : 0);
}

common::DataBuffer openChunk(std::size_t room, bool& atArrayStart) {
    common::DataBuffer chunk;
    chunk.reserve(room);
    if (atArrayStart) {
        atArrayStart = false;
        chunk.push_back('[');
    }
    return chunk;
}

// The comma goes behind every message but a ConnectResponse, so the only thing that can close
// the array is the connect reply.
common::DataBuffer closeChunk(common::DataBuffer&& chunk, bool closesArray, bool& atArrayStart) {
    if (closesArray) {
        chunk.push_back(']');
        atArrayStart = true;
    } else {
        chunk.push_back(',');
    }
    KORVANE_LOG(logger, common::logTrace) << "Long poll serialize: " << chunk.view().substr(0, chunkLogLimit);
    return std::move(chunk);
}

}  // namespace

ConnectStreamSerializer::ConnectStreamSerializer()
    : reactive_streams::TransformProcessor<std::unique_ptr<Message>, common::DataBuffer>(SerialFunc(this)) {
    KORVANE_LOG(logger, common::logTrace) << "ConnectStreamSerializer constructor";
}

ConnectStreamSerializer::~ConnectStreamSerializer() { KORVANE_LOG(logger, common::logTrace) << "ConnectStreamSerializer destructor"; }

// Runs under the base processor's lock.
common::DataBuffer ConnectStreamSerializer::doSerialize(std::unique_ptr<Message>&& message) {
    return serializeConnectChunk(std::move(message), atArrayStart);
}

common::DataBuffer serializeConnectChunk(std::unique_ptr<Message>&& message, bool& atArrayStart) {
    common::DataBuffer chunk = openChunk(chunkRoom(message.get()), atArrayStart);
    const bool closesArray = message && typeid(*message) == typeid(ConnectResponse);
    try {
        serializeBayeuxMessage(std::move(message), chunk);
    } catch (const std::exception& error) {
        // The stream goes on: the client sees a gap, the reason goes to standard output only.
        std::puts(error.what());
    }
    return closeChunk(std::move(chunk), closesArray, atArrayStart);
}

common::DataBuffer serializePublishChunk(const PublishRequest& message, bool& atArrayStart) {
    const common::DataBuffer& delivered = message.deliveredText();
    common::DataBuffer chunk = openChunk(delivered.size + 2, atArrayStart);
    chunk.append(delivered.chars(), delivered.size);
    return closeChunk(std::move(chunk), false, atArrayStart);
}

common::DataBuffer serializeConnectReplyChunk(const std::string& messageId, const std::string& clientId,
                                              bool& atArrayStart) {
    common::DataBuffer chunk = openChunk(envelopeRoom, atArrayStart);
    serializeConnectReply(messageId, clientId, chunk);
    return closeChunk(std::move(chunk), true, atArrayStart);
}

}  // namespace korvane::bayeux
