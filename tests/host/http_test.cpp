#include "korvane/host/http_client.h"
#include "korvane/host/http_server.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <boost/asio/ip/tcp.hpp>

#include "korvane/frame/cached_value_publisher.h"
#include "korvane/frame/callback_subscriber.h"
#include "korvane/frame/http.h"
#include "korvane/frame/reducing_subscriber.h"
#include "korvane/host/host.h"
#include "support/recording_subscriber.h"
#include "test_clients.h"

namespace korvane::host {
namespace {

using namespace std::chrono_literals;
using common::DataBuffer;
using test::ClientResponse;
using test::HttpTestClient;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;

using BodyStream = reactive_streams::CachedValuePublisher<DataBuffer, std::function<void()>>;
using FrameStream = reactive_streams::CachedValuePublisher<http::WebSocketFrame, std::function<void()>>;

// Stands in for the Bayeux transports, by target:
// - an upgrade: a WebSocket echoing each message back; "finish" ends the service's
//   frame stream, "fail" fails it;
// - ".../stream": a body streamed later from the test's thread (see waitForStream);
// - ".../fail": a failed future;
// - anything else: "<method> <target> session=<sessionId> body=<whole body>".
class FakeBayeuxService : public http::HttpServiceProvider {
public:
    Future<std::unique_ptr<Message>> handle(std::unique_ptr<http::HttpRequest>&& request, Address&&,
                                            std::shared_ptr<Context>&& context) override {
        auto upgrade = request->headers.find("upgrade");
        if (upgrade != request->headers.end() && upgrade->second == "websocket") {
            std::lock_guard<std::mutex> guard(mutex);
            upgrades.push_back(request->headers);
            return makeReadyFuture(echoSocket());
        }
        if (request->target.find("/stream") != std::string::npos) {
            return makeReadyFuture(streamingResponse());
        }
        if (request->target.find("/fail") != std::string::npos) {
            return makeErrorFuture<std::unique_ptr<Message>>(
                std::make_exception_ptr(std::runtime_error("the service broke down")));
        }
        const std::string session =
            context->has("sessionId") ? boost::any_cast<std::string>(context->get("sessionId")) : "(none)";
        std::string heading = request->method + " " + request->target + " session=" + session + " body=";
        return reactive_streams::reduce<DataBuffer, DataBuffer>(
                   request->body,
                   [](DataBuffer&& chunk, DataBuffer&& whole) {
                       whole.append(chunk);
                       return std::move(whole);
                   },
                   DataBuffer())
            .then([heading](Future<DataBuffer>&& body) { return http::makeReadyHttpResponse(200, heading + body.get().str()).get(); });
    }

    std::vector<http::Headers> upgrades;  // the headers of each upgrade, under `mutex`

    // The publisher of the latest streamed body, once its request arrived.
    std::shared_ptr<BodyStream> waitForStream() {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait_for(lock, 10s, [this] { return stream != nullptr; });
        return std::exchange(stream, nullptr);
    }
    // Whether the service's streams ended (a body or a WebSocket's frames) `count` times.
    bool waitForFinished(int count) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, 10s, [this, count] { return finished >= count; });
    }

    std::mutex mutex;

private:
    std::function<void()> noteFinished() {
        return [this] {
            std::lock_guard<std::mutex> guard(mutex);
            ++finished;
            changed.notify_all();
        };
    }

    std::unique_ptr<Message> streamingResponse() {
        auto body = std::make_shared<BodyStream>(noteFinished());
        {
            std::lock_guard<std::mutex> guard(mutex);
            stream = body;
            changed.notify_all();
        }
        return std::make_unique<http::HttpResponse>(200, http::Headers{{"Content-Type", "application/json"}},
                                                    http::Headers(), body);
    }

    std::unique_ptr<Message> echoSocket() {
        auto frames = std::make_shared<FrameStream>(noteFinished());
        std::weak_ptr<FrameStream> weakFrames = frames;
        auto echo = std::make_shared<reactive_streams::CallbackSubscriber<http::WebSocketFrame>>(
            [weakFrames](http::WebSocketFrame&& frame) {
                std::shared_ptr<FrameStream> target = weakFrames.lock();
                if (!target) {
                    return;
                }
                if (frame.data.view() == "finish") {
                    target->finish();
                } else if (frame.data.view() == "fail") {
                    target->setError(std::make_exception_ptr(std::runtime_error("failed on purpose")));
                } else {
                    target->publish(http::WebSocketFrame(std::move(frame.data), frame.firstByte));
                }
            });
        // The frame stream lives as long as the server holds its reading end.
        auto keeper = std::make_shared<reactive_streams::CallbackSubscriber<http::WebSocketFrame>>(
            [frames, echo](http::WebSocketFrame&& frame) { echo->onNext(std::move(frame)); });
        return std::make_unique<http::WebSocket>(frames, keeper);
    }

