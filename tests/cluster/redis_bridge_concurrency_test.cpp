#include "korvane/cluster/redis_bridge.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "korvane/cluster/redis_connection.h"
#include "korvane/frame/callback_subscriber.h"
#include "korvane/frame/future.h"
#include "korvane/routing/bayeux_server.h"

namespace korvane::cluster {
namespace {

using Delivery = std::shared_ptr<const bayeux::PublishRequest>;
using namespace std::chrono_literals;

unsigned short freeLoopbackPort() {
    const int probe = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    ::bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(probe);
    return ntohs(address.sin_port);
}

// A redis-server of the test's own on a free loopback port, killed at the end.
class RedisProcess {
public:
    RedisProcess() : port(freeLoopbackPort()) {
        const std::string portText = std::to_string(port);
        std::vector<std::string> args = {"redis-server", "--port", portText, "--bind", "127.0.0.1", "--save", "",
                                         "--appendonly", "no", "--loglevel", "warning"};
        std::vector<char*> argv;
        for (auto& arg : args) {
            argv.push_back(arg.data());
        }
        argv.push_back(nullptr);
        pid = ::fork();
        if (pid == 0) {
            // Dies with the test even when the test dies first; its log stays out of the test's output.
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            const int devNull = ::open("/dev/null", O_WRONLY);
            ::dup2(devNull, STDOUT_FILENO);
            ::execvp("redis-server", argv.data());
            ::_exit(127);
        }
        if (pid < 0) {
            throw std::runtime_error("cannot fork for redis-server");
        }
        endpoint.host = "127.0.0.1";
        endpoint.port = port;
        try {
            waitUntilReady();
        } catch (...) {
            stop();
            throw;
        }
    }
    ~RedisProcess() { stop(); }

    RedisEndpoint endpoint;

private:
    void stop() {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }

    void waitUntilReady() {
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        for (;;) {
            try {
                RedisConnection(endpoint, 500ms, 500ms).command({"PING"});
                return;
            } catch (const std::runtime_error&) {
                int status = 0;
                if (::waitpid(pid, &status, WNOHANG) == pid) {
                    throw std::runtime_error("redis-server did not start: scripts/install-deps installs it");
                }
                if (std::chrono::steady_clock::now() > deadline) {
                    throw;
                }
                std::this_thread::sleep_for(20ms);
            }
        }
    }

    unsigned short port;
    pid_t pid = 0;
};

class NoRouteContext : public Context {
public:
    Future<std::unique_ptr<Message>> handle(std::unique_ptr<Message>&&, Address&&) override {
        return makeErrorFuture<std::unique_ptr<Message>>(std::make_exception_ptr(std::runtime_error("no route")));
    }
};

// What one in-process subscriber received, in order.
class Inbox {
public:
    std::shared_ptr<reactive_streams::CallbackSubscriber<Delivery>> subscriber() {
        return std::make_shared<reactive_streams::CallbackSubscriber<Delivery>>([this](Delivery&& message) {
            std::lock_guard<std::mutex> guard(mutex);
            received.push_back(std::move(message));
            changed.notify_all();
        });
    }
    bool waitFor(std::size_t count, std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, limit, [&] { return received.size() >= count; });
    }
    std::vector<Delivery> taken() {
        std::lock_guard<std::mutex> guard(mutex);
        return received;
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Delivery> received;
};

// One server's routing core with its bridge and an in-process participant.
struct Node {
    Node(const RedisEndpoint& endpoint, const std::string& prefix) {
        RedisBridgeOptions options;
        options.endpoint = endpoint;
        options.prefix = prefix;
        auto bridgeSession = std::make_shared<bayeux::LocalBayeuxSession>(routing, std::make_shared<NoRouteContext>());
        routing->addSession(bridgeSession);
        member = std::make_shared<bayeux::LocalBayeuxSession>(routing, std::make_shared<NoRouteContext>());
        routing->addSession(member);
        bridge = std::make_unique<RedisBridge>(bridgeSession, routing, options);
    }

