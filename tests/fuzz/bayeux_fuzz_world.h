#pragma once

// The world of the protocol fuzz targets: one protocol service with its routing core
// and a policy, the long-poll and WebSocket transports, a context that routes as a
// host's does, and a manual clock, all made afresh for each input so that one input is one history.
// A script is either posted as bodies through the long-poll transport or sent as text
// frames on one WebSocket connection; several handshakes make several clients that can
// publish to one another. Refusals are fine, and so is a frame that fails the socket (later
// frames still arrive at the transport, as a slow host might deliver them); crashes, leaks,
// sanitizer reports and bytes written by the server that are not UTF-8 are not.
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

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "korvane/codec/utf8.h"
#include "korvane/frame/cached_value_publisher.h"
#include "korvane/frame/callback_subscriber.h"
#include "korvane/frame/http.h"
#include "korvane/frame/logger.h"
#include "korvane/frame/manual_timer_backend.h"
#include "korvane/frame/one_shot_publisher.h"
#include "korvane/frame/timers.h"
#include "korvane/routing/bayeux_server.h"
#include "korvane/service/bayeux_policy.h"
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

using test_support::TestContext;
using test_support::Services;

// A policy whose answers follow the input, so that refusals and grants are explored
// with everything else: a handshake whose ext mentions "deny" is refused, one with an
// ext gets a grant; patterns and channels under /private are refused to clients
// without a grant.
class FuzzPolicy : public BayeuxPolicy {
public:
    HandshakeDecision mayHandshake(const std::shared_ptr<Context>&, std::string_view ext) override {
        const bool denied = ext.find("deny") != std::string_view::npos;
        return {denied ? PolicyDecision::deny(std::string(ext.substr(0, 16))) : PolicyDecision::allow(),
                denied || ext.empty() ? nullptr : std::make_shared<const ClientGrant>()};
    }
    PolicyDecision maySubscribe(const PolicyClient& client, const std::string& pattern,
                                const std::shared_ptr<Context>&) override {
        return decide(client, pattern);
    }
    PolicyDecision mayPublish(const PolicyClient& client, const std::string& channel,
                              const std::shared_ptr<Context>&) override {
        return decide(client, channel);
    }

private:
    static PolicyDecision decide(const PolicyClient& client, const std::string& name) {
        const bool isPrivate = name.rfind("/private", 0) == 0;
        return isPrivate && client.grant == nullptr ? PolicyDecision::deny(name) : PolicyDecision::allow();
    }
};

// Puts the previous timer backend back when the world goes, after all its members declared later.
struct ClockRestorer {
    std::shared_ptr<common::TimerBackend> previous;
    ~ClockRestorer() { common::installTimerBackend(previous); }
};

class FuzzWorld {
public:
    FuzzWorld() {
        BayeuxServiceOptions options;
        options.maxPendingMessages = fuzzPendingLimit;
        options.policy = std::make_shared<FuzzPolicy>();
        // Every other delivery is stamped with an id, and those on /drop are dropped on their way out.
        options.outgoing = [stamps = std::make_shared<int>(0)](const std::string&, PublishRequest& message) {
            message.id = ++*stamps % 2 == 0 ? "stamp" : message.id;
            return message.channel.rfind("/drop", 0) != 0;
        };
        services = std::make_shared<const Services>(
            Services{{"bayeux", std::make_shared<BayeuxServiceProviderImpl>(server, options)},
                     {"long-poll", std::make_shared<BayeuxLongPollServiceProvider>()},
                     {"websocket", std::make_shared<BayeuxWebSocketServiceProvider>()}});
        for (const auto& entry : *services) {
            entry.second->start();
        }
        context = std::make_shared<TestContext>(services, "fuzz-browser");
    }
    FuzzWorld(const FuzzWorld&) = delete;
    FuzzWorld& operator=(const FuzzWorld&) = delete;

    // Posts each body as the host does and reads its response as the host writes it; a held
    // connect's body arrives later, when the clock moves.
    void postEach(std::string_view script) {
        run(script, [this](const std::string& body) {
            auto request = std::make_unique<http::HttpRequest>(
                "post", "/bayeux", http::Headers(),
                std::make_shared<reactive_streams::OneShotPublisher<common::DataBuffer>>(common::DataBuffer(body)));
            const auto reply = context->handle(std::unique_ptr<Message>(std::move(request)), Address("long-poll")).get();
            auto& response = dynamic_cast<http::HttpResponse&>(*reply);  // anything else throws, and so fails
            const char* where = response.status == 200 ? "a JSON body" : "an error body";
            auto reader = std::make_shared<reactive_streams::CallbackSubscriber<common::DataBuffer>>(
                [this, where](common::DataBuffer&& chunk) { heard(chunk.view(), where); });
            kept.push_back(reader);
            response.body->subscribe(reader);
        });
    }

