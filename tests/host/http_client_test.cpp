#include "korvane/host/http_client.h"

#include <gmock/gmock.h>

#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <type_traits>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include "korvane/host/host.h"

namespace korvane::host {
namespace {

using namespace std::chrono_literals;
namespace asio = boost::asio;
namespace beast = boost::beast;
namespace ssl = boost::asio::ssl;
namespace websocket = boost::beast::websocket;
using tcp = boost::asio::ip::tcp;
using ::testing::ElementsAre;
using ::testing::StartsWith;

// The generous deadline of every wait guards against a hang; it is never a timing check.
constexpr auto kPatience = 10s;

// What the echo server saw, for the tests to wait on. Written on the server's I/O
// thread, read by the test's threads, all under `mutex`.
struct ServerJournal {
    void note(const std::string& event) {
        std::lock_guard<std::mutex> guard(mutex);
        events.push_back(event);
        changed.notify_all();
    }
    void noteUpgrade(const beast::http::request<beast::http::string_body>& request) {
        std::multimap<std::string, std::string> headers;
        for (const auto& field : request) {
            headers.emplace(std::string(field.name_string()), std::string(field.value()));
        }
        std::lock_guard<std::mutex> guard(mutex);
        upgrades.push_back(std::move(headers));
        changed.notify_all();
    }
    bool waitForEvent(const std::string& event) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, kPatience, [&] { return std::count(events.begin(), events.end(), event) > 0; });
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> events;
    std::vector<std::multimap<std::string, std::string>> upgrades;
};

template <class Stream>
Stream makeServerStream(tcp::socket&& socket, ssl::context* tls) {
    if constexpr (std::is_same_v<Stream, websocket::stream<beast::tcp_stream>>) {
        return Stream(std::move(socket));
    } else {
        return Stream(std::move(socket), *tls);
    }
}

// One connection to the echo server. It echoes every message, and obeys a few
// commands: "close" closes the WebSocket, "drop" drops the TCP connection, "burst N"
// sends "burst 1" to "burst N". The target "/refuse" is answered 403, "/hang" never.
// Runs on the server's one I/O thread only.
template <class Stream>
class EchoSession : public std::enable_shared_from_this<EchoSession<Stream>> {
public:
    static constexpr bool kSecure = !std::is_same_v<Stream, websocket::stream<beast::tcp_stream>>;

    EchoSession(tcp::socket&& socket, ssl::context* tls, ServerJournal* journal)
        : ws_(makeServerStream<Stream>(std::move(socket), tls)), journal_(journal) {}

    void start() {
        if constexpr (kSecure) {
            ws_.next_layer().async_handshake(ssl::stream_base::server, [self = this->shared_from_this()](auto ec) {
                if (!ec) {
                    self->readUpgrade();
                }
            });
        } else {
            readUpgrade();
        }
    }

private:
    void readUpgrade() {
        beast::http::async_read(ws_.next_layer(), buffer_, request_,
                                [self = this->shared_from_this()](auto ec, std::size_t) {
                                    if (!ec) {
                                        self->onUpgrade();
                                    }
                                });
    }

    void onUpgrade() {
        journal_->noteUpgrade(request_);
        if (request_.target() == "/refuse") {
            response_.result(beast::http::status::forbidden);
            response_.prepare_payload();
            beast::http::async_write(ws_.next_layer(), response_, [self = this->shared_from_this()](auto, auto) {});
        } else if (request_.target() == "/hang") {
            beast::http::async_read(ws_.next_layer(), buffer_, request_,
                                    [self = this->shared_from_this()](auto, auto) { self->journal_->note("hung up"); });
        } else {
            ws_.async_accept(request_, [self = this->shared_from_this()](auto ec) {
                if (!ec) {
                    self->readMessage();
                }
            });
        }
    }

    void readMessage() {
        ws_.async_read(buffer_, [self = this->shared_from_this()](auto ec, std::size_t) { self->onMessage(ec); });
    }

