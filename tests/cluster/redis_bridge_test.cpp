// The cluster bridge and its pieces: the frame a message crosses Redis in, the Redis URL, the
// placement of channels on shards, the retry timing, the bounded queue to Redis, and two
// servers' bridges through a redis-server of the test's own.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <optional>
#include <thread>
#include <tuple>

#include "korvane/cluster/backoff.h"
#include "korvane/cluster/bounded_queue.h"
#include "korvane/cluster/channel_sharding.h"
#include "korvane/cluster/cluster_frame.h"
#include "korvane/cluster/redis_bridge.h"
#include "korvane/cluster/redis_endpoint.h"
#include "korvane/routing/bayeux_server.h"
#include "support/recording_subscriber.h"
#include "support/test_context.h"
#include "support/test_helpers.h"

namespace korvane::cluster {
namespace {

using Delivery = std::shared_ptr<const bayeux::PublishRequest>;
using Inbox = test_support::RecordingSubscriber<Delivery>;
using Texts = std::vector<std::string>;
using namespace std::chrono_literals;

// A message with these fields; no data buffer for nullopt.
std::unique_ptr<bayeux::PublishRequest> makeMessage(const std::string& channel, const std::optional<std::string>& data,
                                                    const std::string& id = "", const std::string& clientId = "") {
    auto message = std::make_unique<bayeux::PublishRequest>(channel);
    message->id = id;
    message->clientId = clientId;
    message->data = data ? std::make_shared<common::DataBuffer>(*data) : nullptr;
    return message;
}

// A frame's origin and message as one line; "-" for a missing data buffer.
std::string fieldsOf(const std::string& origin, const bayeux::PublishRequest& message) {
    return origin + "|" + message.channel + "|" + message.id + "|" + message.clientId + "|" +
           (message.data ? message.data->str() : "-") + (message.context ? "|with a context" : "");
}

TEST(ClusterFrame, EveryFieldCrossesByteForByte) {
    // Origin, channel, id, client id and data: every field; no data; empty data; bytes that are not text;
    // data past 64 KiB; empty origin and channel.
    const std::tuple<std::string, std::string, std::string, std::string, std::optional<std::string>> cases[] = {
        {"origin1", "/chat/room", "42", "client7", std::string(R"({"text":"hi","n":[1,2.50,-0]})")},
        {"o", "/a", "", "", std::nullopt},
        {"o", "/a", "", "", std::string()},
        {std::string("o\0x", 3), "/bin", "id", "c", std::string("\0\x01\xff\"\\\n", 6)},
        {"o", "/big", "1", "c", std::string(70000, 'x')},
        {"", "", "", "", std::string("null")},
    };
    for (const auto& [origin, channel, id, clientId, data] : cases) {
        const auto message = makeMessage(channel, data, id, clientId);
        const ClusterFrame decoded = decodeClusterFrame(encodeClusterFrame(origin, *message));
        EXPECT_EQ(fieldsOf(decoded.origin, *decoded.message), fieldsOf(origin, *message)) << channel;
    }
}

// The layout is version, flags and length-prefixed fields; a malformed frame is refused with its reason.
TEST(ClusterFrame, LayoutIsPinnedAndMalformedFramesAreRefusedWithTheirReason) {
    const std::string good = encodeClusterFrame("or", *makeMessage("/c", "{}", "7"));
    EXPECT_EQ(good, std::string("\x01\x01\0\0\0\x02or\0\0\0\x02/c\0\0\0\x01" "7\0\0\0\0\0\0\0\x02{}", 29));
    const std::pair<std::string, std::string> cases[] = {
        {"", "Truncated cluster frame"},
        {"\x02" + good.substr(1), "Unknown cluster frame version"},
        {std::string(1, '\0') + good.substr(1), "Unknown cluster frame version"},
        {good.substr(0, 1), "Truncated cluster frame"},                      // no flags
        {good.substr(0, 4), "Truncated cluster frame"},                      // cut inside a length
        {good.substr(0, good.size() - 1), "Truncated cluster frame"},        // cut inside the data
        {std::string("\x01\x00\xff\xff\xff\xff", 6), "Truncated cluster frame"},  // a length past the end
        {good + "x", "Trailing bytes after cluster frame"},
    };
    for (const auto& [frame, error] : cases) {
        EXPECT_EQ(test_support::errorOf<std::invalid_argument>([&] { decodeClusterFrame(frame); }), error)
            << frame.size() << " bytes";
    }
}

// Host, description, user and password of a URL, or the text of its refusal.
std::string parsed(const char* url, const char* fallback) {
    try {
        const RedisEndpoint endpoint = parseRedisUrl(url, fallback);
        return endpoint.host + " " + std::to_string(endpoint.port) + "/" + std::to_string(endpoint.database) + " " +
               endpoint.describe() + " " + endpoint.user + ":" + endpoint.password;
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
}

TEST(RedisEndpoint, UrlsGiveHostPortDatabaseAndCredentialsAndBadOnesAreRefusedWithoutQuotingThem) {
    const std::tuple<const char*, const char*, const char*> cases[] = {  // URL, password from elsewhere, outcome
        {"redis://localhost", nullptr, "localhost 6379/0 localhost:6379/0 :"},
        {"redis://127.0.0.1:7000", nullptr, "127.0.0.1 7000/0 127.0.0.1:7000/0 :"},
        {"redis://127.0.0.1:7000/", nullptr, "127.0.0.1 7000/0 127.0.0.1:7000/0 :"},
        {"redis://127.0.0.1:7000/3", nullptr, "127.0.0.1 7000/3 127.0.0.1:7000/3 :"},
        {"redis://:s3cr:et@h:1", nullptr, "h 1/0 h:1/0 :s3cr:et"},
        {"redis://alice:pw@h", nullptr, "h 6379/0 h:6379/0 alice:pw"},
        {"redis://p@ss@h", nullptr, "h 6379/0 h:6379/0 :p@ss"},
        {"redis://[::1]:6380/2", nullptr, "::1 6380/2 [::1]:6380/2 :"},
        {"redis://h:1", "from-env", "h 1/0 h:1/0 :from-env"},
        {"redis://:in-url@h:1", "from-env", "h 1/0 h:1/0 :in-url"},
        {"http://h:1", nullptr, "invalid Redis URL: it must start with redis://"},
        {"redis://", nullptr, "invalid Redis URL: no host"},
        {"redis://:hunter2@:1", nullptr, "invalid Redis URL: no host"},
        {"redis://:hunter2@h:", nullptr, "invalid Redis URL: bad port"},
        {"redis://h:0", nullptr, "invalid Redis URL: bad port"},
        {"redis://h:65535", nullptr, "h 65535/0 h:65535/0 :"},
        {"redis://h:65536", nullptr, "invalid Redis URL: bad port"},
        {"redis://h:12ab", nullptr, "invalid Redis URL: bad port"},
        {"redis://h:1/x", nullptr, "invalid Redis URL: bad database"},
        {"redis://[::1", nullptr, "invalid Redis URL: unclosed [ in host"},
        {"redis://[::1]x", nullptr, "invalid Redis URL: bad host"},
    };
    for (const auto& [url, fallback, expected] : cases) {
        EXPECT_EQ(parsed(url, fallback), expected) << url;
    }
}

TEST(ChannelSharding, PatternKeysBecomeRedisNamesThatTakeThePrefixLiterally) {
    const std::tuple<std::string, bool, std::string> keys[] = {  // key, wildcard, path
        {"a/b", false, "/a/b"}, {"a/*", true, "/a/"}, {"a/b/**", true, "/a/b/"},
        {"*", true, "/"},       {"**", true, "/"},    {"a/**b", false, "/a/**b"},
    };
    for (const auto& [key, wildcard, path] : keys) {
        EXPECT_EQ(isWildcardKey(key), wildcard) << key;
        EXPECT_EQ(keyPath(key), path) << key;
    }
    EXPECT_EQ(redisGlob("p[*]?\\:/a/"), "p\\[\\*\\]\\?\\\\:/a/*");
}

TEST(ChannelSharding, EveryServerPlacesAChannelAlikeAndAnAddedShardTakesChannelsOnlyForItself) {
    // Pinned: servers of different builds must agree.
    const std::vector<std::size_t> placed{shardOf("/user/1", 3), shardOf("/user/2", 3), shardOf("/user/3", 3),
                                          shardOf("/anything", 1)};
    EXPECT_EQ(placed, (std::vector<std::size_t>{1, 0, 2, 0}));
    int moved = 0;
    for (int n = 0; n < 3000; ++n) {
        const std::string channel = "/user/" + std::to_string(n);
        const std::size_t before = shardOf(channel, 2), after = shardOf(channel, 3);
        ASSERT_TRUE(after == before || after == 2) << channel;
        moved += after != before;
    }
    EXPECT_NEAR(moved, 1000, 150) << "a third of the channels move to the new shard";
}

TEST(Backoff, DoublesUpToTheCapAndStartsOverAfterASuccess) {
    Backoff backoff(100ms, 5000ms);
    std::vector<long> waits;
    for (int i = 0; i < 9; ++i) {
        waits.push_back(static_cast<long>(backoff.next().count()));
    }
    EXPECT_EQ(waits, (std::vector<long>{100, 200, 400, 800, 1600, 3200, 5000, 5000, 5000}));
    backoff.reset();
    EXPECT_EQ(backoff.next(), 100ms);
}

TEST(BoundedQueue, KeepsOrderDropsPastCapacityCountsTheDropsAndClosesWithoutCounting) {
    using Queue = BoundedQueue<std::unique_ptr<int>>;
    Queue queue(3);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(queue.push(std::make_unique<int>(i)), i < 3 ? Queue::Push::Queued : Queue::Push::Dropped) << i;
    }
    EXPECT_EQ(queue.takeDropped(), 2u);
    EXPECT_EQ(queue.takeDropped(), 0u) << "the count starts over once taken";
    EXPECT_EQ(queue.totalDropped(), 2u) << "the total does not";
    EXPECT_EQ(**queue.pop(), 0);
    EXPECT_EQ(queue.push(std::make_unique<int>(5)), Queue::Push::Queued) << "room again after a pop";
    queue.close();
    EXPECT_FALSE(queue.pop().has_value()) << "items left behind are not handed out";
    EXPECT_EQ(queue.push(std::make_unique<int>(7)), Queue::Push::Closed);
    EXPECT_EQ(queue.takeDropped(), 0u);
}

// A full queue never holds up a producer and counts what it refuses, each producer's order survives,
// and a close wakes the consumer waiting on the empty queue.
TEST(BoundedQueueConcurrency, EveryProducersOrderSurvivesEveryItemIsTakenOrCountedAndCloseWakes) {
    constexpr int producers = 4, perProducer = 5000;
    using Queue = BoundedQueue<std::pair<int, int>>;
    Queue queue(16);
    std::vector<int> last(producers, -1);
    std::atomic<int> refused{0};
    int taken = 0;
    bool inOrder = true;
    std::thread consumer([&] {
        for (auto item = queue.pop(); item; item = queue.pop(), ++taken) {
            inOrder = inOrder && item->second > last[item->first];
            last[item->first] = item->second;
        }
    });
    test_support::onThreads(producers, [&](int p) {
        for (int i = 0; i < perProducer; ++i) {
            refused += queue.push({p, i}) == Queue::Push::Dropped;
        }
    });
    ASSERT_TRUE(test_support::eventually([&] { return queue.size() == 0; }));
    queue.close();
    consumer.join();
    EXPECT_TRUE(inOrder);
    EXPECT_EQ(static_cast<int>(queue.takeDropped()), refused.load());
    EXPECT_EQ(taken + refused, producers * perProducer);
}

// A redis-server of the test's own on a free loopback port, killed at the end. Whoever uses it
// waits for it to answer.
class RedisProcess {
public:
    RedisProcess() {
        const int probe = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
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
    }
    ~RedisProcess() {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }

    RedisEndpoint endpoint;
    pid_t pid = 0;
};

// One server's routing core with its bridge and in-process participants. The bridge goes
// first, then the feeds its threads deliver into.
struct Node {
    Node(const RedisEndpoint& endpoint, const std::string& prefix)
        : bridge(std::make_unique<RedisBridge>(participant(), routing, RedisBridgeOptions{{endpoint}, prefix})) {}
    std::shared_ptr<bayeux::LocalBayeuxSession> participant() {
        auto session =
            std::make_shared<bayeux::LocalBayeuxSession>(routing, std::make_shared<test_support::TestContext>());
        routing->addSession(session);
        return session;
    }
    // What a new participant, kept for the node's life, receives on `pattern`, in order.
    std::shared_ptr<Inbox> listen(const std::string& pattern) {
        auto inbox = std::make_shared<Inbox>(~0ul);
        listeners.push_back(participant());
        feeds.push_back(listeners.back()->subscribe(pattern));
        feeds.back()->subscribe(inbox);
        return inbox;
    }

    std::shared_ptr<bayeux::BayeuxServerImpl> routing = std::make_shared<bayeux::BayeuxServerImpl>();
    std::vector<std::shared_ptr<bayeux::LocalBayeuxSession>> listeners;
    std::vector<std::shared_ptr<reactive_streams::PublisherAPI<Delivery>>> feeds;
    std::unique_ptr<RedisBridge> bridge;
};

// Ends with a bridge stopping while a publisher keeps publishing on its server.
TEST(RedisBridgeConcurrency, ThreadsPublishingOnOneServerReachTheOtherOnceEachInTheirOwnOrder) {
    RedisProcess redis;
    // The prefix holds pattern characters, which the bridge must take literally.
    Node east(redis.endpoint, "bridge-test[*]?\\:"), west(redis.endpoint, "bridge-test[*]?\\:");
    for (const Node* node : {&east, &west}) {
        ASSERT_TRUE(test_support::eventually([node] { return node->bridge->isConnected(); }))
            << "no redis-server: scripts/install-deps installs it";
    }
    auto farSide = west.listen("/room/**"), nearSide = east.listen("/room/**"), meta = west.listen("/service/**");
    // Until Redis has the far side's "/room/**", as the protocol service does before a subscribe's reply.
    west.routing->awaitInterestSettled(5s);

    constexpr int threads = 4, perThread = 250;
    std::map<std::string, Texts> sent, received;  // "<channel> <id> <data>" by publisher's client id, in order
    std::vector<std::shared_ptr<bayeux::LocalBayeuxSession>> sessions;
    for (int t = 0; t < threads; ++t) {
        sessions.push_back(east.participant());
        for (int n = 0; n < perThread; ++n) {
            sent[sessions.back()->getId()].push_back("/room/" + std::to_string(t) + " " + std::to_string(n) + " " +
                                                     std::to_string(n));
        }
    }
    test_support::onThreads(threads, [&sessions](int t) {
        for (int n = 0; n < perThread; ++n) {
            sessions[t]->publish(makeMessage("/room/" + std::to_string(t), std::to_string(n), std::to_string(n)));
        }
        sessions[t]->publish(makeMessage("/service/private", "1"));
    });
    ASSERT_TRUE(farSide->waitFor([](Inbox& i) { return i.seen().size() >= threads * perThread; }, 10s));
    std::this_thread::sleep_for(200ms);
    farSide->read([&](const auto& messages) {
        for (const auto& message : messages) {
            received[message->clientId].push_back(message->channel + " " + message->id + " " + message->data->str());
        }
    });
    EXPECT_EQ(received, sent) << "each once, in its publisher's order, with the publisher's client id";
    EXPECT_EQ(nearSide->seen().size(), std::size_t(threads * perThread)) << "nothing comes back to its own server";
    EXPECT_EQ(meta->seen().size(), 0u) << "/service/** stays on its server";

    std::atomic<bool> done{false};
    std::thread busy([publisher = east.participant(), &done] {
        for (int n = 0; !done; ++n) {
            publisher->publish(makeMessage("/busy", std::to_string(n)));
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
    const RedisBridgeOptions options{{parseRedisUrl("redis://h", nullptr)}};
    EXPECT_THROW(RedisBridge(session, routing, options), std::invalid_argument);
}

}  // namespace
}  // namespace korvane::cluster