    std::condition_variable changed;
    std::shared_ptr<BodyStream> stream;
    int finished = 0;
};

// A folder of static files, with a secret next to it and a symlink pointing at it.
struct StaticFolder {
    StaticFolder() {
        base = std::filesystem::temp_directory_path() / ("korvane-host-test-" + std::to_string(::getpid()) + "-" +
                                                         std::to_string(reinterpret_cast<std::uintptr_t>(this)));
        root = base / "www";
        std::filesystem::create_directories(root / "sub");
        std::filesystem::create_directories(root / "bayeux");
        std::filesystem::create_directories(base / "vendor");
        for (const char* name : {"index.html", "app.js", "lib.mjs", "style.css", "data.json", "logo.png", "icon.svg",
                                 "favicon.ico", "notes.txt", "app.js.map", "blob.bin", "sub/index.html",
                                 "bayeux/index.html"}) {
            write(root / name, std::string("content of ") + name);
        }
        write(base / "vendor" / "cometd.js", "vendor script");
        write(base / "secret.txt", "secret");
        std::filesystem::create_symlink(base / "secret.txt", root / "leak.txt");
    }
    ~StaticFolder() { std::filesystem::remove_all(base); }

    static void write(const std::filesystem::path& path, const std::string& text) { std::ofstream(path) << text; }

    std::filesystem::path base;
    std::filesystem::path root;
};

struct HttpServerFixture {
    HttpServerFixture() {
        registry->add(Address("bayeux"), service);
        registry->startAll();
    }
    ~HttpServerFixture() { registry->stopAll(); }

    HttpServerOptions defaults() const {
        HttpServerOptions options;
        options.listen = "127.0.0.1:0";
        options.bayeuxAddress = Address("bayeux");
        options.threads = 2;
        return options;
    }
    HttpServerOptions secure() const {
        HttpServerOptions options = defaults();
        options.tlsCert = test::certificate().cert;
        options.tlsKey = test::certificate().key;
        return options;
    }
    std::unique_ptr<HttpServer> launch(HttpServerOptions options) {
        auto launched = std::make_unique<HttpServer>(std::move(options), registry);
        launched->start();
        return launched;
    }
    HttpServer& start(HttpServerOptions options) {
        server = launch(std::move(options));
        return *server;
    }
    unsigned short port() const { return server->port(); }

    std::shared_ptr<ServiceRegistry> registry = std::make_shared<ServiceRegistry>();
    std::shared_ptr<FakeBayeuxService> service = std::make_shared<FakeBayeuxService>();
    std::unique_ptr<HttpServer> server;
};

struct HttpServerTest : ::testing::Test, HttpServerFixture {};

// A response as lines: "status <code>", "<header>: <value>" for each header, "body <text>".
std::vector<std::string> linesOf(const ClientResponse& response) {
    std::vector<std::string> lines{"status " + std::to_string(response.status)};
    for (const auto& [name, value] : response.headers) {
        lines.push_back(name + ": " + value);
    }
    lines.push_back("body " + response.body);
    return lines;
}