    void onMessage(boost::system::error_code ec) {
        if (ec == websocket::error::closed) {
            journal_->note("closed by client " + std::to_string(ws_.reason().code));
            return;
        }
        if (ec) {
            journal_->note("dropped by client");
            return;
        }
        const std::string text = beast::buffers_to_string(buffer_.data());
        buffer_.consume(buffer_.size());
        journal_->note("received " + text);
        if (text == "close") {
            ws_.async_close(websocket::close_code::normal, [self = this->shared_from_this()](auto) {});
        } else if (text == "drop") {
            beast::get_lowest_layer(ws_).close();
        } else if (text.rfind("burst ", 0) == 0) {
            writeBurst(1, std::stoi(text.substr(6)));
        } else {
            write(text, [self = this->shared_from_this()] { self->readMessage(); });
        }
    }

    void writeBurst(int next, int last) {
        if (next > last) {
            journal_->note("burst written");
            readMessage();
            return;
        }
        write("burst " + std::to_string(next),
              [self = this->shared_from_this(), next, last] { self->writeBurst(next + 1, last); });
    }

    void write(std::string text, std::function<void()> then) {
        outgoing_ = std::move(text);
        ws_.async_write(asio::buffer(outgoing_), [then = std::move(then)](auto ec, std::size_t) {
            if (!ec) {
                then();
            }
        });
    }

    Stream ws_;
    ServerJournal* journal_;
    beast::flat_buffer buffer_;
    beast::http::request<beast::http::string_body> request_;
    beast::http::response<beast::http::string_body> response_;
    std::string outgoing_;
};

// A WebSocket echo server on 127.0.0.1 with its own I/O thread; TLS when given a
// context. Threading: the journal is the only thing the test thread shares with it.
class EchoServer {
public:
    explicit EchoServer(ssl::context* tls = nullptr)
        : tls_(tls), acceptor_(io_, tcp::endpoint(asio::ip::make_address("127.0.0.1"), 0)) {
        accept();
        thread_ = std::thread([this] { io_.run(); });
    }
    ~EchoServer() {
        io_.stop();
        thread_.join();
    }

    std::string url(const std::string& path) const {
        return std::string(tls_ ? "wss" : "ws") + "://127.0.0.1:" + std::to_string(acceptor_.local_endpoint().port()) +
               path;
    }

    ServerJournal journal;

private:
    void accept() {
        acceptor_.async_accept([this](boost::system::error_code ec, tcp::socket socket) {
            if (ec) {
                return;
            }
            if (tls_) {
                using Stream = websocket::stream<beast::ssl_stream<beast::tcp_stream>>;
                std::make_shared<EchoSession<Stream>>(std::move(socket), tls_, &journal)->start();
            } else {
                using Stream = websocket::stream<beast::tcp_stream>;
                std::make_shared<EchoSession<Stream>>(std::move(socket), tls_, &journal)->start();
            }
            accept();
        });
    }

    ssl::context* tls_;
    asio::io_context io_;
    tcp::acceptor acceptor_;
    std::thread thread_;
};

// Takes the frames the client reads, within the demand the test gives it. One
// mutex guards everything; request and cancel are made with it released.
class RecordingReader : public reactive_streams::SubscriberAPI<http::WebSocketFrame> {
public:
    void onSubscribe(std::weak_ptr<reactive_streams::Subscription> subscription) override {
        std::lock_guard<std::mutex> guard(mutex_);
        subscription_ = std::move(subscription);
        changed_.notify_all();
    }
    void onNext(http::WebSocketFrame&& frame) override {
        std::lock_guard<std::mutex> guard(mutex_);
        texts_.push_back(frame.data.str());
        firstBytes_.push_back(frame.firstByte);
        changed_.notify_all();
    }
    void onComplete() override { end("complete"); }
    void onError(std::exception_ptr error) override {
        try {
            std::rethrow_exception(error);
        } catch (const std::exception& failure) {
            end(std::string("error: ") + failure.what());
        }
    }
    Future<bool> getFuture() override { return done_.getFuture(); }

