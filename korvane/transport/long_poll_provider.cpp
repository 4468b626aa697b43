#include "korvane/transport/long_poll_provider.h"

#include <atomic>
#include <exception>
#include <functional>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <utility>

#include "korvane/codec/messages.h"
#include "korvane/codec/serialize.h"
#include "korvane/codec/utf8.h"
#include "korvane/frame/cached_value_publisher.h"
#include "korvane/frame/logger.h"
#include "korvane/frame/one_shot_publisher.h"
#include "korvane/frame/reducing_subscriber.h"
#include "korvane/transport/connect_stream_serializer.h"

namespace korvane::bayeux {

namespace {

common::diagnostic_logger logger("korvane::bayeux::http");

constexpr std::size_t bodyLogLimit = 500;

using MessageFuture = Future<std::unique_ptr<Message>>;

// Sends one message to the protocol service and waits on this thread for its reply,
// so that the replies of a body stand in the order of its requests.
std::unique_ptr<Message> askService(std::unique_ptr<Message>&& message, const Address& address,
                                    const std::shared_ptr<Context>& context) {
    return context->handle(std::move(message), Address(address)).get();
}

std::unique_ptr<Message> makeJsonResponse(std::shared_ptr<http::BodyPublisher> body) {
    // Built in place: a list of pairs is copied into the map, its value an allocation twice.
    http::Headers headers;
    headers.emplace("Content-Type", "application/json;charset=UTF-8");
    return std::make_unique<http::HttpResponse>(200, std::move(headers), http::Headers(), std::move(body));
}

std::unique_ptr<Message> makeCompleteResponse(common::DataBuffer&& body) {
    return makeJsonResponse(std::make_shared<reactive_streams::OneShotPublisher<common::DataBuffer>>(std::move(body)));
}

std::unique_ptr<Message> makeSingleMessageResponse(std::unique_ptr<Message>&& reply) {
    common::DataBuffer body;
    body.push_back('[');
    serializeBayeuxMessage(std::move(reply), body);
    body.push_back(']');
    KORVANE_LOG(logger, common::logTrace) << "Long poll serialize single message: " << body.view().substr(0, bodyLogLimit);
    return makeCompleteResponse(std::move(body));
}

// Every message in order, each sent only once the one before has its reply.
std::unique_ptr<Message> answerBatch(BayeuxContainer& batch, const Address& address,
                                     const std::shared_ptr<Context>& context) {
    common::DataBuffer body;
    body.push_back('[');
    for (std::size_t index = 0; index < batch.messages.size(); ++index) {
        std::unique_ptr<Message> reply = askService(std::move(batch.messages[index]), address, context);
        serializeBayeuxMessage(std::move(reply), body);
        if (index + 1 < batch.messages.size()) {
            body.push_back(',');
        }
    }
    body.push_back(']');
    return makeCompleteResponse(std::move(body));
}

// The body of a held connect's response, written as the session hands over the connect's
// messages: one chunk each, the ConnectResponse's last. Chunks that meet no demand wait in the
// publisher's cache. Once its reader cancels, the session sees the connect gone.
//
// Ownership: the body keeps itself alive until its stream ends (read to its end, or cancelled),
// as a session keeps a connect's queue: its reader need hold only the subscription, and the
// publisher's destructor never finds the stream unfinished. A host that will not send an answer
// cancels its body.
//
// Threading: the deliver calls come from the session, one at a time, so `atArrayStart` needs no
// lock; the publisher's mutex guards the rest, and `ended` is read from any thread. `self` is
// set before the body is shared and released by the end of the stream, which happens once.
class ConnectBody final : public reactive_streams::CachedValuePublisher<common::DataBuffer, std::function<void()>>,
                          public ConnectSink {
public:
    static std::shared_ptr<ConnectBody> open() {
        auto body = std::make_shared<ConnectBody>();
        body->self = body;
        return body;
    }

    // Whoever ends the stream holds the body across the call back.
    ConnectBody() : CachedValuePublisher([this] { onEnded(); }) {}

    void deliver(std::unique_ptr<Message>&& message) override {
        const bool last = message && typeid(*message) == typeid(ConnectResponse);
        publish(serializeConnectChunk(std::move(message), atArrayStart));
        if (last) {
            finish();
        }
    }

    void deliverPublish(const std::shared_ptr<const PublishRequest>& message) override {
        publish(serializePublishChunk(*message, atArrayStart));
    }

    void deliverConnectReply(const std::string& messageId, const std::string& clientId) override {
        publish(serializeConnectReplyChunk(messageId, clientId, atArrayStart));
        finish();
    }

    bool cancelled() const override { return ended.load(std::memory_order_acquire); }

private:
    void onEnded() {
        ended.store(true, std::memory_order_release);
        self.reset();
    }

    bool atArrayStart = true;
    std::atomic<bool> ended{false};
    std::shared_ptr<ConnectBody> self;
};

// The response goes out as soon as the service has opened the connect; its body then follows
// as the session hands the connect's messages to the sink, closed by the connect's own reply.
// A connect answered as a short poll comes as a stream instead.
MessageFuture answerConnect(std::unique_ptr<ConnectStreamRequest>&& connect, const Address& address,
                            const std::shared_ptr<Context>& context) {
    if (connect->connectionType.empty()) {
        connect->connectionType = "long-polling";
    }
    connect->bufferResponses = true;
    connect->holdResponses = true;
    std::shared_ptr<ConnectBody> body = ConnectBody::open();
    connect->sink = body;
    MessageFuture reply = context->handle(std::unique_ptr<Message>(std::move(connect)), Address(address));
    return reply.then([body = std::move(body)](MessageFuture&& answered) mutable -> std::unique_ptr<Message> {
        std::unique_ptr<Message> message;
        try {
            message = answered.get();
        } catch (...) {
            body->finish();
            throw;
        }
        auto* opened = messageAs<ConnectStreamResponse>(message.get());
        if (opened != nullptr && opened->successful && !opened->stream) {
            return makeJsonResponse(std::move(body));
        }
        // Not taken by a session: the body ends unread, which lets it go.
        body->finish();
        if (opened == nullptr || !opened->successful) {
            return makeSingleMessageResponse(std::move(message));
        }
        auto serializer = std::make_shared<ConnectStreamSerializer>();
        opened->stream->subscribe(serializer);
        return makeJsonResponse(std::move(serializer));
    });
}

// `connects`, when given, is the connection's: a connect like its last one is known unparsed.
MessageFuture answerBody(Future<common::DataBuffer>&& read, const Address& address,
                         const std::shared_ptr<Context>& context, ConnectTemplate* connects) {
    try {
        common::DataBuffer body = read.get();
        // A body that is not UTF-8 is refused whole, so that none of it reaches another client.
        std::unique_ptr<Message> message =
            connects != nullptr ? connects->readRequest(body) : deserializeUtf8Request(body);
        KORVANE_LOG(logger, common::logFrequent) << "Finished parsing bayeux request";
        // The reader makes exactly these classes, so they are told by their type.
        const std::type_info& type = typeid(*message);
        if (type == typeid(ConnectStreamRequest)) {
            return answerConnect(std::unique_ptr<ConnectStreamRequest>(static_cast<ConnectStreamRequest*>(
                                     message.release())),
                                 address, context);
        }
        if (type == typeid(BayeuxContainer)) {
            return makeReadyFuture(answerBatch(static_cast<BayeuxContainer&>(*message), address, context));
        }
        return makeReadyFuture(makeSingleMessageResponse(askService(std::move(message), address, context)));
    } catch (const std::exception& error) {
        return http::makeReadyHttpResponse(500, std::string("Error handling bayeux request: ") + error.what());
    } catch (...) {
        return http::makeReadyHttpResponse(500, "Unknown error handling bayeux request.");
    }
}

common::DataBuffer appendChunk(common::DataBuffer&& chunk, common::DataBuffer&& body) {
    // The first chunk becomes the body as it is: a request's body is normally one chunk.
    if (body.empty()) {
        return std::move(chunk);
    }
    // append() ignores an empty chunk and the accumulator itself.
    body.append(chunk);
    return std::move(body);
}

}  // namespace

BayeuxLongPollServiceProvider::BayeuxLongPollServiceProvider() = default;
BayeuxLongPollServiceProvider::~BayeuxLongPollServiceProvider() = default;

MessageFuture answerLongPollBody(common::DataBuffer&& body, const Address& address,
                                const std::shared_ptr<Context>& context, ConnectTemplate* connects) {
    KORVANE_LOG(logger, common::logFrequent) << "Starting parsing bayeux request";
    return answerBody(makeReadyFuture(std::move(body)), address, context, connects);
}

MessageFuture BayeuxLongPollServiceProvider::handle(std::unique_ptr<http::HttpRequest>&& request, Address&& address,
                                                    std::shared_ptr<Context>&& context) {
    KORVANE_LOG(logger, common::logFrequent) << "Starting parsing bayeux request";
    Future<common::DataBuffer> read = reactive_streams::reduce<common::DataBuffer, common::DataBuffer>(
        request->body, appendChunk, common::DataBuffer());
    Future<MessageFuture> answered =
        read.then([address = std::move(address), context = std::move(context)](Future<common::DataBuffer>&& body) {
            return answerBody(std::move(body), address, context, nullptr);
        });
    return unwrap(std::move(answered));
}

}  // namespace korvane::bayeux
