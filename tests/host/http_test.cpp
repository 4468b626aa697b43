#include "korvane/host/http_client.h"
#include "korvane/host/http_server.h"

#include <gmock/gmock.h>

#include <algorithm>
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
#include "korvane/frame/one_shot_publisher.h"
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
using test::WebSocketTestClient;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;

using BodyStream = reactive_streams::CachedValuePublisher<DataBuffer, std::function<void()>>;
using FrameStream = reactive_streams::CachedValuePublisher<http::WebSocketFrame, std::function<void()>>;

std::string sessionOf(const std::shared_ptr<Context>& context) {
    return context->has("sessionId") ? boost::any_cast<std::string>(context->get("sessionId")) : "(none)";
}

Future<std::unique_ptr<Message>> respond(unsigned short status, const std::string& text) {
    std::unique_ptr<Message> response = std::make_unique<http::HttpResponse>(
        status, http::Headers{{"Content-Type", "text/plain"}}, http::Headers(),
        std::make_shared<reactive_streams::OneShotPublisher<DataBuffer>>(DataBuffer(text)));
    return makeReadyFuture(std::move(response));
}

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
        std::string heading = request->method + " " + request->target + " session=" + sessionOf(context) + " body=";
        return reactive_streams::reduce<DataBuffer, DataBuffer>(
                   request->body,
                   [](DataBuffer&& chunk, DataBuffer&& whole) {
                       whole.append(chunk);
                       return std::move(whole);
                   },
                   DataBuffer())
            .then([heading](Future<DataBuffer>&& body) { return respond(200, heading + body.get().str()).get(); });
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

TEST_F(HttpServerTest, RoutesTheBayeuxPathAndAnswersPipelinedRequestsInOrder) {
    start(defaults());
    EXPECT_EQ(server->url(), "http://127.0.0.1:" + std::to_string(port()) + "/");
    HttpTestClient client(port());
    client.sendRaw(HttpTestClient::format("POST", "/bayeux/handshake", {}, "[{\"a\":1}]") +
                   HttpTestClient::format("POST", "/bayeux/connect", {}, "second") +
                   HttpTestClient::format("GET", "/bayeux?jsonp=x"));
    const char* expected[] = {"post /bayeux/handshake session=", "post /bayeux/connect session=",
                              "get /bayeux?jsonp=x session="};
    const char* bodies[] = {"body=[{\"a\":1}]", "body=second", "body="};
    for (int i = 0; i < 3; ++i) {
        ClientResponse response = client.read();
        EXPECT_EQ(response.status, 200);
        EXPECT_FALSE(response.chunked);
        EXPECT_EQ(response.header("content-length"), std::to_string(response.body.size()));
        EXPECT_THAT(response.body, HasSubstr(expected[i]));
        EXPECT_THAT(response.body, HasSubstr(bodies[i]));
    }
    // The connection stays open for more; a failed answer is a 500 with its text.
    ClientResponse failed = client.request("POST", "/bayeux/fail", {}, "x");
    EXPECT_EQ(failed.status, 500);
    EXPECT_EQ(failed.body, "the service broke down");
    EXPECT_THAT(failed.header("content-type"), HasSubstr("text/plain"));
    // Paths that only start like the Bayeux path are not it.
    EXPECT_EQ(client.request("GET", "/bayeuxfoo").status, 404);
    // A client that asks before sending its body gets the go-ahead first.
    client.sendRaw("POST /bayeux HTTP/1.1\r\nHost: a\r\nExpect: 100-continue\r\nContent-Length: 5\r\n\r\n");
    EXPECT_EQ(client.read().status, 100);
    client.sendRaw("later");
    EXPECT_THAT(client.read().body, HasSubstr("body=later"));
}

