#include "korvane/host/http_server.h"

#include <sched.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <exception>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/steady_timer.hpp>

#include "korvane/frame/logger.h"
#include "korvane/host/host_counters.h"
#include "korvane/host/http_connection.h"
#include "korvane/host/loop_timer_backend.h"
#include "korvane/host/server_state.h"

namespace korvane::host {

ListenAddress parseListenAddress(const std::string& listen) {
    ListenAddress parsed;
    std::string portText;
    if (!listen.empty() && listen.front() == '[') {
        const std::size_t close = listen.find("]:");
        if (close == std::string::npos) {
            throw std::invalid_argument("Invalid listen address: " + listen);
        }
        parsed.host = listen.substr(1, close - 1);
        portText = listen.substr(close + 2);
    } else {
        const std::size_t colon = listen.rfind(':');
        if (colon == std::string::npos) {
            throw std::invalid_argument("Invalid listen address: " + listen);
        }
        parsed.host = listen.substr(0, colon);
        portText = listen.substr(colon + 1);
    }
    char* end = nullptr;
    const unsigned long port = std::strtoul(portText.c_str(), &end, 10);
    if (portText.empty() || *end != '\0' || port > 65535) {
        throw std::invalid_argument("Invalid port in listen address: " + listen);
    }
    parsed.port = static_cast<unsigned short>(port);
    return parsed;
}

namespace {

namespace net = boost::asio;
using tcp = net::ip::tcp;

common::diagnostic_logger logger("korvane::host::http");

// How long stop() waits for connections to end gracefully before it cuts them.
constexpr std::chrono::seconds stopGrace(5);
// The pause before accepting again after the listener failed (out of descriptors).
constexpr std::chrono::milliseconds acceptRetryDelay(100);

// The CPUs this process may run on (taskset, cgroup cpusets): more I/O threads than
// that only hand work to each other.
unsigned usableCpuCount() {
    cpu_set_t allowed;
    if (sched_getaffinity(0, sizeof(allowed), &allowed) == 0 && CPU_COUNT(&allowed) > 0) {
        return static_cast<unsigned>(CPU_COUNT(&allowed));
    }
    return std::max(1u, std::thread::hardware_concurrency());
}

}  // namespace

// Each I/O thread runs a loop of its own, and a connection stays on the loop that
// accepted it: a readiness event wakes only the thread whose socket it is, where one
// loop shared by every thread would wake the others to hand them its handlers.
//
// Threading: start() and stop() run on the owner's thread; the acceptor and its
// retry timer live on the first loop (`acceptLoop`), and `nextLoop`,
// `refusedSinceLog` and `lastRefusalLog` are touched only there.
struct HttpServer::Impl {
    Impl(HttpServerOptions serverOptions, std::shared_ptr<ServiceRegistry> serviceRegistry)
        : options(std::move(serverOptions)),
          registry(std::move(serviceRegistry)),
          loops(makeLoops(threadCount())),
          acceptLoop(loops.front()->get_executor()),
          acceptor(acceptLoop),
          retryTimer(acceptLoop) {}

    static std::vector<std::unique_ptr<net::io_context>> makeLoops(unsigned count) {
        std::vector<std::unique_ptr<net::io_context>> made;
        for (unsigned i = 0; i < count; ++i) {
            made.push_back(std::make_unique<net::io_context>(1));
        }
        return made;
    }

    bool exposesMetrics() const {
        using Exposure = HttpServerOptions::MetricsExposure;
        return options.metrics &&
               (options.exposeMetrics == Exposure::always ||
                (options.exposeMetrics == Exposure::loopbackOnly && acceptor.local_endpoint().address().is_loopback()));
    }

    unsigned threadCount() const { return options.threads != 0 ? options.threads : usableCpuCount(); }

    void loadTls() {
        if (options.tlsCert.empty() && options.tlsKey.empty()) {
            return;
        }
        if (options.tlsCert.empty() || options.tlsKey.empty()) {
            throw std::runtime_error("TLS needs both a certificate and a key.");
        }
        tls = std::make_unique<net::ssl::context>(net::ssl::context::tls_server);
        tls->set_options(net::ssl::context::default_workarounds | net::ssl::context::no_sslv2 |
                         net::ssl::context::no_sslv3 | net::ssl::context::no_tlsv1 | net::ssl::context::no_tlsv1_1);
        boost::system::error_code error;
        tls->use_certificate_chain_file(options.tlsCert, error);
        if (error) {
            throw std::runtime_error("Cannot load the TLS certificate " + options.tlsCert + ": " + error.message());
        }
        tls->use_private_key_file(options.tlsKey, net::ssl::context::pem, error);
        if (error) {
            throw std::runtime_error("Cannot load the TLS key " + options.tlsKey + ": " + error.message());
        }
    }

