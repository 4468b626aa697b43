#include "korvane/frame/http.h"

#include <utility>

#include "korvane/frame/one_shot_publisher.h"

namespace korvane::http {

HttpRequest::HttpRequest(std::string method, std::string target, Headers headers, std::shared_ptr<BodyPublisher> body)
    : method(std::move(method)), target(std::move(target)), headers(std::move(headers)), body(std::move(body)) {}

HttpRequest::~HttpRequest() = default;

// `self` owns this very request; ownership passes on to the service's handle.
Future<std::unique_ptr<Message>> HttpRequest::dispatchTo(std::shared_ptr<HttpServiceProvider>&& service,
                                                         std::unique_ptr<Message>&& self, Address&& address,
                                                         std::shared_ptr<Context>&& context) {
    std::unique_ptr<HttpRequest> request(static_cast<HttpRequest*>(self.release()));
    return service->handle(std::move(request), std::move(address), std::move(context));
}

HttpClientRequest::HttpClientRequest(const std::string& target, const std::string& method,
                                     std::shared_ptr<BodyPublisher> body)
    : HttpRequest(method, target, Headers(), std::move(body)) {}

HttpClientRequest::~HttpClientRequest() = default;

HttpResponse::HttpResponse(unsigned short status, Headers&& headers, Headers&& trailers,
                           std::shared_ptr<BodyPublisher> body)
    : status(status), headers(std::move(headers)), trailers(std::move(trailers)), body(std::move(body)) {}

HttpResponse::~HttpResponse() = default;

WebSocket::WebSocket(std::shared_ptr<reactive_streams::PublisherAPI<WebSocketFrame>> inbound,
                     std::shared_ptr<reactive_streams::SubscriberAPI<WebSocketFrame>> outbound)
    : inbound(std::move(inbound)), outbound(std::move(outbound)) {}

WebSocket::~WebSocket() = default;

HttpServiceProvider::HttpServiceProvider() = default;
HttpServiceProvider::~HttpServiceProvider() = default;

Future<std::unique_ptr<Message>> makeReadyHttpResponse(unsigned short status, const std::string& text) {
    Headers headers{{"Content-Type", "text/plain;charset=UTF-8"}};
    auto body = std::make_shared<reactive_streams::OneShotPublisher<common::DataBuffer>>(common::DataBuffer(text));
    std::unique_ptr<Message> response =
        std::make_unique<HttpResponse>(status, std::move(headers), Headers(), std::move(body));
    return makeReadyFuture(std::move(response));
}

}  // namespace korvane::http
