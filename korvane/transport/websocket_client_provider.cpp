#include "korvane/transport/websocket_client_provider.h"

#include <stdexcept>
#include <typeinfo>
#include <utility>

#include <boost/any.hpp>

#include "korvane/codec/deserialize.h"
#include "korvane/codec/serialize.h"
#include "korvane/frame/logger.h"
#include "korvane/frame/transform_processor.h"
#include "korvane/frame/type_name.h"

namespace korvane::bayeux {

namespace {

common::diagnostic_logger logger("korvane::bayeux::websocket::client");

constexpr unsigned char textFrame = 129;

using MessageFuture = Future<std::unique_ptr<Message>>;

// The "tvapikey" property of the context, as text; a value of another type gives an empty one.
std::string apiKeyOf(const Context& context) {
    boost::any value = context.get("tvapikey");
    const std::string* text = boost::any_cast<std::string>(&value);
    return text == nullptr ? std::string() : *text;
}

std::unique_ptr<http::HttpClientRequest> makeUpgradeRequest(const std::string& url, const Context& context) {
    auto request = std::make_unique<http::HttpClientRequest>(url, "get", nullptr);
    request->headers.emplace("connection", "upgrade");
    request->headers.emplace("upgrade", "websocket");
    if (context.has("tvapikey")) {
        request->headers.emplace("tvapikey", apiKeyOf(context));
    }
    return request;
}

// Joins the socket's two ends to fresh processors. The path out is joined before the
// path in, so it stands before the first inbound frame can arrive.
std::unique_ptr<Message> joinStreams(Future<std::unique_ptr<http::WebSocket>>&& upgraded) {
    std::unique_ptr<http::WebSocket> socket = upgraded.get();
    KORVANE_LOG(logger, common::logTrace) << "Websocket connection open";
    auto outbound = makeOutboundWebSocketClientProcessor();
    outbound->subscribe(socket->outbound);
    auto inbound = makeInboundWebSocketClientProcessor();
    socket->inbound->subscribe(inbound);
    return std::make_unique<ConnectTransportResponse>(std::move(inbound), std::move(outbound));
}

}  // namespace

ConnectTransport::ConnectTransport(std::string url) : url(std::move(url)) {}
ConnectTransport::~ConnectTransport() = default;

ConnectTransportResponse::ConnectTransportResponse(
    std::shared_ptr<reactive_streams::PublisherAPI<std::unique_ptr<Message>>> publisher,
    std::shared_ptr<reactive_streams::SubscriberAPI<std::unique_ptr<Message>>> subscriber)
    : publisher(std::move(publisher)), subscriber(std::move(subscriber)) {}
ConnectTransportResponse::~ConnectTransportResponse() = default;

WebSocketClientConnectionServiceProvider::WebSocketClientConnectionServiceProvider() = default;
WebSocketClientConnectionServiceProvider::~WebSocketClientConnectionServiceProvider() = default;

MessageFuture WebSocketClientConnectionServiceProvider::deliver(std::unique_ptr<Message>&& message, Address&& address,
                                                                std::shared_ptr<Context>&& context) {
    auto* connect = dynamic_cast<ConnectTransport*>(message.get());
    if (connect == nullptr) {
        // typeid of a null message throws std::bad_typeid out of deliver, as it should.
        const std::type_info& type = typeid(*message.get());
        return makeErrorFuture<std::unique_ptr<Message>>(
            std::make_exception_ptr(std::runtime_error("Invalid message type: " + common::mangledTypeName(type))));
    }
    KORVANE_LOG(logger, common::logTrace) << "Creating bayeux websocket connection to: " << connect->url;
    std::unique_ptr<http::HttpClientRequest> request = makeUpgradeRequest(connect->url, *context);
    Future<std::unique_ptr<http::WebSocket>> upgraded =
        context->handle<http::WebSocket, http::HttpClientRequest>(std::move(request), std::move(address));
    return upgraded.then(joinStreams);
}

std::shared_ptr<reactive_streams::ProcessorAPI<http::WebSocketFrame, std::unique_ptr<Message>>>
makeInboundWebSocketClientProcessor() {
    return std::make_shared<reactive_streams::TransformProcessor<http::WebSocketFrame, std::unique_ptr<Message>>>(
        [](http::WebSocketFrame&& frame) -> std::unique_ptr<Message> {
            if (frame.data.empty()) {
                return nullptr;
            }
            KORVANE_LOG(logger, common::logTrace) << "Websocket frame received: " << frame.data.view();
            return deserializeBayeuxMessage(frame.data, false);
        });
}

std::shared_ptr<reactive_streams::ProcessorAPI<std::unique_ptr<Message>, http::WebSocketFrame>>
makeOutboundWebSocketClientProcessor() {
    return std::make_shared<reactive_streams::TransformProcessor<std::unique_ptr<Message>, http::WebSocketFrame>>(
        [](std::unique_ptr<Message>&& message) {
            common::DataBuffer text;
            if (message) {
                serializeBayeuxMessage(std::move(message), text);
                KORVANE_LOG(logger, common::logTrace) << "Websocket frame sent: " << text.view();
            }
            return http::WebSocketFrame(std::move(text), textFrame);
        });
}

}  // namespace korvane::bayeux
