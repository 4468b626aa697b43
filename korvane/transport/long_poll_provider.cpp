#include "korvane/transport/long_poll_provider.h"

#include <exception>
#include <functional>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <utility>

#include "korvane/codec/messages.h"
#include "korvane/codec/serialize.h"
#include "korvane/codec/utf8.h"
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

// The response goes out as soon as the service has opened the connect; its body
// then follows the session's queue, closed by the connect's own reply.
MessageFuture answerConnect(std::unique_ptr<ConnectStreamRequest>&& connect, const Address& address,
                            const std::shared_ptr<Context>& context) {
    if (connect->connectionType.empty()) {
        connect->connectionType = "long-polling";
    }
    connect->bufferResponses = true;
    connect->holdResponses = true;
    MessageFuture reply = context->handle(std::unique_ptr<Message>(std::move(connect)), Address(address));
    return reply.then([](MessageFuture&& answered) -> std::unique_ptr<Message> {
        std::unique_ptr<Message> message = answered.get();
        auto* opened = messageAs<ConnectStreamResponse>(message.get());
        if (opened != nullptr && opened->successful && opened->stream) {
            auto serializer = std::make_shared<ConnectStreamSerializer>();
            opened->stream->subscribe(serializer);
            return makeJsonResponse(std::move(serializer));
        }
        return makeSingleMessageResponse(std::move(message));
    });
}

MessageFuture answerBody(Future<common::DataBuffer>&& read, const Address& address,
                         const std::shared_ptr<Context>& context) {
    try {
        common::DataBuffer body = read.get();
        // A body that is not UTF-8 is refused whole, so that none of it reaches another client.
        std::unique_ptr<Message> message = deserializeUtf8Request(body);
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
                                const std::shared_ptr<Context>& context) {
    KORVANE_LOG(logger, common::logFrequent) << "Starting parsing bayeux request";
    return answerBody(makeReadyFuture(std::move(body)), address, context);
}

MessageFuture BayeuxLongPollServiceProvider::handle(std::unique_ptr<http::HttpRequest>&& request, Address&& address,
                                                    std::shared_ptr<Context>&& context) {
    KORVANE_LOG(logger, common::logFrequent) << "Starting parsing bayeux request";
    Future<common::DataBuffer> read = reactive_streams::reduce<common::DataBuffer, common::DataBuffer>(
        request->body, appendChunk, common::DataBuffer());
    Future<MessageFuture> answered =
        read.then([address = std::move(address), context = std::move(context)](Future<common::DataBuffer>&& body) {
            return answerBody(std::move(body), address, context);
        });
    return unwrap(std::move(answered));
}

}  // namespace korvane::bayeux