// Each row a request on a connection of its own and lines its response has: as they are, or
// containing what follows a "~", or none starting with the header named after a "no ".
TEST_F(HttpServerTest, AnswersEachRequestAsItsPathFilesLimitsAndOriginSay) {
    StaticFolder folder;
    HttpServerOptions options = defaults();
    options.staticRoot = folder.root.string();
    options.staticMounts = {{"/vendor/cometd", (folder.base / "vendor").string()}};
    options.maxBodyBytes = 1000;
    options.maxHeaderBytes = 2048;
    options.headerTimeout = 300ms;
    options.allowOrigins = {"https://app.example"};
    start(options);
    HttpTestClient slow(port());
    slow.sendRaw("GET /index.html HTTP/1.1\r\nHost: 127.0.0.1\r\n");
    const ClientResponse app = HttpTestClient(port()).request("GET", "/app.js");
    const std::string etag = app.header("etag"), modified = app.header("last-modified");
    ASSERT_FALSE(etag.empty() || modified.empty());
    const std::string html = "content-type: text/html; charset=utf-8";
    const std::string js = "content-type: text/javascript; charset=utf-8";
    const std::string listed = "https://app.example", cors = "access-control-allow-origin: https://app.example";
    struct Row {
        std::string method, target;
        test::HeaderList headers;
        std::string body;
        std::vector<std::string> lines;
    };
    const Row rows[] = {
        // The Bayeux path, whole, to the service and never to disk; a path that only starts like it is not it.
        {"POST", "/bayeux/fail", {}, "x",
         {"status 500", "content-type: text/plain; charset=utf-8", "body the service broke down"}},
        {"GET", "/bayeux/index.html", {}, "", {"status 200", "~body get /bayeux/index.html session="}},
        {"GET", "/bayeuxfoo", {}, "", {"status 404"}},
        {"POST", "/index.html", {}, "x", {"status 405"}},
        // Limits: the body's and the header's, each at its bound and one past it; no request at all.
        {"POST", "/bayeux", {}, std::string(1000, 'x'), {"status 200"}},
        {"POST", "/bayeux", {}, std::string(1001, 'x'), {"status 413"}},
        {"POST", "/bayeux", {{"Content-Length", "5000000"}}, "", {"status 413"}},
        {"GET", "/bayeux", {{"X-Filler", std::string(1900, 'f')}}, "", {"status 200"}},
        {"GET", "/bayeux", {{"X-Filler", std::string(3000, 'f')}}, "", {"status 431"}},
        {"", "NOT A REQUEST\r\n\r\n", {}, "", {"status 400"}},
        // Files by their type, inside their folders only.
        {"GET", "/", {}, "", {"status 200", html, "body content of index.html"}},
        {"GET", "/index.html?v=2", {}, "", {"status 200", html, "body content of index.html"}},
        {"GET", "/sub/", {}, "", {"status 200", html, "body content of sub/index.html"}},
        {"GET", "/app.js", {}, "", {"status 200", js, "content-length: 17", "body content of app.js"}},
        {"GET", "/lib.mjs", {}, "", {"status 200", js}},
        {"GET", "/style.css", {}, "", {"status 200", "content-type: text/css; charset=utf-8"}},
        {"GET", "/data.json", {}, "", {"status 200", "content-type: application/json"}},
        {"GET", "/logo.png", {}, "", {"status 200", "content-type: image/png"}},
        {"GET", "/icon.svg", {}, "", {"status 200", "content-type: image/svg+xml"}},
        {"GET", "/favicon.ico", {}, "", {"status 200", "content-type: image/x-icon"}},
        {"GET", "/notes.txt", {}, "", {"status 200", "content-type: text/plain; charset=utf-8"}},
        {"GET", "/app.js.map", {}, "", {"status 200", "content-type: application/json"}},
        {"GET", "/blob.bin", {}, "", {"status 200", "content-type: application/octet-stream"}},
        {"GET", "/vendor/cometd/cometd.js", {}, "", {"status 200", js, "body vendor script"}},
        {"HEAD", "/app.js", {}, "", {"status 200", "content-length: 17", "body "}},
        {"GET", "/missing.js", {}, "", {"status 404"}},
        {"GET", "/../secret.txt", {}, "", {"status 404"}},
        {"GET", "/sub/../../secret.txt", {}, "", {"status 404"}},
        {"GET", "/%2e%2e/secret.txt", {}, "", {"status 404"}},
        {"GET", "/sub/%2E%2E%2F%2e%2e%2fsecret.txt", {}, "", {"status 404"}},
        {"GET", "/leak.txt", {}, "", {"status 404"}},
        {"GET", "/vendor/cometd/../www/index.html", {}, "", {"status 404"}},
        {"GET", "/bad%zzescape", {}, "", {"status 404"}},
        // Conditional requests: a match of either validator, the tag winning when both are sent.
        {"GET", "/app.js", {{"If-None-Match", etag}}, "", {"status 304", "body "}},
        {"GET", "/app.js", {{"If-None-Match", "\"other\", " + etag}}, "", {"status 304", "body "}},
        {"GET", "/app.js", {{"If-None-Match", "\"other\""}}, "", {"status 200", "body content of app.js"}},
        {"GET", "/app.js", {{"If-Modified-Since", modified}}, "", {"status 304", "body "}},
        {"GET", "/app.js", {{"If-Modified-Since", "Thu, 01 Jan 1970 00:00:00 GMT"}}, "", {"status 200"}},
        {"GET", "/app.js", {{"If-None-Match", "\"other\""}, {"If-Modified-Since", modified}}, "", {"status 200"}},
        // Cross-origin requests: a listed origin's preflight and requests are answered; another's are the service's.
        {"OPTIONS", "/bayeux/handshake",
         {{"Origin", listed}, {"Access-Control-Request-Method", "POST"},
          {"Access-Control-Request-Headers", "x-custom"}},
         "",
         {"status 204", cors, "access-control-allow-credentials: true",
          "access-control-allow-methods: POST, GET, OPTIONS", "access-control-allow-headers: x-custom",
          "access-control-max-age: 86400"}},
        {"OPTIONS", "/bayeux", {{"Origin", listed}}, "", {"status 204", "access-control-allow-headers: Content-Type"}},
        {"POST", "/bayeux", {{"Origin", listed}}, "x", {"status 200", cors, "vary: Origin"}},
        {"POST", "/bayeux", {{"Origin", "https://evil.example"}}, "x",
         {"status 200", "no access-control-allow-origin", "no vary"}},
        {"OPTIONS", "/bayeux", {{"Origin", "https://evil.example"}}, "", {"~body options /bayeux session="}},
    };
    for (const Row& row : rows) {
        HttpTestClient client(port());
        if (row.method.empty()) {
            client.sendRaw(row.target);
        }
        const std::vector<std::string> lines = linesOf(
            row.method.empty() ? client.read() : client.request(row.method, row.target, row.headers, row.body));
        for (const std::string& expected : row.lines) {
            const bool absent = expected.rfind("no ", 0) == 0, within = expected[0] == '~';
            const bool found = std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
                return absent ? line.rfind(expected.substr(3) + ":", 0) == 0
                              : within ? line.find(expected.substr(1)) != std::string::npos : line == expected;
            });
            EXPECT_NE(found, absent) << row.method << " " << row.target.substr(0, 40) << ": " << expected << " in\n"
                                     << ::testing::PrintToString(lines).substr(0, 600);
        }
    }
    EXPECT_TRUE(slow.closedByServer(5s)) << "a trickled request holds its connection";
}

