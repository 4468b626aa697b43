#pragma once

// The world of the protocol fuzz targets: one protocol service with its routing core,
// the long-poll and WebSocket transports, a context that routes as a host's does, and
// a manual clock, all made afresh for each input so that one input is one history.
//
// An input is a script of steps separated by newlines. A step "+N" moves the clock
// N ticks forward (at most maxTicksPerStep); any other step is a body or a frame, in
// which "@d" (d a digit) stands for the client id of the d-th newest handshake, so
// that requests can name clients whose ids are random. After every body or frame the
// clock moves 5 ms, which lets buffered connects answer.
//
// Every byte that the server writes, in response bodies and frames, must be UTF-8;
// anything else aborts.
//
// Threading: single-threaded; the manual clock runs timers on the fuzzing thread.

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <boost/any.hpp>

#include "korvane/codec/utf8.h"
#include "korvane/frame/manual_timer_backend.h"
#include "korvane/frame/timers.h"
#include "korvane/routing/bayeux_server.h"
#include "korvane/service/bayeux_service_provider.h"
#include "korvane/transport/long_poll_provider.h"
#include "korvane/transport/websocket_provider.h"
#include "support/test_context.h"

namespace korvane::bayeux::fuzzing {

// Small enough for a short script to reach it.
constexpr std::size_t fuzzPendingLimit = 8;
// Enough for a sweep (1200 ticks) or a held connect (600) to end within a few steps.
constexpr long long maxTicksPerStep = 1500;

[[noreturn]] inline void fail(const std::string& what) {
    std::fprintf(stderr, "bayeux fuzz: %s\n", what.c_str());
    std::abort();
}

inline void checkWritten(std::string_view text, const char* where) {
    if (!isValidUtf8(text.data(), text.size())) {
        fail(std::string("the server wrote bytes that are not UTF-8 in ") + where);
    }
}

using test_support::TestContext;
using test_support::Services;

class FuzzWorld {
public:
    FuzzWorld() : previousClock(common::installTimerBackend(clock)) {
        BayeuxServiceOptions options;
        options.maxPendingMessages = fuzzPendingLimit;
        provider = std::make_shared<BayeuxServiceProviderImpl>(server, options);
        auto made = std::make_shared<Services>();
        (*made)["bayeux"] = provider;
        (*made)["long-poll"] = std::make_shared<BayeuxLongPollServiceProvider>();
        (*made)["websocket"] = std::make_shared<BayeuxWebSocketServiceProvider>();
        for (auto& entry : *made) {
            entry.second->start();
        }
        services = made;
        context = std::make_shared<TestContext>(services, "fuzz-browser");
    }
    ~FuzzWorld() {
        context.reset();
        provider.reset();
        services.reset();
        common::installTimerBackend(previousClock);
    }
    FuzzWorld(const FuzzWorld&) = delete;
    FuzzWorld& operator=(const FuzzWorld&) = delete;

    // Runs every step of the script: `send` gets each body or frame with its client ids filled in.
    template <class Send>
    void run(std::string_view script, Send&& send) {
        std::size_t start = 0;
        while (start <= script.size()) {
            std::size_t end = script.find('\n', start);
            if (end == std::string_view::npos) {
                end = script.size();
            }
            step(script.substr(start, end - start), send);
            start = end + 1;
        }
    }

    // Learns the client id of each handshake reply in a text written by the server.
    void learnClientIds(std::string_view written) {
        const std::string_view handshake = "\"channel\":\"/meta/handshake\"";
        const std::string_view key = "\"clientId\":\"";
        for (std::size_t at = written.find(handshake); at != std::string_view::npos;
             at = written.find(handshake, at + 1)) {
            const std::size_t objectEnd = written.find('}', at);
            const std::size_t id = written.find(key, at);
            if (id != std::string_view::npos && id < objectEnd && id + key.size() + 16 <= written.size()) {
                clientIds.emplace_back(written.substr(id + key.size(), 16));
            }
        }
    }

    std::shared_ptr<Context> requestContext() const { return context; }

private:
    template <class Send>
    void step(std::string_view piece, Send& send) {
        if (!piece.empty() && piece.front() == '+') {
            long long ticks = std::strtoll(std::string(piece.substr(1)).c_str(), nullptr, 10);
            clock->advanceTicks(ticks < 0 ? 0 : ticks % (maxTicksPerStep + 1));
            return;
        }
        send(withClientIds(piece));
        clock->advance(std::chrono::milliseconds(5));
    }

    std::string withClientIds(std::string_view piece) const {
        std::string text;
        text.reserve(piece.size());
        for (std::size_t i = 0; i < piece.size(); ++i) {
            const bool token = piece[i] == '@' && i + 1 < piece.size() && piece[i + 1] >= '0' && piece[i + 1] <= '9';
            if (token && !clientIds.empty()) {
                const std::size_t back = static_cast<std::size_t>(piece[i + 1] - '0') % clientIds.size();
                text += clientIds[clientIds.size() - 1 - back];
                ++i;
            } else {
                text += piece[i];
            }
        }
        return text;
    }

    const std::shared_ptr<common::ManualTimerBackend> clock = std::make_shared<common::ManualTimerBackend>(1000);
    const std::shared_ptr<common::TimerBackend> previousClock;
    const std::shared_ptr<BayeuxServerImpl> server = std::make_shared<BayeuxServerImpl>();
    std::shared_ptr<BayeuxServiceProviderImpl> provider;
    std::shared_ptr<const Services> services;
    std::shared_ptr<TestContext> context;
    std::vector<std::string> clientIds;
};

}  // namespace korvane::bayeux::fuzzing
