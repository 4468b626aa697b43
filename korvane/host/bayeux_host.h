#pragma once

// A whole Bayeux server on the reference host, composed as an embedding application
// composes it: the clock and timers (run by the HTTP server's I/O threads while it
// runs), the routing core, the protocol service, the long-poll, WebSocket and dispatch
// transports, the outbound WebSocket client, and the HTTP/WebSocket server in front of
// them. The server binary is this class plus
// flags; an application that embeds the server makes one and adds its own
// in-process sessions with makeLocalSession().
//
// Addresses: the HTTP server sends Bayeux requests to dispatchAddress; each
// transport shares its address with the protocol service, so that the Bayeux
// messages it sends on under that address reach the protocol service. Likewise the
// outbound client transport (a bayeux::ConnectTransport sent to webSocketClientAddress)
// shares its address with the HTTP client, which also stands alone at httpClientAddress.
//
// Threading: start() and stop() belong to the owner's thread and must not be called
// from a callback of the server; everything else may be called from any thread once
// start() has returned. stop() takes the services down in the reverse order of their
// start and is run by the destructor if the owner did not.

#include <cstddef>
#include <memory>
#include <string>

#include "korvane/frame/metrics.h"
#include "korvane/host/http_client.h"
#include "korvane/host/http_server.h"
#include "korvane/host/service_registry.h"
#include "korvane/routing/bayeux_server.h"
#include "korvane/service/bayeux_policy.h"
#include "korvane/session/long_poll_session.h"

namespace korvane::bayeux {
class BayeuxServer;
class BayeuxServiceProviderImpl;
class LocalBayeuxSession;
}  // namespace korvane::bayeux

namespace korvane::host {

class LoopTimerBackend;

struct BayeuxHostOptions {
    // bayeuxAddress is set by the host itself.
    HttpServerOptions http;
    HttpClientOptions client;
    // Messages that may wait in one session for its client before the client is
    // dropped (it must handshake again); 0 means no limit.
    std::size_t maxPendingMessages = 10000;
    // Bytes of those messages (channel name plus data text of each) past which the client is
    // dropped alike; 0 means no limit.
    std::size_t maxPendingBytes = 8 << 20;
    // Asked before each handshake, subscribe and publish; none allows everything. Given one,
    // the host puts each request's headers and remote address in its context.
    std::shared_ptr<bayeux::BayeuxPolicy> policy;
    // Requests from clients before they act, and messages to clients before they are
    // written (see bayeux_policy.h and long_poll_session.h); either may be unset.
    bayeux::IncomingHook incoming;
    bayeux::OutgoingHook outgoing;
};

class BayeuxHost {
public:
    static const Address dispatchAddress;
    static const Address longPollAddress;
    static const Address webSocketAddress;
    static const Address httpClientAddress;
    static const Address webSocketClientAddress;

    explicit BayeuxHost(BayeuxHostOptions options);
    ~BayeuxHost();
    BayeuxHost(const BayeuxHost&) = delete;
    BayeuxHost& operator=(const BayeuxHost&) = delete;

    // Starts the services and the listener, whose I/O threads run the timers. Throws
    // std::runtime_error when the listener cannot be bound.
    void start();
    // Stops accepting, ends held connects and open WebSockets, stops the services.
    void stop();

    std::string url() const;
    unsigned short port() const;
    std::shared_ptr<ServiceRegistry> registry() const { return serviceRegistry; }
    std::shared_ptr<bayeux::BayeuxServer> routing() const { return routingCore; }
    std::shared_ptr<bayeux::BayeuxServiceProviderImpl> protocol() const { return protocolService; }
    // The server's metrics, served at GET /metrics as options.http.exposeMetrics allows;
    // the embedding program adds its own collectors, or serves them on another listener,
    // which must stop before the host goes: the host's collectors read its services.
    std::shared_ptr<common::MetricsExposition> metrics() const { return exposition; }
    // An in-process session on this server's routing core, registered with it. The
    // caller owns it; it leaves the routing core when released.
    std::shared_ptr<bayeux::LocalBayeuxSession> makeLocalSession();

private:
    void addMetricCollectors();

    std::shared_ptr<LoopTimerBackend> timers;
    std::shared_ptr<ServiceRegistry> serviceRegistry;
    std::shared_ptr<bayeux::BayeuxServerImpl> routingCore;
    std::shared_ptr<bayeux::BayeuxServiceProviderImpl> protocolService;
    std::shared_ptr<common::MetricsExposition> exposition = std::make_shared<common::MetricsExposition>();
    std::unique_ptr<HttpServer> server;
    bool started = false;
};

}  // namespace korvane::host