TEST_F(HttpServerTest, AnswersPipelinedRequestsInOrderAndAnExpectedBodyAfterTheGoAhead) {
    start(defaults());
    EXPECT_EQ(server->url(), "http://127.0.0.1:" + std::to_string(port()) + "/");
    HttpTestClient client(port());
    client.sendRaw(HttpTestClient::format("POST", "/bayeux/handshake", {}, "[{\"a\":1}]") +
                   HttpTestClient::format("POST", "/bayeux/connect", {}, "second") +
                   HttpTestClient::format("GET", "/bayeux?jsonp=x"));
    for (const char* expected : {R"(post /bayeux/handshake session=\w+ body=\[\{"a":1\}\])",
                                 R"(post /bayeux/connect session=\w+ body=second)",
                                 R"(get /bayeux\?jsonp=x session=\w+ body=)"}) {
        ClientResponse response = client.read();
        EXPECT_FALSE(response.chunked);
        EXPECT_EQ(response.header("content-length"), std::to_string(response.body.size()));
        EXPECT_THAT(response.body, ::testing::ContainsRegex(expected));
    }
    EXPECT_EQ(client.request("POST", "/bayeux/fail", {}, "x").status, 500) << "and the connection stays open";
    client.sendRaw("POST /bayeux HTTP/1.1\r\nHost: a\r\nExpect: 100-continue\r\nContent-Length: 5\r\n\r\n");
    EXPECT_EQ(client.read().status, 100);
    client.sendRaw("later");
    EXPECT_THAT(client.read().body, HasSubstr("body=later"));
}

TEST_F(HttpServerTest, StreamsABodyChunkedWithTheHeadersFirstAndCancelsItWhenTheClientGoes) {
    for (const bool tls : {false, true}) {
        SCOPED_TRACE(tls ? "https" : "http");
        start(tls ? secure() : defaults());
        const int finishedBefore = tls ? 3 : 0;
        HttpTestClient client(port(), tls);
        client.sendRaw(HttpTestClient::format("POST", "/bayeux/stream", {}, "[{}]"));
        std::shared_ptr<BodyStream> body = service->waitForStream();
        ASSERT_NE(body, nullptr);
        // The headers leave before the first chunk exists.
        ClientResponse head = client.readHeader();
        EXPECT_EQ(head.status, 200);
        EXPECT_TRUE(head.chunked);
        EXPECT_EQ(head.header("content-type"), "application/json");
        // Chunks come from another thread, each its own chunk on the wire; an empty one is skipped.
        std::thread feeder([body] {
            body->publish(DataBuffer("[{\"first\":1}"));
            body->publish(DataBuffer(""));
            body->publish(DataBuffer(",{\"second\":2}]"));
            body->finish();
        });
        EXPECT_EQ(client.readChunk(), "[{\"first\":1}");
        EXPECT_EQ(client.readChunk(), ",{\"second\":2}]");
        EXPECT_EQ(client.readChunk(), std::nullopt);
        feeder.join();
        EXPECT_TRUE(service->waitForFinished(finishedBefore + 1));

        // A request pipelined behind a held stream waits for it, then is answered; a client
        // that goes away while its stream is held cancels the stream.
        client.sendRaw(HttpTestClient::format("POST", "/bayeux/stream") +
                       HttpTestClient::format("GET", "/bayeux/next"));
        std::shared_ptr<BodyStream> held = service->waitForStream();
        ASSERT_NE(held, nullptr);
        EXPECT_TRUE(client.readHeader().chunked);
        held->publish(DataBuffer("only"));
        held->finish();
        EXPECT_EQ(client.readChunk(), "only");
        EXPECT_EQ(client.readChunk(), std::nullopt);
        EXPECT_THAT(client.read().body, HasSubstr("get /bayeux/next"));
        EXPECT_TRUE(service->waitForFinished(finishedBefore + 2));

        client.sendRaw(HttpTestClient::format("POST", "/bayeux/stream"));
        std::shared_ptr<BodyStream> abandoned = service->waitForStream();
        ASSERT_NE(abandoned, nullptr);
        client.readHeader();
        client.close();
        EXPECT_TRUE(service->waitForFinished(finishedBefore + 3)) << "the held stream was not cancelled";
        EXPECT_FALSE(abandoned->getFuture().get()) << "cancelled, not completed";
    }
}

