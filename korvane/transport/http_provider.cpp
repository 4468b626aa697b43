#include "korvane/transport/http_provider.h"

#include <utility>

namespace korvane::bayeux {

namespace {

// The method and header names come in lower case from the host; the value is compared whole.
bool asksForWebSocket(const http::HttpRequest& request) {
    auto upgrade = request.headers.find("upgrade");
    return upgrade != request.headers.end() && upgrade->second == "websocket";
}

}  // namespace

BayeuxHttpServiceProvider::BayeuxHttpServiceProvider(const Address& longPollAddress, const Address& webSocketAddress)
    : longPollAddress(longPollAddress), webSocketAddress(webSocketAddress) {}

BayeuxHttpServiceProvider::~BayeuxHttpServiceProvider() = default;

Future<std::unique_ptr<Message>> BayeuxHttpServiceProvider::handle(std::unique_ptr<http::HttpRequest>&& request,
                                                                   Address&& /*address*/,
                                                                   std::shared_ptr<Context>&& context) {
    if (webSocketAddress && asksForWebSocket(*request)) {
        return context->handle<Message, http::HttpRequest>(std::move(request), Address(webSocketAddress));
    }
    if (longPollAddress && request->method == "post") {
        return context->handle<Message, http::HttpRequest>(std::move(request), Address(longPollAddress));
    }
    return http::makeReadyHttpResponse(400, "Unknown Bayeux Transport");
}

}  // namespace korvane::bayeux
