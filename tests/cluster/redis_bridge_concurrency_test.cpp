#include "korvane/cluster/redis_bridge.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "korvane/cluster/redis_connection.h"
#include "korvane/routing/bayeux_server.h"
#include "support/recording_subscriber.h"
#include "support/test_context.h"

namespace korvane::cluster {
namespace {

using Delivery = std::shared_ptr<const bayeux::PublishRequest>;
using Inbox = test_support::RecordingSubscriber<Delivery>;
using namespace std::chrono_literals;

// A redis-server of the test's own on a free loopback port, killed at the end.
class RedisProcess {
public:
    RedisProcess() {
        const int probe = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        ::bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
        ::close(probe);
        endpoint.host = "127.0.0.1";
        endpoint.port = ntohs(address.sin_port);
        const std::string port = std::to_string(endpoint.port);
        pid = ::fork();
        if (pid == 0) {
            // Dies with the test even when the test dies first; its log stays out of the test's output.
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::dup2(::open("/dev/null", O_WRONLY), STDOUT_FILENO);
            ::execlp("redis-server", "redis-server", "--port", port.c_str(), "--bind", "127.0.0.1", "--save", "",
                     "--appendonly", "no", nullptr);
            ::_exit(127);
        }
        for (int attempt = 0;; ++attempt) {
            try {
                RedisConnection(endpoint, 500ms, 500ms).command({"PING"});
                return;
            } catch (const std::runtime_error&) {
                if (attempt == 500 || ::waitpid(pid, nullptr, WNOHANG) == pid) {
                    stop();
                    throw std::runtime_error("redis-server did not start: scripts/install-deps installs it");
                }
                std::this_thread::sleep_for(20ms);
            }
        }
    }
    ~RedisProcess() { stop(); }
    void stop() {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }

    RedisEndpoint endpoint;
    pid_t pid = 0;
};

// One server's routing core with its bridge and in-process participants. The bridge goes
// first, then the feeds its threads deliver into.
struct Node {
    Node(const RedisEndpoint& endpoint, const std::string& prefix) {
        RedisBridgeOptions options;
        options.shards = {endpoint};
        options.prefix = prefix;
        bridge = std::make_unique<RedisBridge>(participant(), routing, options);
    }
    std::shared_ptr<bayeux::LocalBayeuxSession> participant() {
        auto context = std::make_shared<test_support::TestContext>();
        auto session = std::make_shared<bayeux::LocalBayeuxSession>(routing, std::move(context));
        routing->addSession(session);
        return session;
    }
    // What `session` receives on `pattern`, in order.
    std::shared_ptr<Inbox> listen(bayeux::LocalBayeuxSession& session, const std::string& pattern) {
        auto inbox = std::make_shared<Inbox>(~0ul);
        feeds.push_back(session.subscribe(pattern));
        feeds.back()->subscribe(inbox);
        return inbox;
    }

    std::shared_ptr<bayeux::BayeuxServerImpl> routing = std::make_shared<bayeux::BayeuxServerImpl>();
    std::shared_ptr<bayeux::LocalBayeuxSession> member = participant();
    std::vector<std::shared_ptr<reactive_streams::PublisherAPI<Delivery>>> feeds;
    std::unique_ptr<RedisBridge> bridge;
};

std::unique_ptr<bayeux::PublishRequest> makeMessage(const std::string& channel, const std::string& data,
                                                    const std::string& id = "") {
    auto message = std::make_unique<bayeux::PublishRequest>(channel);
    message->data = std::make_shared<common::DataBuffer>(data);
    message->id = id;
    return message;
}

std::size_t countOf(Inbox& inbox) {
    return inbox.read([](const auto& items) { return items.size(); });
}

// Ends with a bridge stopping while a publisher keeps publishing on its server.
TEST(RedisBridgeConcurrency, ThreadsPublishingOnOneServerReachTheOtherOnceEachInTheirOwnOrder) {
    RedisProcess redis;
    // The prefix holds pattern characters, which the bridge must take literally.
    Node east(redis.endpoint, "bridge-test[*]?\\:");
    Node west(redis.endpoint, "bridge-test[*]?\\:");
    for (const Node* node : {&east, &west}) {
        for (int attempt = 0; attempt < 100 && !node->bridge->isConnected(); ++attempt) {
            std::this_thread::sleep_for(100ms);
        }
        ASSERT_TRUE(node->bridge->isConnected()) << "the bridge never heard Redis";
    }
    auto farSide = west.listen(*west.member, "/room/**");
    auto witness = east.participant();
    auto nearSide = east.listen(*witness, "/room/**");
    auto meta = west.listen(*west.member, "/service/**");
    // Until Redis has both sides' "/room/**", as the protocol service does before a subscribe's reply.
    west.routing->awaitInterestSettled(5s);
    east.routing->awaitInterestSettled(5s);

    constexpr int threads = 4, perThread = 250;
    std::vector<std::shared_ptr<bayeux::LocalBayeuxSession>> sessions;
    std::map<std::string, std::string> channelOf;
    for (int t = 0; t < threads; ++t) {
        sessions.push_back(east.participant());
        channelOf[sessions.back()->getId()] = "/room/" + std::to_string(t);
    }
    std::vector<std::thread> publishers;
    for (int t = 0; t < threads; ++t) {
        publishers.emplace_back([&, t] {
            for (int n = 0; n < perThread; ++n) {
                const std::string text = std::to_string(n);
                sessions[t]->publish(makeMessage("/room/" + std::to_string(t), "{\"n\":" + text + "}", text));
            }
            sessions[t]->publish(makeMessage("/service/private", "1"));
        });
    }
    for (auto& publisher : publishers) {
        publisher.join();
    }
    ASSERT_TRUE(farSide->waitFor([](Inbox& i) { return countOf(i) >= threads * perThread; }, 10s));
    std::this_thread::sleep_for(200ms);

    std::map<std::string, int> nextPerPublisher;
    farSide->read([&](const auto& received) {
        EXPECT_EQ(received.size(), std::size_t(threads * perThread)) << "no duplicates";
        for (const auto& message : received) {
            ASSERT_EQ(channelOf.count(message->clientId), 1u) << "the publisher's clientId crosses: "
                                                              << message->clientId;
            EXPECT_EQ(message->channel, channelOf[message->clientId]);
            const std::string next = std::to_string(nextPerPublisher[message->clientId]++);
            EXPECT_EQ(message->id, next);
            EXPECT_EQ(message->data->str(), "{\"n\":" + next + "}");
        }
    });
    EXPECT_EQ(countOf(*nearSide), std::size_t(threads * perThread)) << "nothing comes back to its own server";
    EXPECT_EQ(countOf(*meta), 0u) << "/service/** stays on its server";

    std::atomic<bool> done{false};
    std::thread busy([&] {
        for (int n = 0; !done; ++n) {
            east.member->publish(makeMessage("/busy", std::to_string(n)));
        }
    });
    std::this_thread::sleep_for(100ms);
    east.bridge.reset();
    std::this_thread::sleep_for(50ms);
    done = true;
    busy.join();
}

TEST(RedisBridge, ASessionWithoutAContextIsRefused) {
    auto routing = std::make_shared<bayeux::BayeuxServerImpl>();
    auto session = std::make_shared<bayeux::LocalBayeuxSession>(routing, nullptr);
    RedisBridgeOptions options;
    options.shards.emplace_back().host = "127.0.0.1";
    EXPECT_THROW(RedisBridge(session, routing, options), std::invalid_argument);
}

}  // namespace
}  // namespace korvane::cluster