TEST_F(HttpServerTest, ClosesConnectionsBeyondTheLimitAtOnce) {
    HttpServerOptions options = defaults();
    options.maxConnections = 2;
    start(options);
    auto first = std::make_unique<HttpTestClient>(port());
    HttpTestClient second(port());
    EXPECT_EQ(first->request("GET", "/bayeux").status, 200);
    EXPECT_EQ(second.request("GET", "/bayeux").status, 200);
    HttpTestClient third(port());
    EXPECT_TRUE(third.closedByServer(5s));
    EXPECT_EQ(second.request("GET", "/bayeux").status, 200);
    // Once one goes, a new one is served.
    first->close();
    first.reset();
    int status = 0;
    for (int attempt = 0; attempt < 100 && status != 200; ++attempt) {
        try {
            HttpTestClient retry(port());
            status = retry.request("GET", "/bayeux").status;
        } catch (const std::runtime_error&) {
            std::this_thread::sleep_for(20ms);
        }
    }
    EXPECT_EQ(status, 200);
}

TEST_F(HttpServerTest, GivesEachBrowserASessionCookieOnce) {
    HttpServerOptions options = defaults();
    options.cookieName = "sid";
    start(options);
    HttpTestClient client(port());
    ClientResponse first = client.request("GET", "/bayeux");
    const std::string cookie = first.header("set-cookie");
    EXPECT_THAT(cookie, MatchesRegex("sid=[0-9a-f]{32}; Path=/; HttpOnly; SameSite=Lax"));
    const std::string session = cookie.substr(4, 32);
    EXPECT_THAT(first.body, HasSubstr("session=" + session));

    ClientResponse again = client.request("GET", "/bayeux", {{"Cookie", "theme=dark; sid=" + session}});
    EXPECT_EQ(again.header("set-cookie"), "");
    EXPECT_THAT(again.body, HasSubstr("session=" + session));

    // A forged value is not taken; every browser without the cookie gets its own.
    ClientResponse forged = client.request("GET", "/bayeux", {{"Cookie", "sid=not-a-session"}});
    EXPECT_THAT(forged.header("set-cookie"), Not(HasSubstr(session)));
    EXPECT_THAT(forged.header("set-cookie"), HasSubstr("sid="));
    HttpTestClient other(port());
    EXPECT_THAT(other.request("GET", "/bayeux").header("set-cookie"), Not(HasSubstr(session)));
}

TEST_F(HttpServerTest, ServesHttpsWithASecureCookieAndRefusesAKeyItCannotRead) {
    start(secure());
    EXPECT_EQ(server->url(), "https://127.0.0.1:" + std::to_string(port()) + "/");
    EXPECT_THAT(HttpTestClient(port(), true).request("GET", "/bayeux").header("set-cookie"), HasSubstr("; Secure"));
    HttpServerOptions broken = secure();
    broken.tlsKey = test::certificate().key + ".missing";
    EXPECT_THROW(HttpServer(broken, registry).start(), std::runtime_error);
}

using FrameReader = test_support::RecordingSubscriber<http::WebSocketFrame>;

// Both ends of an open client WebSocket, joined to the test's reader and writer.
struct OpenSocket {
    std::shared_ptr<FrameReader> reader =
        std::make_shared<FrameReader>(0, 0, [](const http::WebSocketFrame& frame) { return frame.data.str(); });
    std::shared_ptr<std::atomic<bool>> writerEnded = std::make_shared<std::atomic<bool>>(false);
    std::shared_ptr<FrameStream> writer = std::make_shared<FrameStream>([ended = writerEnded] { *ended = true; });

