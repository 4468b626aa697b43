#include "korvane/transport/websocket_provider.h"

#include <exception>
#include <stdexcept>
#include <string_view>
#include <typeinfo>
#include <utility>

#include "korvane/codec/messages.h"
#include "korvane/codec/serialize.h"
#include "korvane/frame/logger.h"

namespace korvane::bayeux {

namespace {

common::diagnostic_logger logger("korvane::bayeux::websocket");

constexpr std::int64_t defaultConnectTimeoutMilliseconds = 14000;
constexpr unsigned char textFrame = 129;
constexpr std::string_view websocketConnectionType = "websocket";
// Room for most frames at once: a delivery or a reply rarely needs more.
constexpr std::size_t typicalFrameBytes = 256;

// The Bayeux fields of a message, or null. The classes that pass every connect cycle are told by
// their exact type: a cross-cast from Message walks the whole class graph.
BayeuxBase* bayeuxFieldsOf(Message& message) {
    const std::type_info& type = typeid(message);
    if (type == typeid(PublishRequest)) {
        return static_cast<PublishRequest*>(&message);
    }
    if (type == typeid(ConnectResponse)) {
        return static_cast<ConnectResponse*>(&message);
    }
    if (type == typeid(ConnectStreamRequest)) {
        return static_cast<ConnectStreamRequest*>(&message);
    }
    return dynamic_cast<BayeuxBase*>(&message);
}

// The advice of a connect that brings none (most do, after the first): the connect
// timeout alone. One object serves them all, so it is never written once made; the
// service only reads a connect's advice.
const std::shared_ptr<BayeuxAdvice>& defaultConnectAdvice() {
    static const std::shared_ptr<BayeuxAdvice> advice = [] {
        auto made = std::make_shared<BayeuxAdvice>();
        made->timeout = defaultConnectTimeoutMilliseconds;
        return made;
    }();
    return advice;
}

bool isUpgradeRequest(const Message* message) {
    auto* request = dynamic_cast<const http::HttpRequest*>(message);
    if (request == nullptr) {
        return false;
    }
    auto upgrade = request->headers.find("upgrade");
    return upgrade != request->headers.end() && upgrade->second == "websocket";
}

}  // namespace

WebSocketConnection::WebSocketConnection(std::shared_ptr<Context> context, Address address)
    : address(std::move(address)), context(std::move(context)) {}

WebSocketConnection::~WebSocketConnection() = default;

std::shared_ptr<reactive_streams::PublisherAPI<http::WebSocketFrame>> WebSocketConnection::getSocketPublisher() {
    std::weak_ptr<WebSocketConnection> weakSelf = weak_from_this();
    auto publisher = std::make_shared<FramePublisher>([weakSelf]() {
        if (std::shared_ptr<WebSocketConnection> self = weakSelf.lock()) {
            self->done(false);
        }
    });
    std::lock_guard<std::mutex> guard(mutex);
    framePublisher = publisher;
    frameReader = FramePublisher::Reader::none;
    return publisher;
}

std::shared_ptr<reactive_streams::SubscriberAPI<http::WebSocketFrame>> WebSocketConnection::getSocketSubscriber() {
    std::shared_ptr<WebSocketConnection> self = shared_from_this();
    return std::make_shared<reactive_streams::CallbackSubscriber<http::WebSocketFrame>>(
        [self](http::WebSocketFrame&& frame) { self->handleFrame(std::move(frame)); });
}

void WebSocketConnection::handleFrame(http::WebSocketFrame&& frame) {
    try {
        KORVANE_LOG(logger, common::logTrace) << "Websocket frame received: [" << frame.data.view() << "]";
        if (frame.data.empty()) {
            return;
        }
        // A text frame must hold UTF-8; one that does not fails the socket like any
        // frame that cannot be handled. A connect like the last one but for its id is
        // known without parsing.
        doHandleOne(connectTemplate.readRequest(frame.data));
    } catch (...) {
        KORVANE_LOG(logger, common::logFailure) << "Error while processing frame: " << frame.data.view();
        done(true);
    }
}

// The reader makes exactly these classes, so they are told by their type, the connect
// (nearly every frame) first: a type that does not match costs a comparison of names.
void WebSocketConnection::doHandleOne(std::unique_ptr<Message>&& message) {
    const std::type_info& type = typeid(*message);
    if (type == typeid(ConnectStreamRequest)) {
        doHandleConnect(std::move(message));
    } else if (type == typeid(BayeuxContainer)) {
        // A connect inside a batch is held like one on its own: a stream left without a
        // subscriber would swallow what the session puts in it and stay with the session.
        // The reader never nests a batch in a batch.
        for (std::unique_ptr<Message>& contained : static_cast<BayeuxContainer&>(*message).messages) {
            doHandleOne(std::move(contained));
        }
    } else {
        fillClientId(bayeuxFieldsOf(*message));
        sendMessage(doAskService(std::move(message)));
    }
}

std::unique_ptr<Message> WebSocketConnection::doAskService(std::unique_ptr<Message>&& message) {
    return context->handle(std::move(message), Address(address)).get();
}

void WebSocketConnection::doHandleConnect(std::unique_ptr<Message>&& message) {
    auto& connect = static_cast<ConnectStreamRequest&>(*message);
    // The client names its transport already, nearly always: the string is left as it is then.
    if (connect.connectionType != websocketConnectionType) {
        connect.connectionType = websocketConnectionType;
    }
    connect.bufferResponses = true;
    connect.holdResponses = false;
    if (!connect.advice) {
        connect.advice = defaultConnectAdvice();
    } else if (connect.advice->timeout < 0) {
        connect.advice->timeout = defaultConnectTimeoutMilliseconds;
    }
    connect.sink = weak_from_this();
    fillClientId(&connect);
    std::unique_ptr<Message> reply = doAskService(std::move(message));
    auto* opened = messageAs<ConnectStreamResponse>(reply.get());
    if (opened == nullptr || !opened->successful) {
        sendMessage(std::move(reply));
        return;
    }
    if (!opened->stream) {
        // Held: the session writes through deliver.
        return;
    }
    // The reply itself is not written: the stream yields the connect's answer in its turn.
    std::weak_ptr<WebSocketConnection> weakSelf = weak_from_this();
    auto subscriber = std::make_shared<MessageSubscriber>([weakSelf](std::unique_ptr<Message>&& streamed) {
        if (std::shared_ptr<WebSocketConnection> self = weakSelf.lock()) {
            self->sendMessage(std::move(streamed));
        }
    });
    std::shared_ptr<reactive_streams::PublisherAPI<std::unique_ptr<Message>>> stream = opened->stream;
    {
        std::lock_guard<std::mutex> guard(mutex);
        messageSubscriber = subscriber;
        connectStream = stream;
    }
    stream->subscribe(subscriber);
}

void WebSocketConnection::fillClientId(BayeuxBase* bayeux) {
    if (bayeux != nullptr && bayeux->clientId.empty()) {
        std::lock_guard<std::mutex> guard(mutex);
        bayeux->clientId = clientId;
    }
}

void WebSocketConnection::sendMessage(std::unique_ptr<Message>&& message) {
    // A reply that carries a client id (the handshake's) teaches the connection its id.
    BayeuxBase* bayeux = bayeuxFieldsOf(*message);
    std::shared_ptr<FramePublisher> publisher = framePublisherLearning(bayeux == nullptr ? nullptr : &bayeux->clientId);
    if (!publisher) {
        return;
    }
    common::DataBuffer text = frameStart(typicalFrameBytes);
    serializeBayeuxMessage(std::move(message), text);
    sendFrame(*publisher, std::move(text));
}

void WebSocketConnection::deliver(std::unique_ptr<Message>&& message) { sendMessage(std::move(message)); }

void WebSocketConnection::deliverPublish(const std::shared_ptr<const PublishRequest>& message) {
    FramePublisher::Reader reader = FramePublisher::Reader::none;
    std::shared_ptr<FramePublisher> publisher = framePublisherLearning(nullptr, &reader);
    if (!publisher) {
        return;
    }
    sendPublish(publisher, reader, message);
}

void WebSocketConnection::deliverConnectReply(const std::string& messageId, const std::string& replyClientId) {
    std::shared_ptr<FramePublisher> publisher = framePublisherLearning(&replyClientId);
    if (!publisher) {
        return;
    }
    sendFrame(*publisher, connectReplyFrame(messageId, replyClientId));
}

void WebSocketConnection::deliverPublishAndReply(const std::shared_ptr<const PublishRequest>& message,
                                                 const std::string& messageId, const std::string& replyClientId) {
    FramePublisher::Reader reader = FramePublisher::Reader::none;
    std::shared_ptr<FramePublisher> publisher = framePublisherLearning(&replyClientId, &reader);
    if (!publisher) {
        return;
    }
    sendPublish(publisher, reader, message);
    sendFrame(*publisher, connectReplyFrame(messageId, replyClientId));
}

// Only a taker that collects understands shared bytes (http.h); one that subscribes gets its own copy.
void WebSocketConnection::sendPublish(const std::shared_ptr<FramePublisher>& publisher,
                                      FramePublisher::Reader reader,
                                      const std::shared_ptr<const PublishRequest>& message) {
    if (reader == FramePublisher::Reader::none) {
        reader = publisher->reader();
        std::lock_guard<std::mutex> guard(mutex);
        if (framePublisher == publisher) {
            frameReader = reader;
        }
    }
    if (reader != FramePublisher::Reader::collector) {
        sendFrame(*publisher, publishFrame(*message));
        return;
    }
    const std::shared_ptr<const common::DataBuffer>& frame = message->deliveredFrame();
    KORVANE_LOG(logger, common::logTrace) << "Websocket frame sent: " << frame->view();
    publisher->publish(http::WebSocketFrame(frame, textFrame));
}

// The receiver's copy would write the text all receivers share.
common::DataBuffer WebSocketConnection::publishFrame(const PublishRequest& message) {
    const common::DataBuffer& delivered = message.deliveredText();
    common::DataBuffer text = frameStart(delivered.size + 2);
    text.append(delivered.chars(), delivered.size);
    return text;
}

common::DataBuffer WebSocketConnection::connectReplyFrame(const std::string& messageId, const std::string& replyClientId) {
    common::DataBuffer text = frameStart(typicalFrameBytes);
    serializeConnectReply(messageId, replyClientId, text);
    return text;
}

std::shared_ptr<WebSocketConnection::FramePublisher> WebSocketConnection::framePublisherLearning(
    const std::string* replyClientId, FramePublisher::Reader* reader) {
    std::lock_guard<std::mutex> guard(mutex);
    if (framePublisher && replyClientId != nullptr && !replyClientId->empty() && *replyClientId != clientId) {
        clientId = *replyClientId;
    }
    if (reader != nullptr) {
        *reader = frameReader;
    }
    return framePublisher;
}

common::DataBuffer WebSocketConnection::frameStart(std::size_t room) {
    common::DataBuffer text;
    text.reserve(room);
    text.push_back('[');
    return text;
}

void WebSocketConnection::sendFrame(FramePublisher& publisher, common::DataBuffer&& text) {
    text.push_back(']');
    KORVANE_LOG(logger, common::logTrace) << "Websocket frame sent: " << text.view();
    publisher.publish(http::WebSocketFrame(std::move(text), textFrame));
}

void WebSocketConnection::done(bool failed) {
    KORVANE_LOG(logger, common::logFailure) << "WebSocketConnection done";
    std::shared_ptr<FramePublisher> publisher;
    std::shared_ptr<MessageSubscriber> subscriber;
    {
        std::lock_guard<std::mutex> guard(mutex);
        publisher = std::move(framePublisher);
        subscriber = std::move(messageSubscriber);
        framePublisher = nullptr;
        messageSubscriber = nullptr;
        connectStream = nullptr;
    }
    if (subscriber) {
        subscriber->cancel();
    }
    if (failed && publisher) {
        publisher->setError(std::current_exception());
    }
}

BayeuxWebSocketServiceProvider::BayeuxWebSocketServiceProvider() = default;
BayeuxWebSocketServiceProvider::~BayeuxWebSocketServiceProvider() = default;

Future<std::unique_ptr<Message>> BayeuxWebSocketServiceProvider::deliver(std::unique_ptr<Message>&& message,
                                                                         Address&& address,
                                                                         std::shared_ptr<Context>&& context) {
    if (!isUpgradeRequest(message.get())) {
        return http::makeReadyHttpResponse(500, "Bayeux protocol error.");
    }
    KORVANE_LOG(logger, common::logTrace) << "Websocket connection requested";
    auto connection = std::make_shared<WebSocketConnection>(std::move(context), std::move(address));
    auto publisher = connection->getSocketPublisher();
    auto subscriber = connection->getSocketSubscriber();
    std::unique_ptr<Message> socket = std::make_unique<http::WebSocket>(std::move(publisher), std::move(subscriber));
    return makeReadyFuture(std::move(socket));
}

}  // namespace korvane::bayeux
