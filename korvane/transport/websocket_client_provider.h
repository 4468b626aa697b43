#pragma once

// Opens an outbound WebSocket to a remote Bayeux server and hands the caller a pair
// of message streams. It does no Bayeux of its own (no handshake, no connect loop):
// the caller publishes messages, each written as a text frame holding a bare JSON
// object, and receives what the remote sends, parsed as responses. The socket comes
// from the host's HTTP client, reached by an http::HttpClientRequest sent through
// the request's context.
//
// Threading: the provider has no state and no lock; deliver may run on any thread.
// The two processors lock for themselves and run their transforms under their own
// lock, touching nothing else that locks but the logger.

#include <memory>
#include <string>

#include "korvane/frame/http.h"
#include "korvane/frame/service.h"
#include "korvane/export.h"

namespace korvane::bayeux {

// Asks for a connection to `url` (ws:// or wss://).
class KORVANE_EXPORT ConnectTransport : public Message {
public:
    explicit ConnectTransport(std::string url);
    ~ConnectTransport() override;

    std::string url;
};

// The open connection: the messages from the remote, and the subscriber that takes messages to it.
class KORVANE_EXPORT ConnectTransportResponse : public Message {
public:
    ConnectTransportResponse(std::shared_ptr<reactive_streams::PublisherAPI<std::unique_ptr<Message>>> publisher,
                             std::shared_ptr<reactive_streams::SubscriberAPI<std::unique_ptr<Message>>> subscriber);
    ~ConnectTransportResponse() override;

    std::shared_ptr<reactive_streams::PublisherAPI<std::unique_ptr<Message>>> publisher;
    std::shared_ptr<reactive_streams::SubscriberAPI<std::unique_ptr<Message>>> subscriber;
};

class KORVANE_EXPORT WebSocketClientConnectionServiceProvider : public ServiceProvider {
public:
    WebSocketClientConnectionServiceProvider();
    ~WebSocketClientConnectionServiceProvider() override;

    // `message` must be a ConnectTransport; `address` names the host's HTTP client.
    // Yields a ConnectTransportResponse once the upgrade has succeeded.
    Future<std::unique_ptr<Message>> deliver(std::unique_ptr<Message>&& message, Address&& address,
                                             std::shared_ptr<Context>&& context) override;
};

// Frames from the remote into response messages; an empty frame gives a null message.
KORVANE_EXPORT std::shared_ptr<reactive_streams::ProcessorAPI<http::WebSocketFrame, std::unique_ptr<Message>>>
makeInboundWebSocketClientProcessor();
// Messages into text frames holding a bare JSON object; a null message gives an empty frame.
KORVANE_EXPORT std::shared_ptr<reactive_streams::ProcessorAPI<std::unique_ptr<Message>, http::WebSocketFrame>>
makeOutboundWebSocketClientProcessor();

}  // namespace korvane::bayeux
