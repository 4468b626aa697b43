// The whole server over loopback: the library's transports and protocol service on the
// reference host. The layers below own the protocol; here is what the host joins to it: the
// HTTP request reaching the policy and the outbound client transport reaching our own server.
// The close codes of the sockets the transport fails are checked end to end (interop).

#include "korvane/host/bayeux_host.h"

#include <gmock/gmock.h>

#include "korvane/bayeux.h"
#include "korvane/host/allow_list_policy.h"
#include "korvane/host/host_context.h"
#include "host/host_test_support.h"
#include "support/recording_subscriber.h"

namespace korvane::host {
namespace {

// Posts `body` to the Bayeux path on a connection of its own, with `headers` (each ending in
// CRLF), and returns the whole response.
std::string post(unsigned short port, const std::string& headers, const std::string& body) {
    return test::exchange(port, "POST /bayeux HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n" + headers +
                                    "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
}

class BayeuxHostTest : public ::testing::Test {
protected:
    void start(BayeuxHostOptions options = BayeuxHostOptions()) {
        options.http.listen = "127.0.0.1:0";
        options.http.threads = 2;
        host = std::make_unique<BayeuxHost>(std::move(options));
        host->start();
    }

    std::unique_ptr<BayeuxHost> host;
};

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
    const std::string json = "Content-Type: application/json\r\n";
    const std::string first = post(host->port(), json, R"([{"channel":"/meta/handshake"}])");
    const std::size_t cookie = first.find("korvane-browser=");
    ASSERT_NE(cookie, std::string::npos) << first;
    post(host->port(), json + "Cookie: " + first.substr(cookie, first.find(';', cookie) - cookie) + "\r\n",
         R"([{"channel":"/meta/handshake","ext":{"token":"t"}}])");
    std::lock_guard<std::mutex> guard(policy->mutex);
    EXPECT_EQ(policy->seen, (std::vector<std::string>{
                                "127.0.0.1 application/json no cookie ",
                                "127.0.0.1 application/json korvane-browser= {\"token\":\"t\"}"}));
}

// The host answers a Bayeux POST with the long-poll transport's code itself, where the dispatch
// would have passed it on: the same bytes as a server that sends every request through the dispatch
// (on the same services), whatever the body, and an Upgrade header leaves the choice to the dispatch.
TEST_F(BayeuxHostTest, AnswersPostsAsTheDispatchWould) {
    start();
    HttpServerOptions dispatchOnly;
    dispatchOnly.listen = "127.0.0.1:0";
    dispatchOnly.bayeuxAddress = BayeuxHost::dispatchAddress;
    HttpServer dispatching(std::move(dispatchOnly), host->registry());
    dispatching.start();
    const std::string cookie = "Cookie: korvane-browser=" + std::string(32, 'a') + "\r\n";
    const std::string connect = R"({"channel":"/meta/connect","clientId":"nobody","id":"7"})";
    const std::string websocket = "Upgrade: websocket\r\n";
    for (const auto& [headers, body] : std::initializer_list<std::pair<std::string, std::string>>{
             {"", ""}, {"", "{"}, {"", "\xff"}, {"", connect}, {"", "[" + connect + "]"},
             {"", R"([{"channel":"/a","clientId":"nobody","data":1},{"channel":"/meta/unsubscribe","clientId":"x"}])"},
             {"Upgrade: h2c\r\n", connect}, {websocket, connect}}) {
        const std::string direct = post(host->port(), cookie + headers, body);
        EXPECT_THAT(direct, ::testing::StartsWith("HTTP/1.1 ")) << body;
        EXPECT_EQ(direct, post(dispatching.port(), cookie + headers, body)) << headers << body;
    }
    const std::string refused = post(host->port(), cookie + websocket, connect);
    EXPECT_THAT(refused, ::testing::StartsWith("HTTP/1.1 500"));
    EXPECT_THAT(refused, ::testing::EndsWith("A WebSocket cannot answer this request"));
}

// Plain WebSocket is the HTTP client's own test; here, the host hands its TLS options to the client it registers.
TEST_F(BayeuxHostTest, OutboundClientTransportTalksToOurOwnServerOverWss) {
    using Inbox = test_support::RecordingSubscriber<std::unique_ptr<Message>>;
    using Outbox = reactive_streams::CachedValuePublisher<std::unique_ptr<Message>, std::function<void()>>;
    BayeuxHostOptions options;
    options.http.tlsCert = test::certificate().cert;
    options.http.tlsKey = test::certificate().key;
    options.client.extraCaFile = test::certificate().cert;
    start(std::move(options));
    const std::string url = "wss://127.0.0.1:" + std::to_string(host->port()) + "/bayeux";
    std::unique_ptr<Message> opened =
        HostContext::create(host->registry())
            ->handle(std::make_unique<bayeux::ConnectTransport>(url), Address(BayeuxHost::webSocketClientAddress))
            .get();
    auto& transport = dynamic_cast<bayeux::ConnectTransportResponse&>(*opened);
    auto inbox = std::make_shared<Inbox>(1, 1, [](const std::unique_ptr<Message>& message) {
        auto* reply = dynamic_cast<bayeux::BayeuxResponse*>(message.get());
        return reply ? reply->channel + (reply->successful ? " ok" : " refused") : "?";
    });
    transport.publisher->subscribe(inbox);
    auto outbox = std::make_shared<Outbox>(nullptr);
    outbox->subscribe(transport.subscriber);
    outbox->publish(std::make_unique<bayeux::HandshakeRequest>());
    inbox->waitFor([](Inbox& r) { return !r.seen().empty(); }, std::chrono::seconds(5));
    EXPECT_EQ(inbox->seen(), std::vector<std::string>{"/meta/handshake ok"});
    outbox->finish();
    inbox->cancel();
}

}  // namespace
}  // namespace korvane::host