    std::shared_ptr<bayeux::BayeuxServerImpl> routing = std::make_shared<bayeux::BayeuxServerImpl>();
    std::shared_ptr<bayeux::LocalBayeuxSession> member;
    std::unique_ptr<RedisBridge> bridge;
};

std::unique_ptr<bayeux::PublishRequest> makeMessage(const std::string& channel, const std::string& data) {
    auto message = std::make_unique<bayeux::PublishRequest>(channel);
    message->data = std::make_shared<common::DataBuffer>(data);
    return message;
}

// Publishes on `from` until `inbox` has something: both bridges are then connected.
void awaitCrossing(Node& from, Inbox& inbox) {
    for (int attempt = 0; attempt < 100 && !inbox.waitFor(1, 100ms); ++attempt) {
        from.member->publish(makeMessage("/warm/up", "0"));
    }
    ASSERT_TRUE(inbox.waitFor(1, 0ms)) << "the bridges never connected";
}

TEST(RedisBridgeConcurrency, ThreadsPublishingOnOneServerReachTheOtherOnceEachInTheirOwnOrder) {
    // Declared first so that they outlive the bridges, whose threads deliver into them until joined.
    Inbox warmWest, warmEast, farSide, nearSide, meta;
    RedisProcess redis;
    Node east(redis.endpoint, "bridge-test:");
    Node west(redis.endpoint, "bridge-test:");
    auto warmWestFeed = west.member->subscribe("/warm/**");
    warmWestFeed->subscribe(warmWest.subscriber());
    auto warmEastFeed = east.member->subscribe("/warm/**");
    warmEastFeed->subscribe(warmEast.subscriber());
    awaitCrossing(east, warmWest);
    awaitCrossing(west, warmEast);

    auto farFeed = west.member->subscribe("/room/**");
    farFeed->subscribe(farSide.subscriber());
    auto witness = std::make_shared<bayeux::LocalBayeuxSession>(east.routing, std::make_shared<NoRouteContext>());
    east.routing->addSession(witness);
    auto nearFeed = witness->subscribe("/room/**");
    nearFeed->subscribe(nearSide.subscriber());
    auto serviceFeed = west.member->subscribe("/service/**");
    serviceFeed->subscribe(meta.subscriber());

    constexpr int threads = 4;
    constexpr int perThread = 250;
    std::vector<std::thread> publishers;
    std::vector<std::shared_ptr<bayeux::LocalBayeuxSession>> sessions;
    for (int t = 0; t < threads; ++t) {
        sessions.push_back(std::make_shared<bayeux::LocalBayeuxSession>(east.routing, std::make_shared<NoRouteContext>()));
        east.routing->addSession(sessions.back());
    }
    for (int t = 0; t < threads; ++t) {
        publishers.emplace_back([&, t] {
            for (int n = 0; n < perThread; ++n) {
                auto message = makeMessage("/room/" + std::to_string(t), "{\"n\":" + std::to_string(n) + "}");
                message->id = std::to_string(n);
                sessions[t]->publish(std::move(message));
            }
            sessions[t]->publish(makeMessage("/service/private", "1"));
        });
    }
    for (auto& publisher : publishers) {
        publisher.join();
    }
    ASSERT_TRUE(farSide.waitFor(threads * perThread, 10s));
    std::this_thread::sleep_for(200ms);

    std::map<std::string, int> nextPerPublisher;
    std::map<std::string, std::string> channelOf;
    for (int t = 0; t < threads; ++t) {
        channelOf[sessions[t]->getId()] = "/room/" + std::to_string(t);
    }
    const auto received = farSide.taken();
    EXPECT_EQ(received.size(), std::size_t(threads * perThread)) << "no duplicates";
    for (const auto& message : received) {
        ASSERT_EQ(channelOf.count(message->clientId), 1u) << "the publisher's clientId crosses: " << message->clientId;
        EXPECT_EQ(message->channel, channelOf[message->clientId]);
        int& next = nextPerPublisher[message->clientId];
        EXPECT_EQ(message->id, std::to_string(next));
        EXPECT_EQ(message->data->str(), "{\"n\":" + std::to_string(next) + "}");
        ++next;
    }
    EXPECT_EQ(nearSide.taken().size(), std::size_t(threads * perThread)) << "nothing comes back to its own server";
    EXPECT_TRUE(meta.taken().empty()) << "/service/** stays on its server";
}

TEST(RedisBridgeConcurrency, ABridgeStopsCleanlyWhilePublishersKeepPublishing) {
    RedisProcess redis;
    Node node(redis.endpoint, "stop-test:");
    std::atomic<bool> done{false};
    std::thread publisher([&] {
        for (int n = 0; !done; ++n) {
            node.member->publish(makeMessage("/busy", std::to_string(n)));
        }
    });
    std::this_thread::sleep_for(200ms);
    node.bridge.reset();
    std::this_thread::sleep_for(50ms);
    done = true;
    publisher.join();
}

TEST(RedisBridge, ASessionWithoutAContextIsRefused) {
    auto routing = std::make_shared<bayeux::BayeuxServerImpl>();
    auto session = std::make_shared<bayeux::LocalBayeuxSession>(routing, nullptr);
    RedisBridgeOptions options;
    options.endpoint.host = "127.0.0.1";
    EXPECT_THROW(RedisBridge(session, routing, options), std::invalid_argument);
}

}  // namespace
}  // namespace korvane::cluster
