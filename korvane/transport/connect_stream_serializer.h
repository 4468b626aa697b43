#pragma once

// Turns the messages of a long-poll connect's stream into the chunks of one HTTP
// response body: one chunk per message, the JSON array's brackets and commas
// written on the fly, the closing ConnectResponse ending the array.
//
// Threading: the base processor's mutex guards `atArrayStart`, since every
// transform runs under it; the chunk is handed downstream with it released. The
// serializer asks the stream for nothing by itself: demand comes only from whoever
// subscribed to the body. Owned by a std::shared_ptr held by both the stream (as
// its subscriber) and the HTTP response (as its body).

#include <memory>
#include <string>

#include "korvane/codec/messages.h"
#include "korvane/frame/data_buffer.h"
#include "korvane/frame/message.h"
#include "korvane/frame/transform_processor.h"
#include "korvane/export.h"

namespace korvane::bayeux {

// One message of a connect as its chunk of the response body: "[" before the first, "," behind
// every message but the ConnectResponse, whose "]" closes the array and makes the next chunk open
// a new one. A message that cannot be written leaves a gap; the reason goes to standard output.
KORVANE_EXPORT common::DataBuffer serializeConnectChunk(std::unique_ptr<Message>&& message, bool& atArrayStart);
// serializeConnectChunk of the receiver's copy of `message`, written from the text its receivers share.
KORVANE_EXPORT common::DataBuffer serializePublishChunk(const PublishRequest& message, bool& atArrayStart);
// serializeConnectChunk of makeConnectReply(messageId, clientId).
KORVANE_EXPORT common::DataBuffer serializeConnectReplyChunk(const std::string& messageId, const std::string& clientId,
                                                             bool& atArrayStart);

class KORVANE_EXPORT ConnectStreamSerializer
    : public reactive_streams::TransformProcessor<std::unique_ptr<Message>, common::DataBuffer> {
public:
    ConnectStreamSerializer();
    ~ConnectStreamSerializer() override;
    ConnectStreamSerializer(const ConnectStreamSerializer&) = delete;
    ConnectStreamSerializer& operator=(const ConnectStreamSerializer&) = delete;

private:
    // The transform handed to the base: a plain pointer back to its serializer, which
    // owns the base and so outlives every call.
    class SerialFunc {
    public:
        explicit SerialFunc(ConnectStreamSerializer* owner) : serializer(owner) {}
        common::DataBuffer operator()(std::unique_ptr<Message>&& message) const {
            return serializer->doSerialize(std::move(message));
        }

    private:
        ConnectStreamSerializer* serializer;
    };

    common::DataBuffer doSerialize(std::unique_ptr<Message>&& message);

    bool atArrayStart = true;
};

}  // namespace korvane::bayeux
