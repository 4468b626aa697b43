#pragma once

// What every connection of one HttpServer shares. Internal to the host's server:
// included only by its .cpp files.
//
// Threading: everything but `connections` is immutable once the server started;
// `connections` has its own lock.

#include <memory>

#include "korvane/host/connection_tracker.h"
#include "korvane/host/http_server.h"
#include "korvane/host/origin_policy.h"
#include "korvane/host/static_files.h"

namespace boost::asio::ssl {
class context;
}

namespace korvane::host {

struct ServerState {
    ServerState(HttpServerOptions serverOptions, std::weak_ptr<ServiceRegistry> serviceRegistry,
                boost::asio::ssl::context* tlsContext, std::shared_ptr<const common::MetricsExposition> exposedMetrics)
        : options(std::move(serverOptions)),
          registry(std::move(serviceRegistry)),
          staticFiles(options.staticRoot, options.staticMounts),
          origins(options.allowOrigins),
          tls(tlsContext),
          metrics(std::move(exposedMetrics)) {}

    const HttpServerOptions options;
    const std::weak_ptr<ServiceRegistry> registry;
    const StaticFiles staticFiles;
    const OriginPolicy origins;
    // Null for a plain listener; owned by the server, which outlives every connection.
    boost::asio::ssl::context* const tls;
    // What GET /metrics answers; null where this listener does not expose them.
    const std::shared_ptr<const common::MetricsExposition> metrics;
    ConnectionTracker connections;
};

}  // namespace korvane::host