    void request(unsigned long n) { subscription()->request(n); }
    void cancel() { subscription()->cancel(); }

    // The texts read so far, once there are `count` of them or when the wait gave up.
    std::vector<std::string> waitForTexts(std::size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, kPatience, [&] { return texts_.size() >= count; });
        return texts_;
    }
    std::vector<std::string> texts() {
        std::lock_guard<std::mutex> guard(mutex_);
        return texts_;
    }
    std::vector<int> firstBytes() {
        std::lock_guard<std::mutex> guard(mutex_);
        return firstBytes_;
    }
    // How the stream ended ("complete" or "error: <text>"), or "" when the wait gave up.
    std::string waitForEnd() {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, kPatience, [&] { return !ending_.empty(); });
        return ending_;
    }

private:
    void end(const std::string& how) {
        std::lock_guard<std::mutex> guard(mutex_);
        ending_ = how;
        changed_.notify_all();
    }
    std::shared_ptr<reactive_streams::Subscription> subscription() {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, kPatience, [&] { return !subscription_.expired(); });
        auto held = subscription_.lock();
        if (!held) {
            throw std::runtime_error("the reader has no subscription");
        }
        return held;
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::weak_ptr<reactive_streams::Subscription> subscription_;
    std::vector<std::string> texts_;
    std::vector<int> firstBytes_;
    std::string ending_;
    Promise<bool> done_;
};

// Hands the client the frames to write, each only once the client asked for one.
// One mutex guards the demand and the subscriber; onNext, onComplete and onError
// are called with it released.
class FrameSource : public reactive_streams::PublisherAPI<http::WebSocketFrame> {
public:
    void subscribe(std::shared_ptr<reactive_streams::SubscriberAPI<http::WebSocketFrame>> subscriber) override {
        {
            std::lock_guard<std::mutex> guard(mutex_);
            subscriber_ = subscriber;
        }
        subscriber->onSubscribe(subscription_);
    }
    Future<bool> getFuture() override { return makeReadyFuture<bool>(true); }

    // False when the client asked for no frame within the patience.
    bool send(const std::string& text) {
        auto subscriber = awaitDemand();
        if (!subscriber) {
            return false;
        }
        subscriber->onNext(http::WebSocketFrame(common::DataBuffer(text), 129));
        return true;
    }
    void complete() { target()->onComplete(); }
    void fail(const std::string& text) { target()->onError(std::make_exception_ptr(std::runtime_error(text))); }
    bool waitForCancel() {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, kPatience, [&] { return cancelled_; });
    }

private:
    class Handle : public reactive_streams::Subscription {
    public:
        explicit Handle(FrameSource* source) : source_(source) {}
        void request(unsigned long n) override {
            std::lock_guard<std::mutex> guard(source_->mutex_);
            source_->demand_ += n;
            source_->changed_.notify_all();
        }
        void cancel() override {
            std::lock_guard<std::mutex> guard(source_->mutex_);
            source_->cancelled_ = true;
            source_->changed_.notify_all();
        }

    private:
        FrameSource* source_;
    };

    std::shared_ptr<reactive_streams::SubscriberAPI<http::WebSocketFrame>> awaitDemand() {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!changed_.wait_for(lock, kPatience, [&] { return demand_ > 0; })) {
            return nullptr;
        }
        --demand_;
        return subscriber_;
    }
    std::shared_ptr<reactive_streams::SubscriberAPI<http::WebSocketFrame>> target() {
        std::lock_guard<std::mutex> guard(mutex_);
        return subscriber_;
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::shared_ptr<reactive_streams::SubscriberAPI<http::WebSocketFrame>> subscriber_;
    std::shared_ptr<Handle> subscription_ = std::make_shared<Handle>(this);
    unsigned long demand_ = 0;
    bool cancelled_ = false;
};

// Both ends of an open client WebSocket, joined to the test's reader and source.
struct OpenSocket {
    std::shared_ptr<RecordingReader> reader = std::make_shared<RecordingReader>();
    std::shared_ptr<FrameSource> source = std::make_shared<FrameSource>();
    Future<bool> written;
};

