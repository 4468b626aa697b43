// The whole server over loopback: the library's transports and protocol service on the
// reference host, spoken to by plain HTTP and WebSocket clients as a browser would.

#include "korvane/host/bayeux_host.h"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <regex>
#include <thread>

#include "korvane/bayeux.h"
#include "korvane/host/allow_list_policy.h"
#include "korvane/host/host_context.h"
#include "host/test_clients.h"
#include "support/test_helpers.h"

namespace korvane::host {
namespace {

using test::ClientResponse;
using test::HeaderList;
using test::HttpTestClient;
using test::WebSocketTestClient;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

std::string clientIdIn(const std::string& body) {
    std::smatch found;
    return std::regex_search(body, found, std::regex(R"("clientId":"([A-Za-z0-9]{16})\")")) ? found[1].str() : "";
}

class BayeuxHostTest : public ::testing::Test {
protected:
    void start(BayeuxHostOptions options = BayeuxHostOptions()) {
        options.http.listen = "127.0.0.1:0";
        options.http.threads = 2;
        options.http.staticRoot = webRoot.string();
        host = std::make_unique<BayeuxHost>(std::move(options));
        host->start();
    }
    unsigned short port() const { return host->port(); }
    // A browser: its own connection and its own cookie.
    struct Browser {
        std::unique_ptr<HttpTestClient> client;
        std::string cookie;
        ClientResponse post(const std::string& path, const std::string& body) {
            HeaderList headers{{"Content-Type", "application/json"}};
            if (!cookie.empty()) {
                headers.emplace_back("Cookie", cookie);
            }
            ClientResponse response = client->request("POST", path, headers, body);
            const std::string set = response.header("set-cookie");
            if (!set.empty()) {
                cookie = set.substr(0, set.find(';'));
            }
            return response;
        }
        std::string handshake() {
            return clientIdIn(post("/bayeux/handshake", R"([{"channel":"/meta/handshake","version":"1.0"}])").body);
        }
    };
    Browser browser(const std::string& cookie = "") {
        return Browser{std::make_unique<HttpTestClient>(port()), cookie};
    }

    std::filesystem::path webRoot = std::filesystem::temp_directory_path() / "korvane-host-web";
    std::unique_ptr<BayeuxHost> host;
};

TEST_F(BayeuxHostTest, LongPollingFromHandshakeToAHeldConnectAnsweredAfterAnotherClientsPublish) {
    start();
    Browser alice = browser();
    Browser bob = browser();
    const std::string aliceId = alice.handshake();
    const std::string bobId = bob.handshake();
    ASSERT_EQ(aliceId.size(), 16u);
    ASSERT_NE(aliceId, bobId);
    EXPECT_EQ(alice.post("/bayeux", R"([{"channel":"/meta/subscribe","clientId":")" + aliceId +
                                        R"(","subscription":"/chat/*"},{"channel":"/meta/connect","clientId":")" + aliceId +
                                        R"(","connectionType":"long-polling","advice":{"timeout":0}}])")
                  .body,
              R"([{"channel":"/meta/subscribe","clientId":")" + aliceId +
                  R"(","successful":true,"subscription":"/chat/*"},{"channel":"/meta/connect","clientId":")" + aliceId +
                  R"(","successful":true}])")
        << "a batch is answered in order, the connect in it at once";

    alice.client->sendRaw(HttpTestClient::format("POST", "/bayeux/connect", {{"Cookie", alice.cookie}},
                                                 R"({"channel":"/meta/connect","id":"9","clientId":")" + aliceId +
                                                     R"(","connectionType":"long-polling"})"));
    ClientResponse held = alice.client->readHeader();
    EXPECT_EQ(held.status, 200);
    EXPECT_TRUE(held.chunked) << "the headers of a held connect leave at once";
    EXPECT_EQ(bob.post("/bayeux/chat/room", R"({"channel":"/chat/room","clientId":")" + bobId + R"(","data":"hi"})")
                  .body,
              R"([{"channel":"/chat/room","clientId":")" + bobId + R"(","successful":true}])");
    std::string body;
    while (std::optional<std::string> chunk = alice.client->readChunk()) {
        body += *chunk;
    }
    EXPECT_EQ(body, R"([{"channel":"/chat/room","clientId":null,"data":"hi"},{"channel":"/meta/connect","id":"9",)"
                    R"("clientId":")" + aliceId + R"(","successful":true}])");

    // A connect with nothing to carry is answered at its hold time.
    const auto before = std::chrono::steady_clock::now();
    ClientResponse quiet = alice.post("/bayeux/connect", R"({"channel":"/meta/connect","clientId":")" + aliceId +
                                                             R"(","advice":{"timeout":300}})");
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(250));
    EXPECT_THAT(quiet.body, HasSubstr(R"("channel":"/meta/connect")"));
}

