#pragma once

// The reference HTTP and WebSocket server of the host. Requests to the Bayeux path
// (and below it) become http::HttpRequest messages, each with a fresh HostContext
// that carries the browser's "sessionId", sent to `bayeuxAddress`; the answer goes
// back as an HTTP response (Content-Length when its body was complete at once,
// chunked when it streams) or, for an upgrade, as a WebSocket. Every other path is
// served from the static folders, but for the probes /healthz and /readyz and, where
// allowed, /metrics.
//
// Threading: start(), stop() and the destructor are for the owner's thread and must
// not run on one of the server's I/O threads. port(), url() and openConnections() may
// be called from any thread once start() returned. Each of the server's I/O threads runs
// a loop of its own; a connection stays on the loop that accepted it, and signals of the
// services' streams, which come on any thread, are posted to that loop.

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "korvane/frame/metrics.h"
#include "korvane/frame/service.h"
#include "korvane/host/service_registry.h"

namespace korvane::host {

struct HttpServerOptions {
    // host:port, [v6]:port, or :port for all interfaces; port 0 picks a free one.
    std::string listen = "127.0.0.1:8080";
    // Requests to this path or below it go to the Bayeux service; never served from disk.
    // Empty: no Bayeux path (a listener for the probes and the metrics).
    std::string bayeuxPath = "/bayeux";
    Address bayeuxAddress;
    // Where the long-poll transport stands when the service at `bayeuxAddress` is the
    // Bayeux HTTP dispatch, as BayeuxHost arranges it. Set, a POST that the dispatch would
    // hand to that transport (no Upgrade header) gets the transport's answer here, with
    // the body as read and the messages sent to this address: the request is not built,
    // its headers not copied, and the two hops through the registry are not taken.
    Address longPollAddress;
    // I/O threads; 0 means one per CPU the process may run on.
    unsigned threads = 0;
    // Folder served at "/"; empty serves no files there.
    std::string staticRoot;
    // Further folders, each under a URL prefix (e.g. "/vendor/cometd" -> node_modules/cometd).
    std::vector<std::pair<std::string, std::string>> staticMounts;
    std::size_t maxBodyBytes = 1 << 20;       // larger bodies are answered 413
    std::size_t maxHeaderBytes = 8 << 10;     // larger headers are answered 431
    std::size_t maxWsMessageBytes = 1 << 20;  // larger messages close the WebSocket with 1009
    // Time to receive a request (its header, then its body); a slow sender is cut.
    std::chrono::milliseconds headerTimeout = std::chrono::seconds(10);
    // A WebSocket peer silent for half of this is pinged, and cut once silent for all of it.
    std::chrono::milliseconds wsIdle = std::chrono::seconds(60);
    // Bytes of frames waiting for a WebSocket peer that reads too slowly; past this the
    // connection is cut.
    std::size_t wsBacklogBytes = 16 << 20;
    // A socket write (a WebSocket's or a streaming response's) that takes longer than this
    // cuts its connection; zero never does.
    std::chrono::milliseconds writeTimeout = std::chrono::seconds(30);
    // Connections beyond this are accepted and closed at once.
    std::size_t maxConnections = 100000;
    // Origins (exact "scheme://host[:port]") that get CORS answers and may open WebSockets.
    std::vector<std::string> allowOrigins;
    // Both set: HTTPS and WSS on the listener (PEM files).
    std::string tlsCert;
    std::string tlsKey;
    std::string cookieName = "korvane-browser";
    // GET /healthz answers 200 while the server runs. GET /readyz answers 200 when this
    // gives an empty text and 503 with the text otherwise: why the program is not ready.
    // Called on an I/O thread for each probe, so it must be quick and thread-safe; unset,
    // the server is ready while it runs.
    std::function<std::string()> notReadyReason;
    // What GET /metrics answers, where `exposeMetrics` allows: always, never, or while the
    // listener is bound to a loopback address only, so that a public listener does not tell
    // everyone what the server does. Unset or not allowed, /metrics is an ordinary path.
    std::shared_ptr<const common::MetricsExposition> metrics;
    enum class MetricsExposure { never, loopbackOnly, always };
    MetricsExposure exposeMetrics = MetricsExposure::loopbackOnly;
    // Put each request's headers and remote address in its context (see host_context.h),
    // for a policy that reads them; off, a request pays nothing for it.
    bool requestInContext = false;
    // The WebSocket writes of one turn of a loop go to the kernel in one io_uring
    // submission, where the kernel offers io_uring; off, or where it does not, each is a
    // system call of its own. The bytes on the wire are the same either way.
    bool batchedWrites = true;
};

struct ListenAddress {
    std::string host;  // empty for all interfaces
    unsigned short port = 0;
};

// Reads HttpServerOptions::listen; throws std::invalid_argument when it is malformed,
// so that a program can refuse it with its flags, before anything starts.
ListenAddress parseListenAddress(const std::string& listen);

class LoopTimerBackend;

class HttpServer {
public:
    // `timers`, when given, run on the server's I/O threads while the server runs.
    HttpServer(HttpServerOptions options, std::shared_ptr<ServiceRegistry> registry,
               std::shared_ptr<LoopTimerBackend> timers = nullptr);
    // Stops the server if it runs.
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    // Binds and starts the I/O threads. Throws std::invalid_argument for a malformed
    // listen address, std::runtime_error when it cannot listen or load the TLS files, or
    // when it was started before.
    void start();
    // The bound port.
    unsigned short port() const;
    // Connections open now.
    std::size_t openConnections() const;
    // The server's base URL, e.g. "http://127.0.0.1:8080/".
    std::string url() const;
    // Stops accepting, closes held streaming responses, closes WebSockets with a close
    // frame, and joins the I/O threads. Connections that do not end within a few
    // seconds are cut. Does nothing when the server does not run.
    void stop();

private:
    struct Impl;
    std::unique_ptr<Impl> impl;
};

}  // namespace korvane::host