// A self-signed certificate for 127.0.0.1, made once for the whole suite.
class TestCertificate {
public:
    TestCertificate() {
        char pattern[] = "/tmp/korvane-http-client-XXXXXX";
        directory_ = ::mkdtemp(pattern);
        const std::string command = "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2"
                                    " -subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1 -keyout " +
                                    keyFile() + " -out " + certificateFile() + " 2>/dev/null";
        if (std::system(command.c_str()) != 0) {
            throw std::runtime_error("openssl could not make a test certificate");
        }
        server_.use_certificate_chain_file(certificateFile());
        server_.use_private_key_file(keyFile(), ssl::context::pem);
    }
    ~TestCertificate() { std::filesystem::remove_all(directory_); }

    std::string certificateFile() const { return directory_ + "/cert.pem"; }
    std::string keyFile() const { return directory_ + "/key.pem"; }
    ssl::context* serverContext() { return &server_; }

private:
    std::string directory_;
    ssl::context server_{ssl::context::tls_server};
};

struct HttpClientTest : ::testing::Test {
    static void SetUpTestSuite() { certificate = new TestCertificate(); }
    static void TearDownTestSuite() {
        delete certificate;
        certificate = nullptr;
    }

    void SetUp() override { useClient(trustingTestCa()); }

    static HttpClientOptions trustingTestCa() {
        HttpClientOptions options;
        options.threadCount = 2;
        options.extraCaFile = certificate->certificateFile();
        return options;
    }

    void useClient(HttpClientOptions options) {
        registry = std::make_shared<ServiceRegistry>();
        registry->add(kClientAddress, std::make_shared<HttpClientServiceProvider>(std::move(options)));
        registry->startAll();
    }

    Future<std::unique_ptr<http::WebSocket>> open(const std::string& url, http::Headers headers = {},
                                                  const std::string& method = "get") {
        auto request = std::make_unique<http::HttpClientRequest>(url, method, nullptr);
        request->headers = std::move(headers);
        auto context = HostContext::create(registry);
        return context->handle<http::WebSocket, http::HttpClientRequest>(std::move(request), Address(kClientAddress));
    }

    // Opens the socket and joins its ends to a reader and a source; fails the test when it cannot.
    OpenSocket connect(const std::string& url, http::Headers headers = {}) {
        OpenSocket socket;
        std::unique_ptr<http::WebSocket> webSocket = open(url, std::move(headers)).get();
        socket.written = webSocket->outbound->getFuture();
        webSocket->inbound->subscribe(socket.reader);
        socket.source->subscribe(webSocket->outbound);
        return socket;
    }

    std::string failureOf(const std::string& url, const std::string& method = "get") {
        try {
            open(url, {}, method).get();
            return "(opened)";
        } catch (const std::exception& error) {
            return error.what();
        }
    }

    static inline TestCertificate* certificate = nullptr;
    static inline const Address kClientAddress{"/http/client"};
    std::shared_ptr<ServiceRegistry> registry;
};
using HttpClientConcurrency = HttpClientTest;

TEST_F(HttpClientTest, EchoesInOrderOverPlainAndTlsWithTheRequestsHeadersAndClosesWhenTheWriterCompletes) {
    for (ssl::context* tls : {static_cast<ssl::context*>(nullptr), certificate->serverContext()}) {
        SCOPED_TRACE(tls ? "wss" : "ws");
        EchoServer server(tls);
        OpenSocket socket = connect(server.url("/echo?x=1"),
                                    {{"connection", "upgrade"}, {"upgrade", "websocket"}, {"tvapikey", "k1"}});
        socket.reader->request(10);
        for (const char* text : {"one", "two", "three"}) {
            ASSERT_TRUE(socket.source->send(text));
        }
        EXPECT_THAT(socket.reader->waitForTexts(3), ElementsAre("one", "two", "three"));
        EXPECT_THAT(socket.reader->firstBytes(), ElementsAre(129, 129, 129));

        socket.source->complete();
        EXPECT_TRUE(server.journal.waitForEvent("closed by client 1000"));
        EXPECT_EQ(socket.reader->waitForEnd(), "complete");
        EXPECT_TRUE(socket.written.get());

        std::lock_guard<std::mutex> guard(server.journal.mutex);
        ASSERT_EQ(server.journal.upgrades.size(), 1u);
        const auto& headers = server.journal.upgrades[0];
        ASSERT_EQ(headers.count("tvapikey"), 1u);
        EXPECT_EQ(headers.find("tvapikey")->second, "k1");
        // The upgrade's own headers are sent once, by the upgrade, not again from the request.
        EXPECT_EQ(headers.count("Upgrade"), 1u);
        EXPECT_EQ(headers.count("Connection"), 1u);
        EXPECT_EQ(headers.count("upgrade") + headers.count("connection"), 0u);
        EXPECT_EQ(headers.find("Host")->second, server.url("").substr(tls ? 6 : 5));
    }
}