TEST_F(HttpServerTest, StreamsABodyChunkedWithTheHeadersFirstAndCancelsItWhenTheClientGoes) {
    start(defaults());
    HttpTestClient client(port());
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
    EXPECT_TRUE(service->waitForFinished(1));

    // A request pipelined behind a held stream waits for it, then is answered; a client
    // that goes away while its stream is held cancels the stream.
    client.sendRaw(HttpTestClient::format("POST", "/bayeux/stream") + HttpTestClient::format("GET", "/bayeux/next"));
    std::shared_ptr<BodyStream> held = service->waitForStream();
    ASSERT_NE(held, nullptr);
    EXPECT_TRUE(client.readHeader().chunked);
    held->publish(DataBuffer("only"));
    held->finish();
    EXPECT_EQ(client.readChunk(), "only");
    EXPECT_EQ(client.readChunk(), std::nullopt);
    EXPECT_THAT(client.read().body, HasSubstr("get /bayeux/next"));
    EXPECT_TRUE(service->waitForFinished(2));

    client.sendRaw(HttpTestClient::format("POST", "/bayeux/stream"));
    std::shared_ptr<BodyStream> abandoned = service->waitForStream();
    ASSERT_NE(abandoned, nullptr);
    client.readHeader();
    client.close();
    EXPECT_TRUE(service->waitForFinished(3)) << "the held stream was not cancelled";
    EXPECT_FALSE(abandoned->getFuture().get()) << "cancelled, not completed";
}

