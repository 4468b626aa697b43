#pragma once

// HTTP value types exchanged between the host's HTTP layer and the services.
// Plain values: a request or response is owned by one thread at a time.

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "korvane/frame/data_buffer.h"
#include "korvane/frame/message.h"
#include "korvane/frame/reactive_streams.h"
#include "korvane/frame/service.h"
#include "korvane/export.h"

namespace korvane::http {

// Exported at its first sight: ServiceMessage<HttpServiceProvider> is instantiated below, and
// the host casts to it, which needs one type across the library and the program.
class KORVANE_EXPORT HttpServiceProvider;

using Headers = std::unordered_multimap<std::string, std::string>;
using BodyPublisher = reactive_streams::PublisherAPI<common::DataBuffer>;

// An incoming request. `method` is lower case ("post", "get"); header names are lower case.
class KORVANE_EXPORT HttpRequest : public ServiceMessage<HttpServiceProvider> {
public:
    HttpRequest(std::string method, std::string target, Headers headers, std::shared_ptr<BodyPublisher> body);
    ~HttpRequest() override;

    Future<std::unique_ptr<Message>> dispatchTo(std::shared_ptr<HttpServiceProvider>&& service,
                                                std::unique_ptr<Message>&& self, Address&& address,
                                                std::shared_ptr<Context>&& context) override;

    std::string method;
    std::string target;  // path and query, as the request line gives them
    Headers headers;
    std::shared_ptr<BodyPublisher> body;
};

// An outgoing request, handed to the host's HTTP client service.
class KORVANE_EXPORT HttpClientRequest : public HttpRequest {
public:
    HttpClientRequest(const std::string& target, const std::string& method, std::shared_ptr<BodyPublisher> body);
    ~HttpClientRequest() override;
};

class KORVANE_EXPORT HttpResponse : public Message {
public:
    HttpResponse(unsigned short status, Headers&& headers, Headers&& trailers, std::shared_ptr<BodyPublisher> body);
    ~HttpResponse() override;

    unsigned short status;
    Headers headers;
    Headers trailers;
    std::shared_ptr<BodyPublisher> body;
};

// One frame's payload and first byte. Its bytes are its own (`data`), or, for a payload
// written to many sockets alike, bytes it shares with other frames (`shared`, never
// changed; `data` is then empty). Only a taker that collects a WebSocket's frames
// (collectable.h) gets shared ones: frames handed to a subscriber carry their bytes in `data`.
class KORVANE_EXPORT WebSocketFrame {
public:
    WebSocketFrame(common::DataBuffer&& data, unsigned char firstByte) : data(std::move(data)), firstByte(firstByte) {}
    WebSocketFrame(std::shared_ptr<const common::DataBuffer> shared, unsigned char firstByte)
        : shared(std::move(shared)), firstByte(firstByte) {}

    std::string_view bytes() const noexcept { return shared ? shared->view() : data.view(); }

    common::DataBuffer data;
    std::shared_ptr<const common::DataBuffer> shared;
    unsigned char firstByte;  // 129: final fragment, text frame
};

// An open WebSocket: the frames from the peer, and the subscriber that takes frames to it.
class KORVANE_EXPORT WebSocket : public Message {
public:
    WebSocket(std::shared_ptr<reactive_streams::PublisherAPI<WebSocketFrame>> inbound,
              std::shared_ptr<reactive_streams::SubscriberAPI<WebSocketFrame>> outbound);
    ~WebSocket() override;

    std::shared_ptr<reactive_streams::PublisherAPI<WebSocketFrame>> inbound;
    std::shared_ptr<reactive_streams::SubscriberAPI<WebSocketFrame>> outbound;
};

class KORVANE_EXPORT HttpServiceProvider : public ServiceProviderAPI<HttpServiceProvider> {
public:
    HttpServiceProvider();
    ~HttpServiceProvider() override;

    virtual Future<std::unique_ptr<Message>> handle(std::unique_ptr<HttpRequest>&& request, Address&& address,
                                                    std::shared_ptr<Context>&& context) = 0;
};

// An already resolved future holding a response with `status` and `text` as its body.
KORVANE_EXPORT Future<std::unique_ptr<Message>> makeReadyHttpResponse(unsigned short status, const std::string& text);

}  // namespace korvane::http