    // Sends each step as a text frame on one WebSocket connection.
    void sendEach(std::string_view script) {
        constexpr unsigned char textFrame = 129;
        http::Headers headers{{"upgrade", "websocket"}, {"connection", "Upgrade"}};
        auto upgrade = std::make_unique<http::HttpRequest>("get", "/bayeux", std::move(headers), nullptr);
        const auto reply = context->handle(std::unique_ptr<Message>(std::move(upgrade)), Address("websocket")).get();
        auto& socket = dynamic_cast<http::WebSocket&>(*reply);  // anything else throws, and so fails
        auto reader = std::make_shared<reactive_streams::CallbackSubscriber<http::WebSocketFrame>>(
            [this](http::WebSocketFrame&& frame) {
                if (frame.firstByte != textFrame) {
                    fail("the server wrote a frame that is not a text frame");
                }
                heard(frame.data.view(), "a frame");
            });
        auto feed = std::make_shared<reactive_streams::CachedValuePublisher<http::WebSocketFrame, std::function<void()>>>(nullptr);
        kept.push_back(reader), kept.push_back(feed);
        socket.inbound->subscribe(reader);
        feed->subscribe(socket.outbound);
        run(script, [&feed](const std::string& text) {
            feed->publish(http::WebSocketFrame(common::DataBuffer(text), textFrame));
        });
    }

private:
    // Runs every step of the script: `send` gets each body or frame with its client ids filled in.
    template <class Send>
    void run(std::string_view script, Send&& send) {
        for (std::size_t start = 0, end = 0; start <= script.size(); start = end + 1) {
            end = std::min(script.find('\n', start), script.size());
            const std::string_view piece = script.substr(start, end - start);
            if (!piece.empty() && piece.front() == '+') {
                const long long ticks = std::strtoll(std::string(piece.substr(1)).c_str(), nullptr, 10);
                clock->advanceTicks(ticks < 0 ? 0 : ticks % (maxTicksPerStep + 1));
            } else {
                send(withClientIds(piece));
                clock->advance(std::chrono::milliseconds(5));
            }
        }
    }

    // Checks a text written by the server and learns the client id of each handshake reply in it.
    void heard(std::string_view written, const char* where) {
        if (!isValidUtf8(written.data(), written.size())) {
            fail(std::string("the server wrote bytes that are not UTF-8 in ") + where);
        }
        const std::string_view handshake = "\"channel\":\"/meta/handshake\"";
        const std::string_view key = "\"clientId\":\"";
        for (std::size_t at = written.find(handshake); at != std::string_view::npos;
             at = written.find(handshake, at + 1)) {
            const std::size_t id = written.find(key, at);
            if (id != std::string_view::npos && id < written.find('}', at) && id + key.size() + 16 <= written.size()) {
                clientIds.emplace_back(written.substr(id + key.size(), 16));
            }
        }
    }

    // The piece with each "@d" replaced by the client id of the d-th newest handshake, once there is one.
    std::string withClientIds(std::string_view piece) const {
        std::string text(piece);
        for (std::size_t at = text.find('@'); at != std::string::npos && !clientIds.empty();
             at = text.find('@', at + 1)) {
            if (at + 1 < text.size() && text[at + 1] >= '0' && text[at + 1] <= '9') {
                const std::string& id = clientIds[clientIds.size() - 1 - (text[at + 1] - '0') % clientIds.size()];
                text.replace(at, 2, id);
                at += id.size() - 1;
            }
        }
        return text;
    }

    std::vector<std::shared_ptr<void>> kept;  // the readers and the feed outlive the services, as a host's do
    const std::shared_ptr<common::ManualTimerBackend> clock = std::make_shared<common::ManualTimerBackend>(1000);
    const ClockRestorer restorer{common::installTimerBackend(clock)};  // declared before all that may hold timers
    const std::shared_ptr<BayeuxServerImpl> server = std::make_shared<BayeuxServerImpl>();
    std::shared_ptr<const Services> services;
    std::shared_ptr<TestContext> context;
    std::vector<std::string> clientIds;
};

}  // namespace korvane::bayeux::fuzzing

// The server's warnings would go to the console on every refusal; the run needs none of them.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    korvane::common::setLogLevels(0);
    return 0;
}