TEST_F(HttpServerTest, RefusesOversizedAndSlowRequestsWhileServingOthers) {
    HttpServerOptions options = defaults();
    options.maxBodyBytes = 1000;
    options.maxHeaderBytes = 2048;
    options.headerTimeout = 300ms;
    start(options);
    HttpTestClient slow(port());
    slow.sendRaw("GET /index.html HTTP/1.1\r\nHost: 127.0.0.1\r\n");

    struct Case {
        std::string request;
        int status;
    } cases[] = {
        {HttpTestClient::format("POST", "/bayeux", {}, std::string(1000, 'x')), 200},
        {HttpTestClient::format("POST", "/bayeux", {}, std::string(1001, 'x')), 413},
        {"POST /bayeux HTTP/1.1\r\nHost: a\r\nContent-Length: 5000000\r\n\r\n", 413},
        {HttpTestClient::format("GET", "/bayeux", {{"X-Filler", std::string(1900, 'f')}}), 200},
        {HttpTestClient::format("GET", "/bayeux", {{"X-Filler", std::string(3000, 'f')}}), 431},
        {"NOT A REQUEST\r\n\r\n", 400},
    };
    for (const Case& c : cases) {
        HttpTestClient client(port());
        client.sendRaw(c.request);
        EXPECT_EQ(client.read().status, c.status) << c.request.substr(0, 60);
    }
    EXPECT_TRUE(slow.closedByServer(5s)) << "a trickled request holds its connection";
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

TEST_F(HttpServerTest, ServesStaticFilesInsideTheirFoldersOnly) {
    StaticFolder folder;
    HttpServerOptions options = defaults();
    options.staticRoot = folder.root.string();
    options.staticMounts = {{"/vendor/cometd", (folder.base / "vendor").string()}};
    start(options);
    HttpTestClient client(port());
    struct Case {
        std::string target;
        int status;
        std::string contentType;
        std::string body;
    } cases[] = {
        {"/", 200, "text/html; charset=utf-8", "content of index.html"},
        {"/index.html?v=2", 200, "text/html; charset=utf-8", "content of index.html"},
        {"/app.js", 200, "text/javascript; charset=utf-8", ""},
        {"/lib.mjs", 200, "text/javascript; charset=utf-8", ""},
        {"/style.css", 200, "text/css; charset=utf-8", ""},
        {"/data.json", 200, "application/json", ""},
        {"/logo.png", 200, "image/png", ""},
        {"/icon.svg", 200, "image/svg+xml", ""},
        {"/favicon.ico", 200, "image/x-icon", ""},
        {"/notes.txt", 200, "text/plain; charset=utf-8", ""},
        {"/app.js.map", 200, "application/json", ""},
        {"/blob.bin", 200, "application/octet-stream", ""},
        {"/sub/", 200, "text/html; charset=utf-8", "content of sub/index.html"},
        {"/vendor/cometd/cometd.js", 200, "text/javascript; charset=utf-8", "vendor script"},
        {"/missing.js", 404, "", ""},
        {"/../secret.txt", 404, "", ""},
        {"/sub/../../secret.txt", 404, "", ""},
        {"/%2e%2e/secret.txt", 404, "", ""},
        {"/sub/%2E%2E%2F%2e%2e%2fsecret.txt", 404, "", ""},
        {"/leak.txt", 404, "", ""},
        {"/vendor/cometd/../www/index.html", 404, "", ""},
        {"/bad%zzescape", 404, "", ""},
    };
    for (const Case& c : cases) {
        ClientResponse response = client.request("GET", c.target);
        EXPECT_EQ(response.status, c.status) << c.target;
        if (c.status == 200) {
            EXPECT_EQ(response.header("content-type"), c.contentType) << c.target;
        }
        if (!c.body.empty()) {
            EXPECT_EQ(response.body, c.body) << c.target;
        }
        EXPECT_THAT(response.body, Not(HasSubstr("secret"))) << c.target;
    }
    // The Bayeux path is never read from disk, even where a folder of that name exists.
    EXPECT_THAT(client.request("GET", "/bayeux/index.html").body, HasSubstr("get /bayeux/index.html"));
    EXPECT_EQ(client.request("POST", "/index.html", {}, "x").status, 405);

    ClientResponse full = client.request("GET", "/app.js");
    ClientResponse head = client.request("HEAD", "/app.js");
    EXPECT_EQ(head.status, 200);
    EXPECT_EQ(head.body, "");
    EXPECT_EQ(head.header("content-length"), std::to_string(full.body.size()));
    const std::string etag = full.header("etag");
    ASSERT_FALSE(etag.empty());
    struct Conditional {
        test::HeaderList headers;
        int status;
    } conditionals[] = {
        {{{"If-None-Match", etag}}, 304},
        {{{"If-None-Match", "\"other\", " + etag}}, 304},
        {{{"If-None-Match", "\"other\""}}, 200},
        {{{"If-Modified-Since", full.header("last-modified")}}, 304},
        {{{"If-Modified-Since", "Thu, 01 Jan 1970 00:00:00 GMT"}}, 200},
        {{{"If-None-Match", "\"other\""}, {"If-Modified-Since", full.header("last-modified")}}, 200},
    };
    for (const Conditional& c : conditionals) {
        ClientResponse response = client.request("GET", "/app.js", c.headers);
        EXPECT_EQ(response.status, c.status) << c.headers.front().second;
        EXPECT_EQ(response.body.empty(), c.status == 304);
    }
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

    // The WebSocket upgrade reads the cookie too, and sets it when absent.
    WebSocketTestClient socket(port(), "/bayeux", {{"Cookie", "sid=" + session}});
    EXPECT_EQ(socket.handshake().header("set-cookie"), "");
    WebSocketTestClient fresh(port(), "/bayeux");
    EXPECT_THAT(fresh.handshake().header("set-cookie"), MatchesRegex("sid=[0-9a-f]{32}; Path=/; HttpOnly; SameSite=Lax"));
}

TEST_F(HttpServerTest, EchoesWebSocketMessagesInOrderAndClosesAsTheServiceOrLimitsSay) {
    HttpServerOptions options = defaults();
    options.maxWsMessageBytes = 4096;
    start(options);
    WebSocketTestClient socket(port(), "/bayeux/");
    EXPECT_EQ(socket.handshake().status, 101);
    for (int i = 0; i < 200; ++i) {
        socket.write("message " + std::to_string(i));
    }
    for (int i = 0; i < 200; ++i) {
        EXPECT_EQ(socket.read(), "message " + std::to_string(i));
    }
    socket.writeFragments({"[{\"chan", "nel\":\"/meta/", "connect\"}]"});
    EXPECT_EQ(socket.read(), "[{\"channel\":\"/meta/connect\"}]");
    socket.write(std::string(4096, 'a'));
    EXPECT_EQ(socket.read(), std::string(4096, 'a'));

    struct Case {
        std::string message;
        int closeCode;
    } cases[] = {
        {std::string(4097, 'a'), 1009},  // over the message limit
        {"finish", 1000},                // the service ended its frames
        {"fail", 1011},                  // the service failed its frames
    };
    for (const Case& c : cases) {
        WebSocketTestClient closing(port(), "/bayeux");
        closing.write(c.message);
        EXPECT_EQ(closing.read(), std::nullopt);
        EXPECT_EQ(closing.closeCode(), c.closeCode) << c.message.substr(0, 10);
    }
    socket.close();
    // Each socket's frame stream ended once it closed.
    EXPECT_TRUE(service->waitForFinished(4));
}

TEST_F(HttpServerTest, AdmitsOnlyItsOwnAndListedOriginsAndAnswersTheirPreflight) {
    HttpServerOptions options = defaults();
    options.allowOrigins = {"https://app.example"};
    start(options);
    const std::string own = "http://127.0.0.1:" + std::to_string(port());
    struct Case {
        test::HeaderList headers;
        int status;
    } upgrades[] = {
        {{}, 101},
        {{{"Origin", own}}, 101},
        {{{"Origin", "https://127.0.0.1:" + std::to_string(port())}}, 101},
        {{{"Origin", "https://app.example"}}, 101},
        {{{"Origin", "https://evil.example"}}, 403},
        {{{"Origin", "http://127.0.0.1:1"}}, 403},
        {{{"Origin", "null"}}, 403},
    };
    for (const Case& c : upgrades) {
        ClientResponse response = WebSocketTestClient::refusedUpgrade(port(), "/bayeux", c.headers);
        EXPECT_EQ(response.status, c.status) << (c.headers.empty() ? "no origin" : c.headers.front().second);
    }

    HttpTestClient client(port());
    ClientResponse preflight = client.request(
        "OPTIONS", "/bayeux/handshake",
        {{"Origin", "https://app.example"}, {"Access-Control-Request-Method", "POST"},
         {"Access-Control-Request-Headers", "content-type, x-custom"}});
    EXPECT_EQ(preflight.status, 204);
    EXPECT_EQ(preflight.header("access-control-allow-origin"), "https://app.example");
    EXPECT_EQ(preflight.header("access-control-allow-credentials"), "true");
    EXPECT_EQ(preflight.header("access-control-allow-methods"), "POST, GET, OPTIONS");
    EXPECT_EQ(preflight.header("access-control-allow-headers"), "content-type, x-custom");
    EXPECT_FALSE(preflight.header("access-control-max-age").empty());

    ClientResponse listed = client.request("POST", "/bayeux", {{"Origin", "https://app.example"}}, "x");
    EXPECT_EQ(listed.header("access-control-allow-origin"), "https://app.example");
    EXPECT_EQ(listed.header("vary"), "Origin");
    ClientResponse other = client.request("POST", "/bayeux", {{"Origin", "https://evil.example"}}, "x");
    EXPECT_EQ(other.header("access-control-allow-origin"), "");
    // A preflight from elsewhere is the service's matter.
    EXPECT_THAT(client.request("OPTIONS", "/bayeux", {{"Origin", "https://evil.example"}}).body,
                HasSubstr("options /bayeux"));
}

TEST_F(HttpServerTest, ServesHttpsAndWssWithASecureCookie) {
    start(secure());
    EXPECT_EQ(server->url(), "https://127.0.0.1:" + std::to_string(port()) + "/");

    HttpTestClient client(port(), true);
    ClientResponse response = client.request("POST", "/bayeux/handshake", {}, "secure");
    EXPECT_EQ(response.status, 200);
    EXPECT_THAT(response.body, HasSubstr("body=secure"));
    EXPECT_THAT(response.header("set-cookie"), HasSubstr("; Secure"));
    client.sendRaw(HttpTestClient::format("GET", "/bayeux/stream"));
    std::shared_ptr<BodyStream> body = service->waitForStream();
    ASSERT_NE(body, nullptr);
    EXPECT_TRUE(client.readHeader().chunked);
    body->publish(DataBuffer("over tls"));
    body->finish();
    EXPECT_EQ(client.readChunk(), "over tls");
    EXPECT_EQ(client.readChunk(), std::nullopt);

    WebSocketTestClient socket(port(), "/bayeux", {}, true);
    socket.write("hello");
    EXPECT_EQ(socket.read(), "hello");
    socket.close();

    HttpServerOptions broken = secure();
    broken.tlsKey = test::certificate().key + ".missing";
    HttpServer refused(broken, registry);
    EXPECT_THROW(refused.start(), std::runtime_error);
}

TEST_F(HttpServerTest, StopEndsHeldStreamsAndWebSocketsAndRefusesABusyPort) {
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
    WebSocketTestClient socket(port(), "/bayeux");
    socket.write("ping");
    EXPECT_EQ(socket.read(), "ping");
    HttpTestClient idle(port());
    EXPECT_EQ(idle.request("GET", "/bayeux").status, 200);

    std::thread reader([&socket] {
        EXPECT_EQ(socket.read(), std::nullopt);
        EXPECT_EQ(socket.closeCode(), 1001);
    });
    server->stop();
    reader.join();
    EXPECT_TRUE(held.closedByServer(5s));
    EXPECT_TRUE(idle.closedByServer(5s));
    EXPECT_TRUE(service->waitForFinished(2)) << "the held body and the socket's frames were not ended";
    EXPECT_FALSE(body->getFuture().get());
    server->stop();
}

TEST(HttpServerConcurrency, ServesManyClientsAtOnce) {
    HttpServerFixture fixture;
    HttpServerOptions options = fixture.defaults();
    options.threads = 4;
    fixture.start(options);
    const unsigned short port = fixture.port();
    auto client = [port](int id) {
        HttpTestClient http(port);
        WebSocketTestClient socket(port, "/bayeux");
        for (int round = 0; round < 20; ++round) {
            const std::string tag = std::to_string(id) + "-" + std::to_string(round);
            http.sendRaw(HttpTestClient::format("POST", "/bayeux/a", {}, tag + "a") +
                         HttpTestClient::format("POST", "/bayeux/b", {}, tag + "b"));
            socket.write(tag);
            EXPECT_THAT(http.read().body, HasSubstr("body=" + tag + "a"));
            EXPECT_THAT(http.read().body, HasSubstr("body=" + tag + "b"));
            EXPECT_EQ(socket.read(), tag);
        }
        socket.close();
    };
    std::vector<std::thread> clients;
    for (int id = 0; id < 8; ++id) {
        clients.emplace_back(client, id);
    }
    for (std::thread& thread : clients) {
        thread.join();
    }
    fixture.server->stop();
}

// Hands the client the frames to write, each only once the client asked for one. One mutex
// guards the demand, the subscriber and the flag; the subscriber is called with it released.
class FrameSource : public reactive_streams::PublisherAPI<http::WebSocketFrame>,
                    public reactive_streams::Subscription,
                    public std::enable_shared_from_this<FrameSource> {
public:
    void subscribe(std::shared_ptr<reactive_streams::SubscriberAPI<http::WebSocketFrame>> given) override {
        (std::lock_guard<std::mutex>(mutex), subscriber = given);
        given->onSubscribe(weak_from_this());
    }
    Future<bool> getFuture() override { return makeReadyFuture(true); }
    void request(unsigned long n) override { (std::lock_guard<std::mutex>(mutex), demand += n), changed.notify_all(); }
    void cancel() override { (std::lock_guard<std::mutex>(mutex), cancelled = true), changed.notify_all(); }

    // False when the client asked for no frame in time.
    bool send(const std::string& text) {
        std::unique_lock<std::mutex> lock(mutex);
        if (!changed.wait_for(lock, 10s, [&] { return demand > 0; })) {
            return false;
        }
        --demand;
        auto target = subscriber;
        lock.unlock();
        target->onNext(http::WebSocketFrame(DataBuffer(text), 129));
        return true;
    }
    std::shared_ptr<reactive_streams::SubscriberAPI<http::WebSocketFrame>> target() {
        return std::lock_guard<std::mutex>(mutex), subscriber;
    }
    bool waitForCancel() {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, 10s, [&] { return cancelled; });
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    std::shared_ptr<reactive_streams::SubscriberAPI<http::WebSocketFrame>> subscriber;
    unsigned long demand = 0;
    bool cancelled = false;
};

using FrameReader = test_support::RecordingSubscriber<http::WebSocketFrame>;

// Both ends of an open client WebSocket, joined to the test's reader and source.
struct OpenSocket {
    std::shared_ptr<FrameReader> reader =
        std::make_shared<FrameReader>(0, 0, [](const http::WebSocketFrame& frame) { return frame.data.str(); });
    std::shared_ptr<FrameSource> source = std::make_shared<FrameSource>();

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
        socket.source->subscribe(webSocket->outbound);
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

TEST_F(HttpClientTest, ExchangesFramesInOrderOverWsAndWssWithTheRequestsHeadersAndClosesWhenTheWriterCompletes) {
    int finished = 0;
    for (const HttpServerOptions& options : {defaults(), secure()}) {
        SCOPED_TRACE(options.tlsCert.empty() ? "ws" : "wss");
        start(options);
        OpenSocket socket = connect(wsUrl(*server, "/bayeux?x=1"),
                                    {{"connection", "upgrade"}, {"upgrade", "websocket"}, {"tvapikey", "k1"}});
        socket.reader->request(10);
        for (const char* text : {"one", "two", "three"}) {
            ASSERT_TRUE(socket.source->send(text));
        }
        EXPECT_EQ(socket.waitForTexts(3), (std::vector<std::string>{"one", "two", "three"}));
        EXPECT_TRUE(socket.reader->read([](auto& frames) {
            return std::all_of(frames.begin(), frames.end(), [](auto& frame) { return frame.firstByte == 129; });
        }));
        socket.source->target()->onComplete();
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

TEST_F(HttpClientTest, ReadsTheNextMessageOnlyWhenTheReaderAskedForIt) {
    start(defaults());
    OpenSocket socket = connect(wsUrl(*server, "/bayeux"));
    socket.reader->request(1);
    for (const char* text : {"1", "2", "3"}) {
        ASSERT_TRUE(socket.source->send(text));
    }
    EXPECT_EQ(socket.waitForTexts(1), std::vector<std::string>{"1"});
    // The echoes of the other two are on their way; a client that read without demand would hand them over now.
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(socket.reader->seen(), std::vector<std::string>{"1"});
    socket.reader->request(2);
    EXPECT_EQ(socket.waitForTexts(3), (std::vector<std::string>{"1", "2", "3"}));
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
        {"server ends its frames", 4, [](OpenSocket& s) { s.source->send("echo"), s.source->send("finish"); },
         "complete"},
        {"server fails its frames", 1 << 20, [](OpenSocket& s) { s.source->send("fail"); }, "complete"},
        {"server cuts TCP past its backlog", 3, [](OpenSocket& s) { s.source->send("echo"); },
         "error WebSocket connection to ws://127.0.0.1:"},
        {"reader cancels", 1 << 20, [](OpenSocket& s) { s.reader->cancel(); }, ""},
        {"writer fails",  1 << 20,
         [](OpenSocket& s) { s.source->target()->onError(std::make_exception_ptr(std::runtime_error("broke"))); },
         "complete"},
    };
    int finished = 0;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.how);
        HttpServerOptions options = defaults();
        options.wsBacklogBytes = row.backlog;
        start(options);
        OpenSocket socket = connect(wsUrl(*server, "/bayeux"));
        socket.reader->request(5);
        row.act(socket);
        EXPECT_TRUE(service->waitForFinished(++finished)) << "the server's socket stayed open";
        if (*row.readerEnd != '\0') {
            EXPECT_THAT(socket.waitForEnd(), ::testing::StartsWith(row.readerEnd));
        }
        // The writer is told that the socket is gone, or already ended itself.
        EXPECT_TRUE(std::string(row.how) == "writer fails" || socket.source->waitForCancel());
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
    ASSERT_TRUE(socket.source->send("hello"));
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
    EXPECT_TRUE(socket.source->waitForCancel());
    // Calls from the library after the service is gone find no I/O and are dropped.
    socket.reader->request(1);
    socket.source->target()->onComplete();
    EXPECT_EQ(socket.reader->seen().size(), 1u);
}

TEST_F(HttpClientConcurrency, ManyConnectionsFromSeveralThreadsExchangeInOrder) {
    start(defaults());
    std::unique_ptr<HttpServer> tls = launch(secure());
    constexpr int kMessages = 20;
    auto converse = [&](int thread) {
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
                EXPECT_TRUE(socket.source->send(expected.back()));
            }
            reader.join();
            EXPECT_EQ(socket.waitForTexts(kMessages), expected);
            if (index % 2 == 0) {
                socket.source->target()->onComplete();
                EXPECT_EQ(socket.waitForEnd(), "complete");
            } else {
                socket.reader->cancel();
                EXPECT_TRUE(socket.source->waitForCancel());
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
