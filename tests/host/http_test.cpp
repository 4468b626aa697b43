#include "korvane/host/http_client.h"
#include "korvane/host/http_server.h"

#include <gmock/gmock.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <tuple>

#include <unistd.h>

#include <boost/asio/read_until.hpp>

#include "korvane/frame/cached_value_publisher.h"
#include "korvane/frame/callback_subscriber.h"
#include "korvane/frame/http.h"
#include "korvane/frame/transform_processor.h"
#include "korvane/host/host.h"
#include "korvane/host/websocket_frames.h"
#include "support/recording_subscriber.h"
#include "host/host_test_support.h"

namespace korvane::host {
namespace {

using namespace std::chrono_literals;
using common::DataBuffer;

using FrameStream = reactive_streams::CachedValuePublisher<http::WebSocketFrame, std::function<void()>>;

// Stands in for the Bayeux transports: it answers each request with a WebSocket echoing each
// message back ("finish" ends its frame stream, "fail" fails it), and records the upgrade's
// headers and browser session; a target with "/fail" gets a failed answer, one with "/relayed"
// frames that cannot be collected. The HTTP side is checked end to end (interop).
// Threading: the server's I/O threads call handle and end the frame streams; `mutex` guards the upgrades.
class FakeBayeuxService : public http::HttpServiceProvider {
public:
    Future<std::unique_ptr<Message>> handle(std::unique_ptr<http::HttpRequest>&& request, Address&&,
                                            std::shared_ptr<Context>&& context) override {
        if (request->target.find("/fail") != std::string::npos) {
            return makeErrorFuture<std::unique_ptr<Message>>(
                std::make_exception_ptr(std::runtime_error("the service broke down")));
        }
        const std::lock_guard<std::mutex> guard(mutex);
        upgrades.emplace_back(request->headers,
                              context->has("sessionId") ? boost::any_cast<std::string>(context->get("sessionId")) : "");
        auto frames = std::make_shared<FrameStream>([this] { ++finished; });
        // The frame stream lives as long as the server holds the echo, its reading end.
        auto echo = std::make_shared<reactive_streams::CallbackSubscriber<http::WebSocketFrame>>(
            [frames](http::WebSocketFrame&& frame) {
                if (frame.data.view() == "finish") {
                    frames->finish();
                } else if (frame.data.view() == "fail") {
                    frames->setError(std::make_exception_ptr(std::runtime_error("failed on purpose")));
                } else {
                    frames->publish(http::WebSocketFrame(std::move(frame.data), frame.firstByte));
                }
            });
        if (request->target.find("/relayed") == std::string::npos) {
            return makeReadyFuture(std::unique_ptr<Message>(std::make_unique<http::WebSocket>(frames, echo)));
        }
        auto relayed = std::make_shared<reactive_streams::TransformProcessor<http::WebSocketFrame, http::WebSocketFrame>>(
            [](http::WebSocketFrame&& frame) { return std::move(frame); });
        frames->subscribe(relayed);
        return makeReadyFuture(std::unique_ptr<Message>(std::make_unique<http::WebSocket>(relayed, echo)));
    }

    // Whether the service's WebSocket frame streams ended `count` times.
    bool waitForFinished(int count) {
        return test_support::eventually([this, count] { return finished >= count; });
    }

    std::mutex mutex;
    std::vector<std::pair<http::Headers, std::string>> upgrades;  // each upgrade's headers and browser session
    std::atomic<int> finished{0};
};

struct HttpServerFixture {
    HttpServerFixture() {
        registry->add(Address("bayeux"), service);
        registry->startAll();
    }
    ~HttpServerFixture() { registry->stopAll(); }

    // A server on a free loopback port, over TLS when `secure`.
    static HttpServerOptions options(bool secure = false) {
        HttpServerOptions options;
        options.listen = "127.0.0.1:0";
        options.bayeuxAddress = Address("bayeux");
        options.threads = 2;
        if (secure) {
            options.tlsCert = test::certificate().cert;
            options.tlsKey = test::certificate().key;
        }
        return options;
    }
    std::unique_ptr<HttpServer> launch(HttpServerOptions options) {
        auto launched = std::make_unique<HttpServer>(std::move(options), registry);
        launched->start();
        return launched;
    }
    void start(HttpServerOptions options) { server = launch(std::move(options)); }