// Given a policy, the host hands it the HTTP request behind each Bayeux request.
TEST_F(BayeuxHostTest, APolicySeesEachRequestsHeadersCookiesAndRemoteAddress) {
    struct Recorder : AllowListPolicy {
        Recorder() : AllowListPolicy({}, {}) {}
        bayeux::HandshakeDecision mayHandshake(const std::shared_ptr<Context>& context, std::string_view ext) override {
            const auto headers = boost::any_cast<http::Headers>(context->get("headers"));
            const auto cookie = headers.find("cookie");
            std::lock_guard<std::mutex> guard(mutex);
            seen.push_back(boost::any_cast<std::string>(context->get("remoteAddress")) + " " +
                           headers.find("content-type")->second + " " +
                           (cookie == headers.end() ? "no cookie" : cookie->second.substr(0, 16)) + " " +
                           std::string(ext));
            return bayeux::HandshakeDecision();
        }
        std::mutex mutex;
        std::vector<std::string> seen;
    };
    auto policy = std::make_shared<Recorder>();
    BayeuxHostOptions options;
    options.policy = policy;
    start(std::move(options));
    Browser client = browser();
    client.handshake();
    client.post("/bayeux", R"([{"channel":"/meta/handshake","ext":{"token":"t"}}])");
    std::lock_guard<std::mutex> guard(policy->mutex);
    EXPECT_EQ(policy->seen, (std::vector<std::string>{
                                "127.0.0.1 application/json no cookie ",
                                "127.0.0.1 application/json korvane-browser= {\"token\":\"t\"}"}));
}

TEST_F(BayeuxHostTest, AnswersWhatIsNoBayeuxAsTheTransportsSay) {
    start();
    Browser client = browser();
    struct Case {
        std::string method;
        std::string body;
        int status;
        std::string answer;
    };
    const std::vector<Case> cases = {
        {"GET", "", 400, "Unknown Bayeux Transport"},
        {"PUT", "{}", 400, "Unknown Bayeux Transport"},
        {"POST", "garbage", 500, "Error handling bayeux request: JSON parsing error, expected array or object"},
        {"POST", R"({"channel":"/meta/handshake")", 500,
         "Error handling bayeux request: JSON message parsing error, invalid bayeux request"},
        {"POST", test_support::repeated("[", 100000), 500, "Error handling bayeux request: Invalid JSON, expected '{'"},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.method + " " + test.body.substr(0, 30));
        ClientResponse response = client.client->request(test.method, "/bayeux", {}, test.body);
        EXPECT_EQ(response.status, test.status);
        EXPECT_EQ(response.body, test.answer);
        EXPECT_EQ(client.handshake().size(), 16u) << "the connection and the server serve on";
    }
}

TEST_F(BayeuxHostTest, FifthHeldLongPollOfOneBrowserIsAShortPollWhileAnotherBrowserIsHeld) {
    start();
    Browser first = browser();
    first.handshake();
    std::vector<std::unique_ptr<HttpTestClient>> held;
    // A new client of the browser with `cookie`, and the body of its connect.
    auto connectOf = [&](const std::string& cookie) {
        Browser same{std::make_unique<HttpTestClient>(port()), cookie};
        const std::string id = same.handshake();
        return R"({"channel":"/meta/connect","clientId":")" + id + R"(","advice":{"timeout":5000}})";
    };
    for (int index = 0; index < 4; ++index) {
        held.push_back(std::make_unique<HttpTestClient>(port()));
        held.back()->sendRaw(HttpTestClient::format("POST", "/bayeux/connect", {{"Cookie", first.cookie}},
                                                    connectOf(first.cookie)));
        EXPECT_TRUE(held.back()->readHeader().chunked) << "held connect " << index;
    }
    HttpTestClient fifth(port());
    ClientResponse shortPoll =
        fifth.request("POST", "/bayeux/connect", {{"Cookie", first.cookie}}, connectOf(first.cookie));
    EXPECT_FALSE(shortPoll.chunked) << "answered at once";
    EXPECT_THAT(shortPoll.body, HasSubstr(R"("advice":{"reconnect":"retry","interval":200)"));

    Browser other = browser();
    other.handshake();
    HttpTestClient otherConnect(port());
    otherConnect.sendRaw(
        HttpTestClient::format("POST", "/bayeux/connect", {{"Cookie", other.cookie}}, connectOf(other.cookie)));
    EXPECT_TRUE(otherConnect.readHeader().chunked) << "another browser's connect is held";
}