    void listen() {
        const ListenAddress address = parseListenAddress(options.listen);
        boost::system::error_code error;
        tcp::endpoint endpoint;
        if (address.host.empty()) {
            endpoint = tcp::endpoint(tcp::v6(), address.port);
            if (!doBind(endpoint, true)) {
                endpoint = tcp::endpoint(tcp::v4(), address.port);
            }
        } else {
            net::ip::address ip = net::ip::make_address(address.host, error);
            if (error) {
                tcp::resolver resolver(*loops.front());
                auto results = resolver.resolve(address.host, std::to_string(address.port), error);
                if (error || results.empty()) {
                    throw std::runtime_error("Cannot listen on " + options.listen + ": cannot resolve " +
                                             address.host);
                }
                endpoint = results.begin()->endpoint();
            } else {
                endpoint = tcp::endpoint(ip, address.port);
            }
        }
        if (!acceptor.is_open() && !doBind(endpoint, false)) {
            throw std::runtime_error("Cannot listen on " + options.listen + ": " + bindError.message());
        }
        boundPort = acceptor.local_endpoint().port();
        const std::string host = address.host.empty() ? "localhost" : address.host;
        baseUrl = std::string(tls ? "https" : "http") + "://" +
                  (host.find(':') != std::string::npos ? "[" + host + "]" : host) + ":" + std::to_string(boundPort) +
                  "/";
    }

    // Opens, binds and listens; on failure the acceptor is closed and the error kept.
    bool doBind(const tcp::endpoint& endpoint, bool dualStack) {
        boost::system::error_code& error = bindError;
        acceptor.open(endpoint.protocol(), error);
        if (!error && dualStack) {
            acceptor.set_option(net::ip::v6_only(false), error);
        }
        if (!error) {
            acceptor.set_option(net::socket_base::reuse_address(true), error);
        }
        if (!error) {
            acceptor.bind(endpoint, error);
        }
        if (!error) {
            acceptor.listen(net::socket_base::max_listen_connections, error);
        }
        if (error) {
            boost::system::error_code ignored;
            acceptor.close(ignored);
            return false;
        }
        return true;
    }

    // Connections take the loops in turn.
    void doAccept() {
        net::io_context& loop = *loops[nextLoop];
        nextLoop = (nextLoop + 1) % loops.size();
        acceptor.async_accept(loop.get_executor(), [this](boost::system::error_code error, ConnectionSocket socket) {
            onAccepted(error, std::move(socket));
        });
    }

    void onAccepted(boost::system::error_code error, ConnectionSocket socket) {
        if (!acceptor.is_open()) {
            return;
        }
        if (error) {
            KORVANE_LOG(logger, common::logFailure) << "Accepting a connection failed: " << error.message();
            retryTimer.expires_after(acceptRetryDelay);
            retryTimer.async_wait([this](boost::system::error_code waited) {
                if (!waited && acceptor.is_open()) {
                    doAccept();
                }
            });
            return;
        }
        if (state->connections.count() >= options.maxConnections) {
            boost::system::error_code ignored;
            socket.close(ignored);
            count(HostCounter::connectionsRefused);
            doNoteRefusal();
        } else {
            // Replies and pushed messages are small and latency-bound: no Nagle delay.
            boost::system::error_code ignored;
            socket.set_option(tcp::no_delay(true), ignored);
            serveHttpConnection(std::move(socket), state);
        }
        doAccept();
    }

    // Logs refused connections at most once a second, with how many there were.
    void doNoteRefusal() {
        ++refusedSinceLog;
        const auto now = std::chrono::steady_clock::now();
        if (now - lastRefusalLog < std::chrono::seconds(1)) {
            return;
        }
        KORVANE_LOG(logger, common::logWarning) << "Refused " << refusedSinceLog << " connection(s): " << options.maxConnections
                                 << " connections are open";
        refusedSinceLog = 0;
        lastRefusalLog = now;
    }

