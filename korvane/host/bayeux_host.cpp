#include "korvane/host/bayeux_host.h"

#include <utility>

#include "korvane/bayeux.h"
#include "korvane/host/host_context.h"
#include "korvane/host/host_counters.h"
#include "korvane/routing/bayeux_counters.h"
#include "korvane/host/loop_timer_backend.h"

namespace korvane::host {

const Address BayeuxHost::dispatchAddress("/bayeux");
const Address BayeuxHost::longPollAddress("/bayeux/long-polling");
const Address BayeuxHost::webSocketAddress("/bayeux/websocket");
const Address BayeuxHost::httpClientAddress("/http/client");
const Address BayeuxHost::webSocketClientAddress("/bayeux/client");

BayeuxHost::BayeuxHost(BayeuxHostOptions options)
    : timers(std::make_shared<LoopTimerBackend>()), serviceRegistry(std::make_shared<ServiceRegistry>()) {
    // The protocol service arms its sweep in its constructor: the clock comes first.
    common::installTimerBackend(timers);
    routingCore = std::make_shared<bayeux::BayeuxServerImpl>();
    bayeux::BayeuxServiceOptions serviceOptions;
    serviceOptions.maxPendingMessages = options.maxPendingMessages;
    serviceOptions.maxPendingBytes = options.maxPendingBytes;
    serviceOptions.policy = options.policy;
    serviceOptions.incoming = std::move(options.incoming);
    serviceOptions.outgoing = std::move(options.outgoing);
    protocolService = std::make_shared<bayeux::BayeuxServiceProviderImpl>(routingCore, serviceOptions);
    serviceRegistry->add(dispatchAddress,
                   std::make_shared<bayeux::BayeuxHttpServiceProvider>(longPollAddress, webSocketAddress));
    serviceRegistry->add(longPollAddress, std::make_shared<bayeux::BayeuxLongPollServiceProvider>());
    serviceRegistry->add(longPollAddress, protocolService);
    serviceRegistry->add(webSocketAddress, std::make_shared<bayeux::BayeuxWebSocketServiceProvider>());
    serviceRegistry->add(webSocketAddress, protocolService);
    // The client transport sends its upgrade on to the address it was reached at, so the
    // HTTP client stands there beside it.
    auto httpClient = std::make_shared<HttpClientServiceProvider>(std::move(options.client));
    serviceRegistry->add(httpClientAddress, httpClient);
    serviceRegistry->add(webSocketClientAddress, httpClient);
    serviceRegistry->add(webSocketClientAddress, std::make_shared<bayeux::WebSocketClientConnectionServiceProvider>());
    options.http.bayeuxAddress = dispatchAddress;
    options.http.longPollAddress = longPollAddress;
    options.http.requestInContext = options.policy != nullptr;
    options.http.metrics = exposition;
    server = std::make_unique<HttpServer>(std::move(options.http), serviceRegistry, timers);
    addMetricCollectors();
}

void BayeuxHost::addMetricCollectors() {
    exposition->add(bayeux::writeBayeuxCounters);
    exposition->add([this](common::MetricsWriter& writer) {
        const bayeux::BayeuxServiceProviderImpl::ClientCensus clients = protocolService->census();
        writer.family("korvane_clients", "gauge", "Clients, by the connection type of their last connect.");
        for (const auto& [type, count] : clients.byConnectionType) {
            writer.sample("korvane_clients", std::uint64_t{count}, {{"connection_type", type}});
        }
        writer.single("korvane_connects_held", "gauge", "Connects held open, waiting for messages.",
                      clients.heldConnects);
        const bayeux::BayeuxServerImpl::Census routing = routingCore->census();
        writer.single("korvane_routing_sessions", "gauge",
                      "Sessions in the routing core: remote clients and in-process sessions.", routing.sessions);
        writer.single("korvane_routing_patterns", "gauge", "Channels and patterns that sessions subscribe to.",
                      routing.patterns);
        writeHostCounters(writer);
        writer.single("korvane_connections_open", "gauge", "Open HTTP and WebSocket connections.",
                      server->openConnections());
    });
    exposition->add(writeProcessMetrics);
}

BayeuxHost::~BayeuxHost() {
    stop();
    // The services go before the clock that their timers live on.
    server.reset();
    protocolService.reset();
    serviceRegistry.reset();
    routingCore.reset();
    common::installTimerBackend(nullptr);
}

void BayeuxHost::start() {
    serviceRegistry->startAll();
    server->start();
    started = true;
}

void BayeuxHost::stop() {
    if (!started) {
        return;
    }
    started = false;
    server->stop();
    serviceRegistry->stopAll();
}

std::string BayeuxHost::url() const { return server->url(); }

unsigned short BayeuxHost::port() const { return server->port(); }

std::shared_ptr<bayeux::LocalBayeuxSession> BayeuxHost::makeLocalSession() {
    auto session = std::make_shared<bayeux::LocalBayeuxSession>(routingCore, HostContext::create(serviceRegistry));
    routingCore->addSession(session);
    return session;
}

}  // namespace korvane::host
