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

// The comma goes behind every message but a ConnectResponse, so the only thing that can close
// the array is the connect reply.
common::DataBuffer serializeConnectChunk(std::unique_ptr<Message>&& message, bool& atArrayStart) {
    common::DataBuffer chunk;
    chunk.reserve(chunkRoom(message.get()));
    if (atArrayStart) {
        atArrayStart = false;
        chunk.push_back('[');
    }
    const bool closesArray = message && typeid(*message) == typeid(ConnectResponse);
    try {
        serializeBayeuxMessage(std::move(message), chunk);
    } catch (const std::exception& error) {
        // The stream goes on: the client sees a gap, the reason goes to standard output only.
        std::puts(error.what());
    }
    if (closesArray) {
        chunk.push_back(']');
        atArrayStart = true;
    } else {
        chunk.push_back(',');
    }
    KORVANE_LOG(logger, common::logTrace) << "Long poll serialize: " << chunk.view().substr(0, chunkLogLimit);
    return chunk;
}

}  // namespace korvane::bayeux