TEST_F(HttpClientTest, ReadsTheNextMessageOnlyWhenTheReaderAskedForIt) {
    EchoServer server;
    OpenSocket socket = connect(server.url("/"));
    socket.reader->request(1);
    ASSERT_TRUE(socket.source->send("burst 3"));
    EXPECT_THAT(socket.reader->waitForTexts(1), ElementsAre("burst 1"));
    ASSERT_TRUE(server.journal.waitForEvent("burst written"));
    // The other two are on the wire; a client that read without demand would hand them over now.
    std::this_thread::sleep_for(50ms);
    EXPECT_THAT(socket.reader->texts(), ElementsAre("burst 1"));

    socket.reader->request(2);
    EXPECT_THAT(socket.reader->waitForTexts(3), ElementsAre("burst 1", "burst 2", "burst 3"));
    socket.source->complete();
    EXPECT_EQ(socket.reader->waitForEnd(), "complete");
}

TEST_F(HttpClientTest, EndsBothStreamsWhenEitherSideCloses) {
    struct Row {
        const char* how;
        std::function<void(OpenSocket&)> act;
        const char* serverSees;  // or "" when nothing is expected
        const char* readerEnd;   // a prefix
    };
    const std::vector<Row> rows = {
        {"server closes", [](OpenSocket& s) { s.source->send("close"); }, "received close", "complete"},
        {"server drops TCP", [](OpenSocket& s) { s.source->send("drop"); }, "received drop",
         "error: WebSocket connection to ws://127.0.0.1:"},
        {"reader cancels", [](OpenSocket& s) { s.reader->cancel(); }, "closed by client 1000", ""},
        {"writer fails", [](OpenSocket& s) { s.source->fail("writer broke"); }, "closed by client 1011", "complete"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.how);
        EchoServer server;
        OpenSocket socket = connect(server.url("/"));
        socket.reader->request(5);
        row.act(socket);
        EXPECT_TRUE(server.journal.waitForEvent(row.serverSees));
        if (*row.readerEnd != '\0') {
            EXPECT_THAT(socket.reader->waitForEnd(), StartsWith(row.readerEnd));
        }
        // The writer is told that the socket is gone, or already ended itself.
        if (std::string(row.how) != "writer fails") {
            EXPECT_TRUE(socket.source->waitForCancel());
        }
    }
}