TEST_F(BayeuxHostTest, WebSocketAnswersEachMessageInItsOwnFrameAndFillsInTheClientId) {
    start();
    WebSocketTestClient socket(port(), "/bayeux");
    socket.write(R"([{"channel":"/meta/handshake","id":"1"}])");
    const std::string handshake = socket.read().value_or("");
    const std::string id = clientIdIn(handshake);
    ASSERT_EQ(id.size(), 16u) << handshake;
    socket.write(R"([{"channel":"/meta/subscribe","id":"2","subscription":"/room"},)"
                 R"({"channel":"/meta/connect","id":"3","connectionType":"websocket","advice":{"timeout":0}}])");
    EXPECT_EQ(socket.read(), R"([{"channel":"/meta/subscribe","id":"2","clientId":")" + id +
                                 R"(","successful":true,"subscription":"/room"}])");
    EXPECT_EQ(socket.read(), R"([{"channel":"/meta/connect","id":"3","clientId":")" + id + R"(","successful":true}])");

    socket.write("{not json");
    EXPECT_EQ(socket.read(), std::nullopt) << "a frame that cannot be handled closes the socket";
    EXPECT_EQ(socket.closeCode(), 1011);
    EXPECT_EQ(browser().handshake().size(), 16u);

    // Text that is not UTF-8, in its bytes or once an escape is decoded, closes with 1007.
    for (const std::string& frame : {std::string("[{\"channel\":\"/meta/handshake\",\"ext\":\"\xff\"}]"),
                                     std::string(R"([{"channel":"/a\udc00"}])")}) {
        WebSocketTestClient hostile(port(), "/bayeux");
        hostile.write(frame);
        EXPECT_EQ(hostile.read(), std::nullopt);
        EXPECT_EQ(hostile.closeCode(), 1007) << frame;
    }
}

// A WebSocket client over which the test speaks Bayeux by hand.
class BayeuxSocket {
public:
    BayeuxSocket(unsigned short port) : socket_(port, "/bayeux") {
        socket_.write(R"([{"channel":"/meta/handshake"}])");
        id_ = clientIdIn(socket_.read().value_or(""));
    }
    void subscribe(const std::string& channel) {
        socket_.write(R"([{"channel":"/meta/subscribe","subscription":")" + channel + R"("}])");
        socket_.read();
    }
    void publish(const std::string& channel, const std::string& data) {
        socket_.write(R"([{"channel":")" + channel + R"(","data":)" + data + "}]");
        socket_.read();
    }
    void connect() { socket_.write(R"([{"channel":"/meta/connect","connectionType":"websocket"}])"); }
    WebSocketTestClient& socket() { return socket_; }

private:
    WebSocketTestClient socket_;
    std::string id_;
};

// Reads /room until `messages` have come, each in order, connecting again after each
// connect reply as a client does; `next` counts the messages that came in order.
void readInOrder(BayeuxSocket& subscriber, int messages, std::atomic<int>& next) {
    while (next < messages) {
        const std::optional<std::string> frame = subscriber.socket().read();
        if (!frame) {
            break;
        }
        if (frame->find(R"("channel":"/room")") != std::string::npos) {
            if (frame->find(R"({"n":)" + std::to_string(next) + ",") == std::string::npos) {
                break;
            }
            ++next;
        } else if (frame->find(R"("channel":"/meta/connect")") != std::string::npos) {
            subscriber.connect();
        }
    }
}

// A subscriber that keeps connecting but reads nothing, while far more is published than
// loopback's socket buffers hold: past the backlog, or once a write has stalled for the
// write timeout, its connection is cut, while a subscriber that reads, on its own thread,
// gets every message in order. Each message is published once the reader has the one
// before, so that the reader's batches stay small: the backlog counts a whole batch.
TEST_F(BayeuxHostTest, AWebSocketPeerThatDoesNotReadIsCutPastTheBacklogOrTheWriteTimeout) {
    struct Case {
        const char* bound;
        std::size_t backlogBytes;
        std::chrono::milliseconds writeTimeout;
    };
    const Case cases[] = {
        {"write timeout", std::size_t{1} << 30, std::chrono::milliseconds(300)},
        {"backlog", 4 << 20, std::chrono::seconds(30)},
    };
    constexpr int messages = 240;  // of 100 KB
    const std::string text(100 * 1000, 'x');
    for (const Case& bound : cases) {
        SCOPED_TRACE(bound.bound);
        BayeuxHostOptions options;
        options.http.wsBacklogBytes = bound.backlogBytes;
        options.http.writeTimeout = bound.writeTimeout;
        options.maxPendingMessages = 0;
        host.reset();  // the host of the case before goes first, with its clock
        start(options);
        std::promise<void> subscribed;
        std::atomic<int> received{0};
        std::future<void> reading = std::async(std::launch::async, [this, &subscribed, &received] {
            BayeuxSocket reader(port());
            reader.subscribe("/room");
            subscribed.set_value();
            reader.connect();
            readInOrder(reader, messages, received);
        });
        if (subscribed.get_future().wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
            reading.get();
            FAIL() << "the reader did not subscribe";
        }
        auto readerHas = [&received](int count) {
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
            while (received < count && std::chrono::steady_clock::now() < deadline) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
            return received >= count;
        };
        BayeuxSocket stalled(port()), publisher(port());
        stalled.subscribe("/room");
        bool cutWhilePublishing = false;
        for (int n = 0; n < messages; ++n) {
            ASSERT_TRUE(readerHas(n)) << "the reader is stuck at " << received;
            publisher.publish("/room", R"({"n":)" + std::to_string(n) + R"(,"text":")" + text + R"("})");
            // Each connect takes what waits for the peer into its socket: it never reads.
            try {
                if (!cutWhilePublishing) {
                    stalled.connect();
                }
            } catch (const std::runtime_error&) {
                cutWhilePublishing = true;
            }
        }
        reading.get();
        EXPECT_EQ(received, messages);
        // The stalled peer finds what its socket buffers held, then the cut (no close frame).
        int seenByStalled = 0;
        try {
            while (stalled.socket().read()) {
                ++seenByStalled;
            }
        } catch (const std::runtime_error&) {
        }
        EXPECT_LT(seenByStalled, 2 * messages) << "the peer that did not read was not cut";
    }
}

