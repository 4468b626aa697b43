#include "korvane/host/bayeux_host.h"

#include <utility>

#include "korvane/bayeux.h"
#include "korvane/host/host_context.h"
#include "korvane/host/threaded_timer_backend.h"

namespace korvane::host {

const Address BayeuxHost::dispatchAddress("/bayeux");
const Address BayeuxHost::longPollAddress("/bayeux/long-polling");
const Address BayeuxHost::webSocketAddress("/bayeux/websocket");
const Address BayeuxHost::httpClientAddress("/http/client");
const Address BayeuxHost::webSocketClientAddress("/bayeux/client");

BayeuxHost::BayeuxHost(BayeuxHostOptions options)
    : timers_(std::make_shared<ThreadedTimerBackend>()), registry_(std::make_shared<ServiceRegistry>()) {
    // The protocol service arms its sweep in its constructor: the clock comes first.
    common::installTimerBackend(timers_);
    routing_ = std::make_shared<bayeux::BayeuxServerImpl>();
    bayeux::BayeuxServiceOptions serviceOptions;
    serviceOptions.maxPendingMessages = options.maxPendingMessages;
    protocol_ = std::make_shared<bayeux::BayeuxServiceProviderImpl>(routing_, serviceOptions);
    registry_->add(dispatchAddress,
                   std::make_shared<bayeux::BayeuxHttpServiceProvider>(longPollAddress, webSocketAddress));
    registry_->add(longPollAddress, std::make_shared<bayeux::BayeuxLongPollServiceProvider>());
    registry_->add(longPollAddress, protocol_);
    registry_->add(webSocketAddress, std::make_shared<bayeux::BayeuxWebSocketServiceProvider>());
    registry_->add(webSocketAddress, protocol_);
    // The client transport sends its upgrade on to the address it was reached at, so the
    // HTTP client stands there beside it.
    auto httpClient = std::make_shared<HttpClientServiceProvider>(std::move(options.client));
    registry_->add(httpClientAddress, httpClient);
    registry_->add(webSocketClientAddress, httpClient);
    registry_->add(webSocketClientAddress, std::make_shared<bayeux::WebSocketClientConnectionServiceProvider>());
    options.http.bayeuxAddress = dispatchAddress;
    server_ = std::make_unique<HttpServer>(std::move(options.http), registry_);
}

BayeuxHost::~BayeuxHost() {
    stop();
    // The services go before the clock that their timers live on.
    server_.reset();
    protocol_.reset();
    registry_.reset();
    routing_.reset();
    common::installTimerBackend(nullptr);
    timers_->stop();
}

void BayeuxHost::start() {
    timers_->start();
    registry_->startAll();
    server_->start();
    started_ = true;
}

void BayeuxHost::stop() {
    if (!started_) {
        return;
    }
    started_ = false;
    server_->stop();
    registry_->stopAll();
}

std::string BayeuxHost::url() const { return server_->url(); }

unsigned short BayeuxHost::port() const { return server_->port(); }

std::shared_ptr<bayeux::LocalBayeuxSession> BayeuxHost::makeLocalSession() {
    auto session = std::make_shared<bayeux::LocalBayeuxSession>(routing_, HostContext::create(registry_));
    routing_->addSession(session);
    return session;
}

}  // namespace korvane::host