TEST_F(HttpClientTest, FailsWithATextThatNamesTheCause) {
    EchoServer plain;
    EchoServer secure(certificate->serverContext());
    std::string closedPort;
    {
        asio::io_context io;
        tcp::acceptor probe(io, tcp::endpoint(asio::ip::make_address("127.0.0.1"), 0));
        closedPort = std::to_string(probe.local_endpoint().port());
    }
    const std::string securePort = secure.url("").substr(secure.url("").rfind(':') + 1);
    struct Row {
        std::string url;
        std::string method;
        std::string failure;  // a prefix
    };
    const std::vector<Row> rows = {
        {"http://127.0.0.1/x", "get", "Unsupported URL scheme \"http\" in http://127.0.0.1/x: only ws and wss are "
                                      "supported"},
        {"127.0.0.1:80/x", "get", "Malformed WebSocket URL: 127.0.0.1:80/x"},
        {"ws:///x", "get", "Malformed WebSocket URL: ws:///x"},
        {"ws://127.0.0.1:99999/x", "get", "Malformed WebSocket URL: ws://127.0.0.1:99999/x"},
        {"ws://[::1/x", "get", "Malformed WebSocket URL: ws://[::1/x"},
        {plain.url("/x"), "post", "A WebSocket upgrade is a get request, not post: " + plain.url("/x")},
        {"ws://no-such-host.invalid/x", "get", "Unable to resolve host name no-such-host.invalid: "},
        {"ws://127.0.0.1:" + closedPort + "/x", "get",
         "Unable to connect to 127.0.0.1:" + closedPort + ": Connection refused"},
        {plain.url("/refuse"), "get", "WebSocket upgrade refused by " + plain.url("/refuse") + ": HTTP 403"},
        {"wss://localhost:" + securePort + "/x", "get",
         "TLS certificate of localhost:" + securePort + " is not trusted: hostname mismatch"},
    };
    for (const Row& row : rows) {
        EXPECT_THAT(failureOf(row.url, row.method), StartsWith(row.failure)) << row.url;
    }

    HttpClientOptions systemStoreOnly;
    useClient(systemStoreOnly);
    EXPECT_EQ(failureOf(secure.url("/x")),
              "TLS certificate of 127.0.0.1:" + securePort + " is not trusted: self-signed certificate");
}

TEST_F(HttpClientTest, StoppingTheServiceEndsOpenSocketsAndUpgradesInProgress) {
    EchoServer server;
    OpenSocket socket = connect(server.url("/"));
    socket.reader->request(5);
    ASSERT_TRUE(socket.source->send("hello"));
    ASSERT_THAT(socket.reader->waitForTexts(1), ElementsAre("hello"));
    Future<std::unique_ptr<http::WebSocket>> hanging = open(server.url("/hang"));
    std::unique_lock<std::mutex> lock(server.journal.mutex);
    ASSERT_TRUE(server.journal.changed.wait_for(lock, kPatience, [&] { return server.journal.upgrades.size() == 2; }));
    lock.unlock();

    registry.reset();
    EXPECT_EQ(socket.reader->waitForEnd(), "error: The HTTP client service stopped");
    EXPECT_THAT([&] { hanging.get(); }, ::testing::ThrowsMessage<std::runtime_error>("The HTTP client service stopped"));
    EXPECT_TRUE(server.journal.waitForEvent("dropped by client"));
    EXPECT_TRUE(server.journal.waitForEvent("hung up"));
    EXPECT_TRUE(socket.source->waitForCancel());
    // Calls from the library after the service is gone find no I/O and are dropped.
    socket.reader->request(1);
    socket.source->complete();
    EXPECT_EQ(socket.reader->texts().size(), 1u);
}

TEST_F(HttpClientConcurrency, ManyConnectionsFromSeveralThreadsEchoInOrder) {
    EchoServer plain;
    EchoServer secure(certificate->serverContext());
    constexpr int kThreads = 4;
    constexpr int kSocketsPerThread = 3;
    constexpr int kMessages = 20;
    auto converse = [&](int thread) {
        for (int index = 0; index < kSocketsPerThread; ++index) {
            EchoServer& server = (thread + index) % 2 == 0 ? plain : secure;
            OpenSocket socket = connect(server.url("/"));
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
            EXPECT_EQ(socket.reader->waitForTexts(kMessages), expected);
            if (index % 2 == 0) {
                socket.source->complete();
                EXPECT_EQ(socket.reader->waitForEnd(), "complete");
            } else {
                socket.reader->cancel();
            }
            // Either way the socket closes, and the writer hears of it or ended itself.
            EXPECT_TRUE(index % 2 == 0 || socket.source->waitForCancel());
        }
    };
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back(converse, thread);
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

}  // namespace
}  // namespace korvane::host