    void send(const std::string& text) { writer->publish(http::WebSocketFrame(DataBuffer(text), 129)); }
    std::vector<std::string> waitForTexts(std::size_t count) {
        reader->waitFor([count](FrameReader& r) { return r.seen().size() >= count; }, 10s);
        return reader->seen();
    }
    // How the reader's stream ended ("complete" or "error <text>"), or "" when the wait gave up.
    std::string waitForEnd() {
        reader->waitFor([](FrameReader& r) { return r.count("complete") + r.count("error") > 0; }, 10s);
        const auto events = reader->events();
        return events.back().rfind("next ", 0) == 0 || events.back() == "subscribe" ? "" : events.back();
    }
    // Whether the client cancelled the writer: told it that the socket is gone.
    bool writerCancelled() {
        const auto end = std::chrono::steady_clock::now() + 10s;
        while (!*writerEnded && std::chrono::steady_clock::now() < end) {
            std::this_thread::sleep_for(1ms);
        }
        return *writerEnded && !writer->getFuture().get();
    }
};

// The outbound client against this server, plain and over TLS.
struct HttpClientTest : HttpServerTest {
    void SetUp() override {
        HttpClientOptions options;
        options.threadCount = 2;
        options.extraCaFile = test::certificate().cert;
        useClient(options);
    }
    void useClient(HttpClientOptions options) {
        clients = std::make_shared<ServiceRegistry>();
        clients->add(kClientAddress, std::make_shared<HttpClientServiceProvider>(std::move(options)));
        clients->startAll();
    }
    // "http://host:port/" gives "ws://host:port<path>", "https://..." gives "wss://...".
    static std::string wsUrl(const HttpServer& server, const std::string& path) {
        const std::string url = server.url();
        return "ws" + url.substr(4, url.size() - 5) + path;
    }
    Future<std::unique_ptr<http::WebSocket>> open(const std::string& url, http::Headers headers = {},
                                                  const std::string& method = "get") {
        auto request = std::make_unique<http::HttpClientRequest>(url, method, nullptr);
        request->headers = std::move(headers);
        return HostContext::create(clients)->handle<http::WebSocket, http::HttpClientRequest>(
            std::move(request), Address(kClientAddress));
    }
    OpenSocket connect(const std::string& url, http::Headers headers = {}) {
        OpenSocket socket;
        std::unique_ptr<http::WebSocket> webSocket = open(url, std::move(headers)).get();
        webSocket->inbound->subscribe(socket.reader);
        socket.writer->subscribe(webSocket->outbound);
        socket.reader->waitFor([](FrameReader& r) { return r.count("subscribe") == 1; }, 10s);
        return socket;
    }
    std::string failureOf(const std::string& url, http::Headers headers = {}, const std::string& method = "get") {
        return test_support::errorOf([&] { open(url, std::move(headers), method).get(); });
    }

    static inline const Address kClientAddress{"/http/client"};
    std::shared_ptr<ServiceRegistry> clients;
};
using HttpClientConcurrency = HttpClientTest;

TEST_F(HttpClientTest, ExchangesFramesInOrderOnDemandOverWsAndWssWithTheRequestsHeadersAndEndsWithTheWriter) {
    int finished = 0;
    for (const HttpServerOptions& options : {defaults(), secure()}) {
        SCOPED_TRACE(options.tlsCert.empty() ? "ws" : "wss");
        start(options);
        OpenSocket socket = connect(wsUrl(*server, "/bayeux?x=1"),
                                    {{"connection", "upgrade"}, {"upgrade", "websocket"}, {"tvapikey", "k1"}});
        socket.reader->request(1);
        for (const char* text : {"one", "two", "three"}) {
            socket.send(text);
        }
        EXPECT_EQ(socket.waitForTexts(1), std::vector<std::string>{"one"});
        // The echoes of the other two are on their way; a client that read without demand would hand them over now.
        std::this_thread::sleep_for(100ms);
        EXPECT_EQ(socket.reader->seen(), std::vector<std::string>{"one"});
        socket.reader->request(2);
        EXPECT_EQ(socket.waitForTexts(3), (std::vector<std::string>{"one", "two", "three"}));
        EXPECT_TRUE(socket.reader->read([](auto& frames) {
            return std::all_of(frames.begin(), frames.end(), [](auto& frame) { return frame.firstByte == 129; });
        }));
        socket.writer->finish();
        EXPECT_EQ(socket.waitForEnd(), "complete");
        EXPECT_TRUE(service->waitForFinished(++finished));

        std::lock_guard<std::mutex> guard(service->mutex);
        const http::Headers& headers = service->upgrades.back();
        ASSERT_EQ(headers.count("tvapikey"), 1u);
        EXPECT_EQ(headers.find("tvapikey")->second, "k1");
        // The upgrade's own headers are sent once, by the upgrade, not again from the request.
        EXPECT_EQ(headers.count("upgrade"), 1u);
        EXPECT_EQ(headers.count("connection"), 1u);
        EXPECT_EQ(headers.find("host")->second, "127.0.0.1:" + std::to_string(port()));
    }
}