    // The loop's timers run on this thread, which is also where the timers armed on it go.
    void runIoThread(std::size_t index) {
        net::io_context& loop = *loops[index];
        std::optional<LoopTimerBackend::LoopScope> timerScope;
        if (timers) {
            timerScope.emplace(*timers, index);
        }
        for (;;) {
            try {
                loop.run();
                return;
            } catch (const std::exception& failure) {
                KORVANE_LOG(logger, common::logFailure) << "An I/O handler failed: " << failure.what();
            }
        }
    }

    void closeAcceptor() {
        std::promise<void> closed;
        net::post(acceptLoop, [this, &closed] {
            boost::system::error_code ignored;
            acceptor.close(ignored);
            retryTimer.cancel();
            closed.set_value();
        });
        closed.get_future().wait();
    }

    const HttpServerOptions options;
    const std::shared_ptr<ServiceRegistry> registry;
    // Declared before the loops: TLS streams still held by their handlers use it.
    std::unique_ptr<net::ssl::context> tls;
    // One per I/O thread; not moved once made, since connections hold their executors.
    const std::vector<std::unique_ptr<net::io_context>> loops;
    net::io_context::executor_type acceptLoop;
    tcp::acceptor acceptor;
    net::steady_timer retryTimer;
    boost::system::error_code bindError;
    std::shared_ptr<ServerState> state;
    std::vector<net::executor_work_guard<net::io_context::executor_type>> work;  // one per loop
    std::shared_ptr<LoopTimerBackend> timers;
    std::vector<std::thread> threads;
    std::atomic<unsigned short> boundPort{0};
    std::string baseUrl;
    std::size_t nextLoop = 0;
    std::uint64_t refusedSinceLog = 0;
    std::chrono::steady_clock::time_point lastRefusalLog{};
    bool started = false;
    bool stopped = false;
};

HttpServer::HttpServer(HttpServerOptions options, std::shared_ptr<ServiceRegistry> registry,
                       std::shared_ptr<LoopTimerBackend> timers)
    : impl(std::make_unique<Impl>(std::move(options), std::move(registry))) {
    impl->timers = std::move(timers);
}

HttpServer::~HttpServer() { stop(); }

void HttpServer::start() {
    Impl& self = *impl;
    if (self.started) {
        throw std::runtime_error("The HTTP server was started before.");
    }
    self.loadTls();
    self.listen();
    self.state = std::make_shared<ServerState>(self.options, self.registry, self.tls.get(),
                                               self.exposesMetrics() ? self.options.metrics : nullptr);
    self.started = true;
    for (const auto& loop : self.loops) {
        self.work.push_back(net::make_work_guard(*loop));
    }
    if (self.timers) {
        std::vector<net::io_context*> loops;
        for (const auto& loop : self.loops) {
            loops.push_back(loop.get());
        }
        self.timers->attach(loops);
    }
    net::post(self.acceptLoop, [&self] { self.doAccept(); });
    for (std::size_t index = 0; index < self.loops.size(); ++index) {
        self.threads.emplace_back([&self, index] { self.runIoThread(index); });
    }
}

unsigned short HttpServer::port() const { return impl->boundPort.load(); }

std::string HttpServer::url() const { return impl->baseUrl; }

std::size_t HttpServer::openConnections() const { return impl->state ? impl->state->connections.count() : 0; }

void HttpServer::stop() {
    Impl& self = *impl;
    if (!self.started || self.stopped) {
        return;
    }
    self.stopped = true;
    self.closeAcceptor();
    self.state->connections.shutdownAll();
    const bool allEnded = self.state->connections.waitUntilEmpty(std::chrono::steady_clock::now() + stopGrace);
    // The timers' wait would keep the I/O threads running.
    if (self.timers) {
        self.timers->detach();
    }
    self.work.clear();
    if (!allEnded) {
        KORVANE_LOG(logger, common::logWarning) << "Cutting " << self.state->connections.count()
                                 << " connection(s) that did not end in time";
        for (const auto& loop : self.loops) {
            loop->stop();
        }
    }
    for (std::thread& thread : self.threads) {
        thread.join();
    }
    self.threads.clear();
    // No I/O thread is left: what still lives is cut here, and the handlers that
    // remain run their ending paths on this thread.
    self.state->connections.abandonAll();
    for (const auto& loop : self.loops) {
        loop->restart();
        loop->poll();
    }
}

}  // namespace korvane::host