TEST_F(BayeuxHostTest, OutboundClientTransportTalksToOurOwnServerOverWsAndWss) {
    for (const bool tls : {false, true}) {
        SCOPED_TRACE(tls ? "wss" : "ws");
        BayeuxHostOptions options;
        if (tls) {
            options.http.tlsCert = test::certificate().cert;
            options.http.tlsKey = test::certificate().key;
            options.client.extraCaFile = test::certificate().cert;
        }
        start(std::move(options));
        auto context = HostContext::create(host->registry());
        const std::string url = std::string(tls ? "wss" : "ws") + "://127.0.0.1:" + std::to_string(port()) + "/bayeux";
        std::unique_ptr<Message> opened =
            context->handle(std::make_unique<bayeux::ConnectTransport>(url), Address(BayeuxHost::webSocketClientAddress))
                .get();
        auto* transport = dynamic_cast<bayeux::ConnectTransportResponse*>(opened.get());
        ASSERT_NE(transport, nullptr);

        std::mutex mutex;
        std::condition_variable arrived;
        std::vector<std::string> replies;
        auto inbox = std::make_shared<reactive_streams::CallbackSubscriber<std::unique_ptr<Message>>>(
            [&](std::unique_ptr<Message>&& message) {
                auto* reply = dynamic_cast<bayeux::BayeuxResponse*>(message.get());
                std::lock_guard<std::mutex> guard(mutex);
                replies.push_back(reply ? reply->channel + (reply->successful ? " ok" : " refused") : "?");
                arrived.notify_all();
            });
        transport->publisher->subscribe(inbox);
        auto outbox = std::make_shared<
            reactive_streams::CachedValuePublisher<std::unique_ptr<Message>, std::function<void()>>>(nullptr);
        outbox->subscribe(transport->subscriber);
        outbox->publish(std::make_unique<bayeux::HandshakeRequest>());
        std::unique_lock<std::mutex> lock(mutex);
        arrived.wait_for(lock, std::chrono::seconds(5), [&] { return !replies.empty(); });
        EXPECT_EQ(replies, std::vector<std::string>{"/meta/handshake ok"});
        lock.unlock();
        outbox->finish();
        inbox->cancel();
        host.reset();
    }
}

TEST_F(BayeuxHostTest, StopsWithClientsStillConnected) {
    start();
    Browser waiting = browser();
    const std::string id = waiting.handshake();
    waiting.client->sendRaw(HttpTestClient::format(
        "POST", "/bayeux", {}, R"({"channel":"/meta/connect","clientId":")" + id + R"(","advice":{"timeout":30000}})"));
    EXPECT_TRUE(waiting.client->readHeader().chunked);
    WebSocketTestClient socket(port(), "/bayeux");
    socket.write(R"({"channel":"/meta/handshake"})");
    EXPECT_TRUE(socket.read().has_value());

    // The peer answers the closing handshake while the server stops, as a live client does.
    std::thread stopping([this] { host->stop(); });
    EXPECT_EQ(socket.read(), std::nullopt);
    EXPECT_EQ(socket.closeCode(), 1001) << "going away";
    stopping.join();
    EXPECT_TRUE(waiting.client->closedByServer(std::chrono::seconds(2))) << "the held connect was ended";
    host.reset();
}

}  // namespace
}  // namespace korvane::host