TEST_F(HttpClientTest, EndsBothStreamsWhenEitherSideCloses) {
    struct Row {
        const char* how;
        std::size_t backlog;
        std::function<void(OpenSocket&)> act;
        const char* readerEnd;  // a prefix
    };
    const std::vector<Row> rows = {
        // A backlog of the echo's 4 bytes holds it; one byte less cuts the connection without a close frame.
        {"server ends its frames", 4, [](OpenSocket& s) { s.send("echo"), s.send("finish"); },
         "complete"},
        {"server fails its frames", 1 << 20, [](OpenSocket& s) { s.send("fail"); }, "complete"},
        {"server cuts TCP past its backlog", 3, [](OpenSocket& s) { s.send("echo"); },
         "error WebSocket connection to ws://127.0.0.1:"},
        // The reader takes five frames, then nothing until the end: the server's writes stall past the write timeout.
        {"server cuts TCP past its write timeout", std::size_t{1} << 30,
         [](OpenSocket& s) {
             for (int frame = 0; frame < 64; ++frame) {
                 s.send(std::string(256 << 10, 'x'));
             }
         },
         "error WebSocket connection to ws://127.0.0.1:"},
        {"reader cancels", 1 << 20, [](OpenSocket& s) { s.reader->cancel(); }, ""},
        {"writer fails", 1 << 20,
         [](OpenSocket& s) { s.writer->setError(std::make_exception_ptr(std::runtime_error("broke"))); },
         "complete"},
    };
    int finished = 0;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.how);
        HttpServerOptions options = defaults();
        options.wsBacklogBytes = row.backlog;
        options.writeTimeout = 300ms;
        start(options);
        OpenSocket socket = connect(wsUrl(*server, "/bayeux"));
        socket.reader->request(5);
        row.act(socket);
        EXPECT_TRUE(service->waitForFinished(++finished)) << "the server's socket stayed open";
        socket.reader->request(1000);  // reads what the server wrote before it went
        if (*row.readerEnd != '\0') {
            EXPECT_THAT(socket.waitForEnd(), ::testing::StartsWith(row.readerEnd));
        }
        // The writer is told that the socket is gone, or already ended itself.
        EXPECT_TRUE(std::string(row.how) == "writer fails" || socket.writerCancelled());
    }
}

TEST_F(HttpClientTest, FailsWithATextThatNamesTheCause) {
    start(defaults());
    std::unique_ptr<HttpServer> tls = launch(secure());
    const std::string plain = wsUrl(*server, "/bayeux");
    const std::string securePort = std::to_string(tls->port());
    std::string closedPort;
    {
        boost::asio::io_context io;
        boost::asio::ip::tcp::acceptor probe(io, {boost::asio::ip::make_address("127.0.0.1"), 0});
        closedPort = std::to_string(probe.local_endpoint().port());
    }
    struct Row {
        std::string url;
        http::Headers headers;
        std::string method;
        std::string failure;  // a prefix
    };
    const std::vector<Row> rows = {
        {"http://127.0.0.1/x", {}, "get",
         "Unsupported URL scheme \"http\" in http://127.0.0.1/x: only ws and wss are supported"},
        {"127.0.0.1:80/x", {}, "get", "Malformed WebSocket URL: 127.0.0.1:80/x"},
        {"ws:///x", {}, "get", "Malformed WebSocket URL: ws:///x"},
        {"ws://127.0.0.1:99999/x", {}, "get", "Malformed WebSocket URL: ws://127.0.0.1:99999/x"},
        {"ws://[::1/x", {}, "get", "Malformed WebSocket URL: ws://[::1/x"},
        {plain, {}, "post", "A WebSocket upgrade is a get request, not post: " + plain},
        {"ws://no-such-host.invalid/x", {}, "get", "Unable to resolve host name no-such-host.invalid: "},
        {"ws://127.0.0.1:" + closedPort + "/x", {}, "get",
         "Unable to connect to 127.0.0.1:" + closedPort + ": Connection refused"},
        {plain, {{"origin", "https://evil.example"}}, "get", "WebSocket upgrade refused by " + plain + ": HTTP 403"},
        {"wss://localhost:" + securePort + "/bayeux", {}, "get",
         "TLS certificate of localhost:" + securePort + " is not trusted: hostname mismatch"},
    };
    for (const Row& row : rows) {
        EXPECT_THAT(failureOf(row.url, row.headers, row.method), ::testing::StartsWith(row.failure)) << row.url;
    }
    useClient(HttpClientOptions());
    EXPECT_EQ(failureOf(wsUrl(*tls, "/bayeux")),
              "TLS certificate of 127.0.0.1:" + securePort + " is not trusted: self-signed certificate");
}