    std::shared_ptr<ServiceRegistry> registry = std::make_shared<ServiceRegistry>();
    std::shared_ptr<FakeBayeuxService> service = std::make_shared<FakeBayeuxService>();
    std::unique_ptr<HttpServer> server;
};

struct HttpServerTest : ::testing::Test, HttpServerFixture {};

// An answer the service failed: a 500 that says why. (A WebSocket for a request that is no upgrade
// gets its own 500, end to end in bayeux_host_test.)
TEST_F(HttpServerTest, AnswersWhatTheServiceCannotWith500AndItsReason) {
    start(options());
    const std::string text =
        test::exchange(server->port(), "GET /bayeux/fail HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
    EXPECT_THAT(text, ::testing::StartsWith("HTTP/1.1 500"));
    EXPECT_THAT(text, ::testing::EndsWith("the service broke down"));
}

// A peer that stops reading a response is cut once the write timeout passes: what it reads later ends short.
TEST_F(HttpServerTest, CutsAPeerThatStopsReadingAResponseAtTheWriteTimeout) {
    const auto root = std::filesystem::temp_directory_path() / ("korvane-stalled-" + std::to_string(::getpid()));
    std::filesystem::create_directories(root);
    const std::size_t size = 16 << 20;
    std::ofstream(root / "big.bin", std::ios::binary) << std::string(size, 'x');
    HttpServerOptions bounded = options();
    bounded.staticRoot = root.string();
    bounded.writeTimeout = 300ms;
    start(bounded);
    boost::asio::io_context io;
    boost::asio::ip::tcp::socket socket(io);
    socket.open(boost::asio::ip::tcp::v4());
    socket.set_option(boost::asio::socket_base::receive_buffer_size(4096));  // no room for the file in flight
    socket.connect({boost::asio::ip::make_address("127.0.0.1"), server->port()});
    boost::asio::write(socket, boost::asio::buffer(std::string("GET /big.bin HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n")));
    // The head shows the write under way; then the peer reads nothing until the server has let go of it.
    std::string response;
    boost::asio::read_until(socket, boost::asio::dynamic_buffer(response), "\r\n\r\n");
    EXPECT_TRUE(test_support::eventually([this] { return server->openConnections() == 0; })) << "never cut";
    boost::system::error_code ended;
    boost::asio::read(socket, boost::asio::dynamic_buffer(response), ended);
    std::filesystem::remove_all(root);
    EXPECT_THAT(response, ::testing::StartsWith("HTTP/1.1 200"));
    EXPECT_LT(response.size(), size) << "the whole file reached a peer that stalled past the write timeout";
}

// What the server's frames say, as "<opcode>:<payload>" (a close's code as a number),
// read from a raw socket until a close frame, the end of the stream, or two seconds.
std::string framesUntilClose(boost::asio::ip::tcp::socket& socket) {
    timeval wait{2, 0};
    setsockopt(socket.native_handle(), SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    FrameReader reader(1 << 20, false);
    std::string seen;
    for (;;) {
        Frame frame;
        while (reader.next(frame) == FrameReader::Status::frame) {
            std::string payload(frame.payload);
            if (frame.opcode == Opcode::close && payload.size() >= 2) {
                payload = std::to_string((static_cast<unsigned char>(payload[0]) << 8) | static_cast<unsigned char>(payload[1]));
            }
            seen += test::opcodeName(frame.opcode) + ":" + payload + " ";
            if (frame.opcode == Opcode::close) {
                return seen;
            }
        }
        boost::system::error_code error;
        char* space = reader.space();  // before spaceSize(): it may move bytes and grow the room
        const std::size_t bytes = socket.read_some(boost::asio::buffer(space, reader.spaceSize()), error);
        if (error) {
            return seen + (error == boost::asio::error::eof ? "eof" : error.message());
        }
        reader.commit(bytes);
    }
}

// Each row's frames come from a raw client after the upgrade; the server's frames up to its close (or the end of
// the stream) are what the row expects, its writes batched or not, the service's frames collected or subscribed to.
TEST_F(HttpServerTest, AnswersWebSocketControlFramesAndClosesOnEachProtocolFault) {
    HttpServerOptions limited = options();
    limited.maxWsMessageBytes = 4096;  // a single frame at its bound and past it is the end-to-end tests' to send
    limited.wsIdle = 400ms;
    for (const bool batched : {true, false}) {
    limited.batchedWrites = batched;
    start(limited);
    const auto masked = [](Opcode opcode, const std::string& payload, bool final = true) {
        std::string frame;
        appendMaskedFrame(frame, opcode, payload, 0x5A17C3E1);
        frame[0] = static_cast<char>(final ? frame[0] : frame[0] & 0x7F);
        return frame;
    };
    const std::string bye = masked(Opcode::close, std::string("\x03\xE8", 2) + "bye");
    const std::pair<std::string, std::string> rows[] = {  // sent, answered
        {masked(Opcode::text, "hi") + masked(Opcode::ping, "x") + bye, "text:hi pong:x close:1000 "},
        {masked(Opcode::text, "a", false) + masked(Opcode::continuation, "b") + bye, "text:ab close:1000 "},
        {masked(Opcode::text, "hi") + masked(Opcode::text, "finish"), "text:hi close:1000 "},  // the service ended its frames
        {masked(Opcode::text, "fail"), "close:1011 "},                                         // or failed them
        {masked(Opcode::close, ""), "close: "},
        {masked(Opcode::close, std::string("\x0F\xA0\xFF", 3)), "close:1007 "},      // a reason that is not UTF-8
        {masked(Opcode::close, std::string("\x03\xED", 2)), "close:1002 "},          // 1005 is never sent
        {masked(Opcode::close, "\x03"), "close:1002 "},                              // a code cut short
        {std::string("\x81\x02hi", 4), "close:1002 "},                               // not masked
        {masked(Opcode::continuation, "b"), "close:1002 "},                          // nothing to continue
        {masked(Opcode::text, "a", false) + masked(Opcode::text, "b"), "close:1002 "},  // a new message inside one
        {masked(Opcode::text, std::string(3000, 'x'), false) + masked(Opcode::continuation, std::string(1097, 'x')),
         "close:1009 "},
        {"", "ping: eof"},  // silent for half the idle time: pinged; for all of it: cut
    };
    for (const char* path : {"/bayeux", "/bayeux/relayed"}) {
    for (const auto& [frames, answer] : rows) {
        boost::asio::io_context io;
        auto socket = test::sent(io, server->port(),
                           "GET " + std::string(path) + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: Upgrade\r\n"
                           "Upgrade: websocket\r\nSec-WebSocket-Version: 13\r\n"
                           "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n");
        std::string head;
        boost::asio::read_until(socket, boost::asio::dynamic_buffer(head), "\r\n\r\n");
        ASSERT_THAT(head, ::testing::StartsWith("HTTP/1.1 101"));
        ASSERT_EQ(head.size(), head.find("\r\n\r\n") + 4) << "read past the upgrade's answer";
        boost::asio::write(socket, boost::asio::buffer(frames));
        EXPECT_EQ(framesUntilClose(socket), answer) << frames.substr(0, 12) << path << (batched ? " batched" : "");
    }
    }
    }
}

using FrameRecorder = test_support::RecordingSubscriber<http::WebSocketFrame>;

// Both ends of an open client WebSocket, joined to the test's reader and writer.
struct OpenSocket {
    std::shared_ptr<FrameRecorder> reader =
        std::make_shared<FrameRecorder>(0, 0, [](const http::WebSocketFrame& frame) { return frame.data.str(); });
    std::shared_ptr<std::atomic<bool>> writerEnded = std::make_shared<std::atomic<bool>>(false);
    std::shared_ptr<FrameStream> writer = std::make_shared<FrameStream>([ended = writerEnded] { *ended = true; });

    void send(const std::string& text) { writer->publish(http::WebSocketFrame(DataBuffer(text), 129)); }
    // How the reader's stream ended ("complete" or "error <text>"), or "" when the wait gave up.
    std::string waitForEnd() {
        reader->waitFor([](FrameRecorder& r) { return r.count("complete") + r.count("error") > 0; }, 10s);
        const auto events = reader->events();
        return events.back().rfind("next ", 0) == 0 || events.back() == "subscribe" ? "" : events.back();
    }
    // Whether the client cancelled the writer: told it that the socket is gone.
    bool writerCancelled() {
        return test_support::eventually([this] { return writerEnded->load(); }) && !writer->getFuture().get();
    }
};

// The outbound client against this server, plain and over TLS.
struct HttpClientTest : ::testing::Test, HttpServerFixture {
    void SetUp() override {
        HttpClientOptions trusting;
        trusting.threadCount = 2;
        trusting.extraCaFile = test::certificate().cert;
        useClient(trusting);
    }
    void useClient(HttpClientOptions options) {
        clients = std::make_shared<ServiceRegistry>();
        clients->add(kClientAddress, std::make_shared<HttpClientServiceProvider>(std::move(options)));
        clients->startAll();
    }
    // "http://host:port/" gives "ws://host:port<path>", "https://..." gives "wss://...".
    static std::string wsUrl(const HttpServer& server, const std::string& path = "/bayeux") {
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
        socket.reader->waitFor([](FrameRecorder& r) { return r.count("subscribe") == 1; }, 10s);
        return socket;
    }

    static inline const Address kClientAddress{"/http/client"};
    std::shared_ptr<ServiceRegistry> clients;
};

TEST_F(HttpClientTest, EndsBothStreamsWhenEitherSideCloses) {
    const std::string cut = "error WebSocket connection to ws://127.0.0.1:";
    // how, the server's backlog, what happens, how the reader's stream ends (a prefix; empty: not checked)
    const std::vector<std::tuple<std::string, std::size_t, std::function<void(OpenSocket&)>, std::string>> rows = {
        // A backlog of the echo's 4 bytes holds it; one byte less cuts the connection without a close frame.
        {"server ends its frames", 4, [](OpenSocket& s) { s.send("echo"), s.send("finish"); }, "complete"},
        {"server fails its frames", 1 << 20, [](OpenSocket& s) { s.send("fail"); }, "complete"},
        {"server cuts TCP past its backlog", 3, [](OpenSocket& s) { s.send("echo"); }, cut},
        // The reader takes five frames, then nothing until the end: the server's writes stall past the write timeout.
        {"server cuts TCP past its write timeout", std::size_t{1} << 30,
         [](OpenSocket& s) {
             for (int frame = 0; frame < 64; ++frame) {
                 s.send(std::string(256 << 10, 'x'));
             }
         },
         cut},
        {"server stops, twice", 1 << 20, [this](OpenSocket&) { server->stop(), server->stop(); }, "complete"},
        {"reader cancels", 1 << 20, [](OpenSocket& s) { s.reader->cancel(); }, ""},
        {"writer fails", 1 << 20,
         [](OpenSocket& s) { s.writer->setError(std::make_exception_ptr(std::runtime_error("broke"))); }, "complete"},
        // Last: the client service is gone; the reader's later requests find no I/O and are dropped.
        {"client service stops", 1 << 20, [this](OpenSocket&) { clients.reset(); }, "error The HTTP client service stopped"},
    };
    const std::string browser(32, 'b');
    int finished = 0;
    for (const auto& [how, backlog, act, readerEnd] : rows) {
        SCOPED_TRACE(how);
        HttpServerOptions bounded = options();
        bounded.wsBacklogBytes = backlog;
        bounded.writeTimeout = 300ms;
        start(bounded);
        OpenSocket socket = connect(wsUrl(*server, "/bayeux?x=1"), {{"connection", "upgrade"}, {"upgrade", "websocket"},
                                                                    {"tvapikey", "k1"}, {"cookie", "korvane-browser=" + browser}});
        socket.reader->request(5);
        act(socket);
        EXPECT_TRUE(service->waitForFinished(++finished)) << "the server's socket stayed open";
        socket.reader->request(1000);  // reads what the server wrote before it went
        if (!readerEnd.empty()) {
            EXPECT_THAT(socket.waitForEnd(), ::testing::StartsWith(readerEnd));
        }
        // The writer is told that the socket is gone, or already ended itself.
        EXPECT_TRUE(how == "writer fails" || socket.writerCancelled());
        const std::lock_guard<std::mutex> guard(service->mutex);  // to the next upgrade
        const auto& [headers, session] = service->upgrades.back();
        std::string seen;  // the upgrade's own headers once, by the upgrade, not again from the request
        for (const std::string name : {"tvapikey", "upgrade", "connection", "host"}) {
            for (auto [at, end] = headers.equal_range(name); at != end; ++at) {
                seen += name + "=" + at->second + " ";
            }
        }
        EXPECT_EQ(seen, "tvapikey=k1 upgrade=websocket connection=upgrade host=127.0.0.1:" + std::to_string(server->port()) + " ");
        EXPECT_EQ(session, browser) << "the upgrade runs in the browser session its cookie names";
    }
}

TEST_F(HttpClientTest, FailsWithATextThatNamesTheCause) {
    start(options());
    std::unique_ptr<HttpServer> tls = launch(options(true));
    const std::string plain = wsUrl(*server), securePort = std::to_string(tls->port());
    struct Row {
        std::string url, failure;  // a prefix of the failure
        http::Headers headers = {};
        std::string method = "get";
    };
    const std::vector<Row> rows = {
        {"http://127.0.0.1/x", "Unsupported URL scheme \"http\" in http://127.0.0.1/x: only ws and wss are supported"},
        {"127.0.0.1:80/x", "Malformed WebSocket URL: 127.0.0.1:80/x"},
        {"ws:///x", "Malformed WebSocket URL: ws:///x"},
        {"ws://127.0.0.1:99999/x", "Malformed WebSocket URL: ws://127.0.0.1:99999/x"},
        {"ws://[::1/x", "Malformed WebSocket URL: ws://[::1/x"},
        {plain, "A WebSocket upgrade is a get request, not post: " + plain, {}, "post"},
        {"ws://no-such-host.invalid/x", "Unable to resolve host name no-such-host.invalid: "},
        {"ws://127.0.0.1:1/x", "Unable to connect to 127.0.0.1:1: Connection refused"},  // port 1: nobody listens
        {plain, "WebSocket upgrade refused by " + plain + ": HTTP 403", {{"origin", "https://evil.example"}}},
        {"wss://localhost:" + securePort + "/bayeux",
         "TLS certificate of localhost:" + securePort + " is not trusted: hostname mismatch"},
    };
    const auto failureOf = [this](const Row& row) {
        return test_support::errorOf([&] { open(row.url, row.headers, row.method).get(); });
    };
    for (const Row& row : rows) {
        EXPECT_THAT(failureOf(row), ::testing::StartsWith(row.failure)) << row.url;
    }
    useClient(HttpClientOptions());
    EXPECT_EQ(failureOf({wsUrl(*tls), ""}),
              "TLS certificate of 127.0.0.1:" + securePort + " is not trusted: self-signed certificate");
    // A listener that never answers holds the upgrade in progress when the client service stops.
    boost::asio::io_context io;
    boost::asio::ip::tcp::acceptor silent(io, {boost::asio::ip::make_address("127.0.0.1"), 0});
    Future<std::unique_ptr<http::WebSocket>> hanging =
        open("ws://127.0.0.1:" + std::to_string(silent.local_endpoint().port()) + "/x");
    std::this_thread::sleep_for(50ms);
    clients.reset();
    EXPECT_EQ(test_support::errorOf([&] { hanging.get(); }), "The HTTP client service stopped");
}

}  // namespace
}  // namespace korvane::host
