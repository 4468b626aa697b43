#pragma once

// The entry point of all Bayeux traffic over HTTP: a WebSocket upgrade goes to the
// WebSocket transport, a POST to the long-poll transport, anything else is answered
// 400 "Unknown Bayeux Transport". It reads no body and does no Bayeux work.
//
// Threading: no mutable state after construction; handle may run on many threads.

#include <memory>

#include "korvane/frame/http.h"
#include "korvane/export.h"

namespace korvane::bayeux {

class KORVANE_EXPORT BayeuxHttpServiceProvider : public http::HttpServiceProvider {
public:
    // An unset address switches that transport off.
    BayeuxHttpServiceProvider(const Address& longPollAddress, const Address& webSocketAddress);
    ~BayeuxHttpServiceProvider() override;

    Future<std::unique_ptr<Message>> handle(std::unique_ptr<http::HttpRequest>&& request, Address&& address,
                                            std::shared_ptr<Context>&& context) override;

private:
    const Address longPollAddress;
    const Address webSocketAddress;
};

}  // namespace korvane::bayeux