TEST_F(HttpClientTest, StoppingTheServiceEndsOpenSocketsAndUpgradesInProgress) {
    start(defaults());
    OpenSocket socket = connect(wsUrl(*server, "/bayeux"));
    socket.reader->request(5);
    socket.send("hello");
    ASSERT_EQ(socket.waitForTexts(1), std::vector<std::string>{"hello"});
    // A listener that never answers holds the next upgrade in progress.
    boost::asio::io_context io;
    boost::asio::ip::tcp::acceptor silent(io, {boost::asio::ip::make_address("127.0.0.1"), 0});
    Future<std::unique_ptr<http::WebSocket>> hanging =
        open("ws://127.0.0.1:" + std::to_string(silent.local_endpoint().port()) + "/x");
    std::this_thread::sleep_for(50ms);

    clients.reset();
    EXPECT_EQ(socket.waitForEnd(), "error The HTTP client service stopped");
    EXPECT_EQ(test_support::errorOf([&] { hanging.get(); }), "The HTTP client service stopped");
    EXPECT_TRUE(service->waitForFinished(1)) << "the server's socket stayed open";
    EXPECT_TRUE(socket.writerCancelled());
    // Calls from the library after the service is gone find no I/O and are dropped.
    socket.reader->request(1);
    socket.writer->finish();
    EXPECT_EQ(socket.reader->seen().size(), 1u);
}

TEST_F(HttpClientTest, StopEndsHeldStreamsAndWebSocketsAndRefusesABusyPort) {
    start(defaults());
    HttpServerOptions clash = defaults();
    clash.listen = "127.0.0.1:" + std::to_string(port());
    HttpServer second(clash, registry);
    try {
        second.start();
        ADD_FAILURE() << "bound a port in use";
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), HasSubstr("Cannot listen on 127.0.0.1:" + std::to_string(port())));
    }

    HttpTestClient held(port());
    held.sendRaw(HttpTestClient::format("POST", "/bayeux/stream"));
    std::shared_ptr<BodyStream> body = service->waitForStream();
    ASSERT_NE(body, nullptr);
    held.readHeader();
    OpenSocket socket = connect(wsUrl(*server, "/bayeux"));
    socket.reader->request(1);
    HttpTestClient idle(port());
    EXPECT_EQ(idle.request("GET", "/bayeux").status, 200);

    server->stop();
    EXPECT_EQ(socket.waitForEnd(), "complete");
    EXPECT_TRUE(held.closedByServer(5s));
    EXPECT_TRUE(idle.closedByServer(5s));
    EXPECT_TRUE(service->waitForFinished(2)) << "the held body and the socket's frames were not ended";
    EXPECT_FALSE(body->getFuture().get());
    server->stop();
}

TEST_F(HttpClientConcurrency, ManyConnectionsFromSeveralThreadsExchangeInOrder) {
    start(defaults());
    std::unique_ptr<HttpServer> tls = launch(secure());
    constexpr int kMessages = 20;
    auto converse = [&](int thread) {
        HttpTestClient http(port());
        for (int index = 0; index < 3; ++index) {
            OpenSocket socket = connect(wsUrl((thread + index) % 2 == 0 ? *server : *tls, "/bayeux"));
            std::thread reader([&] {
                for (int message = 0; message < kMessages; ++message) {
                    socket.reader->request(1);
                }
            });
            std::vector<std::string> expected;
            for (int message = 0; message < kMessages; ++message) {
                expected.push_back(std::to_string(thread) + "/" + std::to_string(index) + "/" + std::to_string(message));
                socket.send(expected.back());
            }
            // Requests pipelined on a plain connection alongside.
            const std::string tag = std::to_string(thread) + "-" + std::to_string(index);
            http.sendRaw(HttpTestClient::format("POST", "/bayeux/a", {}, tag + "a") +
                         HttpTestClient::format("POST", "/bayeux/b", {}, tag + "b"));
            EXPECT_THAT(http.read().body, HasSubstr("body=" + tag + "a"));
            EXPECT_THAT(http.read().body, HasSubstr("body=" + tag + "b"));
            reader.join();
            EXPECT_EQ(socket.waitForTexts(kMessages), expected);
            if (index % 2 == 0) {
                socket.writer->finish();
                EXPECT_EQ(socket.waitForEnd(), "complete");
            } else {
                socket.reader->cancel();
                EXPECT_TRUE(socket.writerCancelled());
            }
        }
    };
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back(converse, thread);
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

}  // namespace
}  // namespace korvane::host
