#include "korvane/host/http_client.h"

#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <iostream>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/strand.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include "korvane/frame/transform_processor.h"
#include "korvane/host/ascii_case.h"

namespace korvane::host {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace ssl = boost::asio::ssl;
namespace websocket = boost::beast::websocket;
using tcp = boost::asio::ip::tcp;
using Strand = asio::strand<asio::io_context::executor_type>;
using PlainStream = websocket::stream<beast::tcp_stream>;
using TlsStream = websocket::stream<beast::ssl_stream<beast::tcp_stream>>;
using FrameSubscriber = reactive_streams::SubscriberAPI<http::WebSocketFrame>;
using HeaderList = std::vector<std::pair<std::string, std::string>>;

const char* const kServiceStopped = "The HTTP client service stopped";

std::exception_ptr failure(const std::string& text) { return std::make_exception_ptr(std::runtime_error(text)); }


bool isIpLiteral(const std::string& host) {
    boost::system::error_code ec;
    asio::ip::make_address(host, ec);
    return !ec;
}

// A ws:// or wss:// URL taken apart.
struct WebSocketUrl {
    std::string text;        // as the request gave it, for error texts
    bool secure = false;
    std::string host;        // without IPv6 brackets: for name resolution and the certificate check
    std::string port;        // explicit, or the scheme's default
    std::string authority;   // host (bracketed for IPv6) and port, for error texts
    std::string hostHeader;  // what the Host header carries: the port only when the URL names it
    std::string target;      // path and query, at least "/"
};

bool isPortNumber(const std::string& port) {
    const auto isDigit = [](unsigned char c) { return std::isdigit(c) != 0; };
    if (port.empty() || port.size() > 5 || !std::all_of(port.begin(), port.end(), isDigit)) {
        return false;
    }
    int value = std::stoi(port);
    return value > 0 && value <= 65535;
}

// Throws std::invalid_argument for anything but a ws:// or wss:// URL with a host.
WebSocketUrl parseWebSocketUrl(const std::string& text) {
    const std::invalid_argument malformed("Malformed WebSocket URL: " + text);
    const std::size_t schemeEnd = text.find("://");
    if (schemeEnd == std::string::npos || schemeEnd == 0) {
        throw malformed;
    }
    WebSocketUrl url;
    url.text = text;
    const std::string scheme = asciiLowered(text.substr(0, schemeEnd));
    if (scheme == "wss") {
        url.secure = true;
    } else if (scheme != "ws") {
        throw std::invalid_argument("Unsupported URL scheme \"" + scheme + "\" in " + text +
                                    ": only ws and wss are supported");
    }
    const std::size_t authorityStart = schemeEnd + 3;
    const std::size_t authorityEnd = text.find_first_of("/?#", authorityStart);
    const std::string authority = text.substr(authorityStart, authorityEnd - authorityStart);
    std::string pathAndQuery = authorityEnd == std::string::npos ? "" : text.substr(authorityEnd);
    pathAndQuery = pathAndQuery.substr(0, pathAndQuery.find('#'));
    url.target = !pathAndQuery.empty() && pathAndQuery[0] == '/' ? pathAndQuery : "/" + pathAndQuery;

    std::string bracketedHost;
    std::string portText;
    bool portGiven = false;
    if (!authority.empty() && authority[0] == '[') {
        const std::size_t close = authority.find(']');
        if (close == std::string::npos || (close + 1 < authority.size() && authority[close + 1] != ':')) {
            throw malformed;
        }
        url.host = authority.substr(1, close - 1);
        bracketedHost = authority.substr(0, close + 1);
        portGiven = close + 1 < authority.size();
        portText = portGiven ? authority.substr(close + 2) : "";
    } else {
        const std::size_t colon = authority.find(':');
        url.host = authority.substr(0, colon);
        bracketedHost = url.host;
        portGiven = colon != std::string::npos;
        portText = portGiven ? authority.substr(colon + 1) : "";
    }
    if (url.host.empty() || authority.find('@') != std::string::npos || (portGiven && !isPortNumber(portText))) {
        throw malformed;
    }
    url.port = portGiven ? portText : (url.secure ? "443" : "80");
    url.authority = bracketedHost + ":" + url.port;
    url.hostHeader = portGiven ? url.authority : bracketedHost;
    return url;
}

// The request's headers that go on the upgrade: the ones the upgrade sets itself are left out.
HeaderList upgradeHeaders(const http::Headers& headers) {
    static const char* const reserved[] = {"connection",        "upgrade",
                                           "host",              "sec-websocket-key",
                                           "sec-websocket-version", "sec-websocket-extensions"};
    HeaderList kept;
    for (const auto& [name, value] : headers) {
        const std::string lowered = asciiLowered(name);
        if (std::none_of(std::begin(reserved), std::end(reserved), [&](const char* r) { return lowered == r; })) {
            kept.emplace_back(name, value);
        }
    }
    return kept;
}

// Counts down to zero and lets one thread wait for it. Threading: any thread; one mutex.
class Countdown {
public:
    explicit Countdown(std::size_t count) : remaining(count) {}
    void arrive() {
        std::lock_guard<std::mutex> guard(mutex);
        if (--remaining == 0) {
            zero.notify_all();
        }
    }
    void wait() {
        std::unique_lock<std::mutex> lock(mutex);
        zero.wait(lock, [this] { return remaining == 0; });
    }

private:
    std::mutex mutex;
    std::condition_variable zero;
    std::size_t remaining;
};

// What the provider needs of a connection of either kind.
class Connection {
public:
    virtual ~Connection() = default;
    // Closes the socket at once and ends both streams with kServiceStopped; calls
    // `done` on the connection's strand afterwards (or at once when the I/O is gone).
    virtual void abort(std::function<void()> done) = 0;
    // Destroys the socket and the strand. Only once the I/O threads have been joined.
    virtual void releaseIo() = 0;
};

// Checks the peer's name against the certificate, and marks a mismatch as the
// verification's error so that the failure text can tell it apart. Runs inside
// the TLS handshake, on the connection's strand.
class HostNameCheck {
public:
    explicit HostNameCheck(const std::string& host) : check(host) {}
    bool operator()(bool preverified, ssl::verify_context& context) {
        const bool matches = check(preverified, context);
        if (preverified && !matches) {
            X509_STORE_CTX_set_error(context.native_handle(), X509_V_ERR_HOSTNAME_MISMATCH);
        }
        return matches;
    }

private:
    ssl::host_name_verification check;
};

template <class Stream>
Stream makeStream(Strand& strand, ssl::context& tls) {
    if constexpr (std::is_same_v<Stream, PlainStream>) {
        return Stream(strand);
    } else {
        return Stream(strand, tls);
    }
}

// One outbound WebSocket over a plain or a TLS stream.
//
// Threading: all state but `io`, the promises and `readerAttached` belongs to the
// strand and is touched only by handlers running on it. Calls from the library
// (the facades and ReadSubscription) post to the strand through post(), which holds
// `ioMutex` so that the strand is not released under it; they never call the peer
// inline. Callbacks into the library (onSubscribe, onNext, onComplete, onError,
// request, cancel, the answer's promise) are made from the strand with no lock held.
//
// Ownership: the two facades and every posted handler or pending I/O hold the
// connection strongly; it holds its reader strongly and its writer's subscription
// weakly, and it owns the subscription that it hands its reader (weakly).
template <class Stream>
class ClientWebSocketConnection final : public Connection,
                                        public std::enable_shared_from_this<ClientWebSocketConnection<Stream>> {
public:
    static constexpr bool kSecure = std::is_same_v<Stream, TlsStream>;

    ClientWebSocketConnection(WebSocketUrl url, HeaderList headers, asio::io_context& context, ssl::context& tls,
                              std::chrono::milliseconds timeout)
        : url(std::move(url)),
          headers(std::move(headers)),
          timeout(timeout),
          io(std::make_unique<Io>(context, tls)) {}

    static std::shared_ptr<ClientWebSocketConnection> create(WebSocketUrl url, HeaderList headers,
                                                             asio::io_context& context, ssl::context& tls,
                                                             std::chrono::milliseconds timeout) {
        auto connection =
            std::make_shared<ClientWebSocketConnection>(std::move(url), std::move(headers), context, tls, timeout);
        connection->readSubscription = std::make_shared<ReadSubscription>(connection);
        return connection;
    }

    // Starts resolving; the future yields the http::WebSocket once the upgrade is through.
    Future<std::unique_ptr<Message>> open() {
        Future<std::unique_ptr<Message>> answer = answerPromise.getFuture();
        post([](ClientWebSocketConnection& self) { self.doResolve(); });
        return answer;
    }

    void abort(std::function<void()> done) override {
        std::lock_guard<std::mutex> guard(ioMutex);
        if (!io) {
            done();
            return;
        }
        asio::post(io->strand, [self = this->shared_from_this(), done = std::move(done)] {
            self->doAbort();
            done();
        });
    }

    void releaseIo() override {
        std::unique_ptr<Io> released;
        std::lock_guard<std::mutex> guard(ioMutex);
        released = std::move(io);
    }

private:
    struct Io {
        Io(asio::io_context& context, ssl::context& tls)
            : strand(asio::make_strand(context)), resolver(strand), ws(makeStream<Stream>(strand, tls)) {}

        Strand strand;
        tcp::resolver resolver;
        Stream ws;
        beast::flat_buffer readBuffer;
        websocket::response_type upgradeResponse;
    };

    enum class State { Connecting, Open, Closing, Finished };

    // The reader's handle on the inbound stream; outlives the connection only while
    // a reader holds it locked, hence the weak pointer back. Any thread: it posts.
    class ReadSubscription : public reactive_streams::Subscription {
    public:
        explicit ReadSubscription(std::weak_ptr<ClientWebSocketConnection> connection)
            : target(std::move(connection)) {}
        void request(unsigned long n) override {
            if (auto connection = target.lock()) {
                connection->post([n](ClientWebSocketConnection& self) { self.doRequest(n); });
            }
        }
        void cancel() override {
            if (auto connection = target.lock()) {
                connection->post([](ClientWebSocketConnection& self) { self.doCancelReading(); });
            }
        }

    private:
        std::weak_ptr<ClientWebSocketConnection> target;
    };

    // The answer's `inbound`: the messages read from the peer. Any thread: it posts;
    // only the one-subscriber check is made at once, on an atomic flag.
    class InboundPublisher : public reactive_streams::PublisherAPI<http::WebSocketFrame> {
    public:
        explicit InboundPublisher(std::shared_ptr<ClientWebSocketConnection> connection)
            : target(std::move(connection)) {}
        void subscribe(std::shared_ptr<FrameSubscriber> reader) override {
            if (!reader) {
                throw std::invalid_argument("A null subscriber cannot subscribe");
            }
            if (target->readerAttached.exchange(true)) {
                throw std::invalid_argument("Only one subscription is supported");
            }
            target->post([reader](ClientWebSocketConnection& self) { self.doAttachReader(reader); });
        }
        Future<bool> getFuture() override { return target->inboundDone.getFuture(); }

    private:
        std::shared_ptr<ClientWebSocketConnection> target;
    };

    // The answer's `outbound`: the frames to write to the peer. Any thread: it posts.
    class OutboundSubscriber : public FrameSubscriber {
    public:
        explicit OutboundSubscriber(std::shared_ptr<ClientWebSocketConnection> connection)
            : target(std::move(connection)) {}
        void onSubscribe(std::weak_ptr<reactive_streams::Subscription> source) override {
            target->post([source](ClientWebSocketConnection& self) { self.doAttachWriter(source); });
        }
        void onNext(http::WebSocketFrame&& frame) override {
            target->post([frame = std::move(frame)](ClientWebSocketConnection& self) mutable {
                self.doQueueWrite(std::move(frame));
            });
        }
        void onComplete() override {
            target->post([](ClientWebSocketConnection& self) { self.doFinishWriting(nullptr); });
        }
        void onError(std::exception_ptr error) override {
            target->post([error](ClientWebSocketConnection& self) { self.doFinishWriting(error); });
        }
        Future<bool> getFuture() override { return target->outboundDone.getFuture(); }

    private:
        std::shared_ptr<ClientWebSocketConnection> target;
    };

    // Runs `step` on the strand; does nothing once the I/O has been released.
    template <class Step>
    void post(Step step) {
        std::lock_guard<std::mutex> guard(ioMutex);
        if (io) {
            asio::post(io->strand, [self = this->shared_from_this(), step = std::move(step)]() mutable { step(*self); });
        }
    }

    // ---- opening, on the strand ------------------------------------------------

    void doResolve() {
        if (state != State::Connecting) {
            return;
        }
        io->resolver.async_resolve(url.host, url.port,
                                    [self = this->shared_from_this()](boost::system::error_code ec,
                                                                      tcp::resolver::results_type results) {
                                        self->onResolved(ec, std::move(results));
                                    });
    }

    void onResolved(boost::system::error_code ec, tcp::resolver::results_type results) {
        if (state != State::Connecting) {
            return;
        }
        if (ec) {
            doFailOpening("Unable to resolve host name " + url.host + ": " + ec.message());
            return;
        }
        auto& socket = beast::get_lowest_layer(io->ws);
        socket.expires_after(timeout);
        socket.async_connect(results, [self = this->shared_from_this()](boost::system::error_code connectEc,
                                                                        const tcp::endpoint&) {
            self->onConnected(connectEc);
        });
    }

    void onConnected(boost::system::error_code ec) {
        if (state != State::Connecting) {
            return;
        }
        if (ec) {
            doFailOpening("Unable to connect to " + url.authority + ": " + ec.message());
            return;
        }
        boost::system::error_code ignored;
        beast::get_lowest_layer(io->ws).socket().set_option(tcp::no_delay(true), ignored);
        if constexpr (kSecure) {
            doTlsHandshake();
        } else {
            doUpgrade();
        }
    }

    void doTlsHandshake() {
        auto& tls = io->ws.next_layer();
        if (!isIpLiteral(url.host)) {
            SSL_set_tlsext_host_name(tls.native_handle(), url.host.c_str());
        }
        tls.set_verify_callback(HostNameCheck(url.host));
        tls.async_handshake(ssl::stream_base::client, [self = this->shared_from_this()](boost::system::error_code ec) {
            self->onTlsHandshake(ec);
        });
    }

    void onTlsHandshake(boost::system::error_code ec) {
        if (state != State::Connecting) {
            return;
        }
        if (ec) {
            doFailOpening(doTlsFailureText(ec));
            return;
        }
        doUpgrade();
    }

    std::string doTlsFailureText(boost::system::error_code ec) {
        const long verification = SSL_get_verify_result(io->ws.next_layer().native_handle());
        if (verification != X509_V_OK) {
            return "TLS certificate of " + url.authority +
                   " is not trusted: " + X509_verify_cert_error_string(verification);
        }
        return "TLS handshake with " + url.authority + " failed: " + ec.message();
    }

    void doUpgrade() {
        auto& ws = io->ws;
        // From here on the WebSocket's own time limits apply, not the TCP stream's.
        beast::get_lowest_layer(ws).expires_never();
        ws.set_option(websocket::stream_base::timeout{timeout, websocket::stream_base::none(), false});
        ws.set_option(websocket::stream_base::decorator([headers = headers](websocket::request_type& request) {
            for (const auto& [name, value] : headers) {
                request.insert(name, value);
            }
        }));
        ws.async_handshake(io->upgradeResponse, url.hostHeader, url.target,
                           [self = this->shared_from_this()](boost::system::error_code ec) { self->onUpgraded(ec); });
    }

    void onUpgraded(boost::system::error_code ec) {
        if (state != State::Connecting) {
            return;
        }
        if (ec == websocket::error::upgrade_declined) {
            doFailOpening("WebSocket upgrade refused by " + url.text + ": HTTP " +
                          std::to_string(io->upgradeResponse.result_int()));
            return;
        }
        if (ec) {
            doFailOpening("WebSocket upgrade with " + url.text + " failed: " + ec.message());
            return;
        }
        state = State::Open;
        auto self = this->shared_from_this();
        std::unique_ptr<Message> socket = std::make_unique<http::WebSocket>(
            std::make_shared<InboundPublisher>(self), std::make_shared<OutboundSubscriber>(self));
        answerPromise.setValue(std::move(socket));
    }

    void doFailOpening(const std::string& text) {
        state = State::Finished;
        doCloseSocket();
        answerPromise.setError(failure(text));
    }

    // ---- reading, on the strand ------------------------------------------------

    void doAttachReader(std::shared_ptr<FrameSubscriber> reader) {
        frameReader = reader;
        reader->onSubscribe(std::weak_ptr<reactive_streams::Subscription>(readSubscription));
        if (state == State::Finished) {
            doSettleReader();
        }
    }

    void doRequest(unsigned long n) {
        demand = reactive_streams::addDemand(demand, n);
        doReadNext();
    }

    void doReadNext() {
        const bool readable = state == State::Open || state == State::Closing;
        if (!readable || reading || !frameReader || demand == 0) {
            return;
        }
        reading = true;
        io->ws.async_read(io->readBuffer, [self = this->shared_from_this()](boost::system::error_code ec,
                                                                              std::size_t) { self->onRead(ec); });
    }

    void onRead(boost::system::error_code ec) {
        reading = false;
        if (ec) {
            doEnd(ec);
            return;
        }
        common::DataBuffer message;
        const auto bytes = io->readBuffer.data();
        message.append(static_cast<const char*>(bytes.data()), bytes.size());
        io->readBuffer.consume(io->readBuffer.size());
        if (!frameReader || state == State::Finished) {
            return;
        }
        const unsigned char firstByte = io->ws.got_text() ? 129 : 130;
        --demand;
        std::shared_ptr<FrameSubscriber> reader = frameReader;
        try {
            reader->onNext(http::WebSocketFrame(std::move(message), firstByte));
        } catch (const std::exception& error) {
            // The reader could not take this message; the stream goes on.
            ++demand;
            std::cerr << "HTTP client: a message from " << url.text << " was refused: " << error.what() << std::endl;
        }
        doReadNext();
    }

    void doCancelReading() {
        if (!frameReader) {
            return;
        }
        frameReader.reset();
        doSettle(inboundSettled, inboundDone, nullptr, false);
        doRequestClose(websocket::close_code::normal);
    }

    // Tells the reader how the stream ended, once.
    void doSettleReader() {
        std::shared_ptr<FrameSubscriber> reader = std::move(frameReader);
        if (reader) {
            if (endError) {
                reader->onError(endError);
            } else {
                reader->onComplete();
            }
        }
        doSettle(inboundSettled, inboundDone, endError, true);
    }

    // ---- writing and closing, on the strand --------------------------------------

    void doAttachWriter(std::weak_ptr<reactive_streams::Subscription> source) {
        writerSource = source;
        if (state == State::Open) {
            doRequestNextFrame();
        } else {
            doCancelWriter();
        }
    }

    void doRequestNextFrame() {
        if (auto source = writerSource.lock()) {
            source->request(1);
        }
    }

    void doCancelWriter() {
        std::shared_ptr<reactive_streams::Subscription> source = writerSource.lock();
        writerSource.reset();
        if (source) {
            source->cancel();
        }
    }

    void doQueueWrite(http::WebSocketFrame&& frame) {
        if (state != State::Open) {
            return;
        }
        writes.push_back(std::move(frame));
        doWriteNext();
    }

    void doWriteNext() {
        if (writing || closeStarted || state == State::Finished) {
            return;
        }
        if (writes.empty()) {
            if (state == State::Closing) {
                doStartClose();
            }
            return;
        }
        writing = true;
        // Deque elements stay in place while others are appended behind them.
        const http::WebSocketFrame& frame = writes.front();
        io->ws.text((frame.firstByte & 0x0F) != 0x02);
        const std::string_view payload = frame.bytes();
        io->ws.async_write(asio::buffer(payload.data(), payload.size()),
                            [self = this->shared_from_this()](boost::system::error_code ec, std::size_t) {
                                self->onWritten(ec);
                            });
    }

    void onWritten(boost::system::error_code ec) {
        writing = false;
        if (state == State::Finished) {
            return;
        }
        if (ec) {
            doEnd(ec);
            return;
        }
        writes.pop_front();
        if (state == State::Open) {
            doRequestNextFrame();
        }
        doWriteNext();
    }

    // The writer ended: close after the queued frames, or at once after an error.
    void doFinishWriting(std::exception_ptr error) {
        writerSource.reset();
        doSettle(outboundSettled, outboundDone, error, true);
        if (error) {
            writes.clear();
            doRequestClose(websocket::close_code::internal_error);
        } else {
            doRequestClose(websocket::close_code::normal);
        }
    }

    void doRequestClose(websocket::close_code code) {
        if (state != State::Open) {
            return;
        }
        state = State::Closing;
        closeCode = code;
        doWriteNext();
    }

    void doStartClose() {
        closeStarted = true;
        io->ws.async_close(closeCode,
                            [self = this->shared_from_this()](boost::system::error_code ec) { self->doEnd(ec); });
    }

    // ---- ending, on the strand ---------------------------------------------------

    // The socket is done: a close handshake (ours or the peer's) ends the streams
    // cleanly, anything else with an error.
    void doEnd(boost::system::error_code ec) {
        if (state == State::Finished) {
            return;
        }
        const bool clean = !ec || ec == websocket::error::closed;
        doFinish(clean ? nullptr : failure("WebSocket connection to " + url.text + " failed: " + ec.message()));
    }

    void doFinish(std::exception_ptr error) {
        state = State::Finished;
        endError = error;
        writes.clear();
        doCloseSocket();
        doSettleReader();
        doCancelWriter();
        doSettle(outboundSettled, outboundDone, nullptr, false);
    }

    void doAbort() {
        if (state == State::Connecting) {
            doFailOpening(kServiceStopped);
        } else if (state != State::Finished) {
            doFinish(failure(kServiceStopped));
        }
    }

    void doCloseSocket() {
        io->resolver.cancel();
        beast::get_lowest_layer(io->ws).close();
    }

    static void doSettle(bool& settled, Promise<bool>& done, std::exception_ptr error, bool value) {
        if (settled) {
            return;
        }
        settled = true;
        if (error) {
            done.setError(error);
        } else {
            done.setValue(std::move(value));
        }
    }

    const WebSocketUrl url;
    const HeaderList headers;
    const std::chrono::milliseconds timeout;
    // Set once by create(), before the connection is shared.
    std::shared_ptr<ReadSubscription> readSubscription;
    std::atomic<bool> readerAttached{false};
    Promise<std::unique_ptr<Message>> answerPromise;
    Promise<bool> inboundDone;
    Promise<bool> outboundDone;

    // Guards whether `io` is there; the strand's handlers use it without the lock,
    // which is sound because it is released only after the I/O threads are joined.
    std::mutex ioMutex;
    std::unique_ptr<Io> io;

    // Strand state.
    State state = State::Connecting;
    std::shared_ptr<FrameSubscriber> frameReader;
    std::weak_ptr<reactive_streams::Subscription> writerSource;
    std::deque<http::WebSocketFrame> writes;
    std::uint64_t demand = 0;
    std::exception_ptr endError;
    websocket::close_code closeCode = websocket::close_code::normal;
    bool reading = false;
    bool writing = false;
    bool closeStarted = false;
    bool inboundSettled = false;
    bool outboundSettled = false;
};

ssl::context makeTlsContext(const std::string& extraCaFile) {
    ssl::context tls(ssl::context::tls_client);
    tls.set_default_verify_paths();
    tls.set_verify_mode(ssl::verify_peer);
    if (!extraCaFile.empty()) {
        boost::system::error_code ec;
        tls.load_verify_file(extraCaFile, ec);
        if (ec) {
            throw std::runtime_error("Unable to load the CA file " + extraCaFile + ": " + ec.message());
        }
    }
    return tls;
}

}  // namespace

// Owns the I/O threads and everything the connections borrow from it (io_context,
// TLS context). Threading: `mutex` guards `connections`; the rest is set in the
// constructor and only read until the destructor, which runs with no other call in
// flight (the provider is gone by then).
class HttpClientServiceProvider::Impl {
public:
    explicit Impl(HttpClientOptions options)
        : clientOptions(std::move(options)),
          io(static_cast<int>(std::max<std::size_t>(clientOptions.threadCount, 1))),
          tls(makeTlsContext(clientOptions.extraCaFile)),
          work(asio::make_work_guard(io)) {
        const std::size_t threadCount = std::max<std::size_t>(clientOptions.threadCount, 1);
        for (std::size_t i = 0; i < threadCount; ++i) {
            threads.emplace_back([this] { doRunIoThread(); });
        }
    }

    ~Impl() {
        std::vector<std::shared_ptr<Connection>> live = doLiveConnections();
        Countdown aborted(live.size());
        for (const auto& connection : live) {
            connection->abort([&aborted] { aborted.arrive(); });
        }
        aborted.wait();
        // Every connection is closed; what is still queued would find nothing to do.
        work.reset();
        io.stop();
        for (auto& thread : threads) {
            thread.join();
        }
        // Sockets and strands must go before the io_context they belong to.
        for (const auto& connection : live) {
            connection->releaseIo();
        }
    }

    Future<std::unique_ptr<Message>> open(const http::HttpRequest& request) {
        WebSocketUrl url = parseWebSocketUrl(request.target);
        if (asciiLowered(request.method) != "get") {
            throw std::invalid_argument("A WebSocket upgrade is a get request, not " + request.method + ": " +
                                        request.target);
        }
        if (url.secure) {
            return doOpen<TlsStream>(std::move(url), request.headers);
        }
        return doOpen<PlainStream>(std::move(url), request.headers);
    }

private:
    template <class Stream>
    Future<std::unique_ptr<Message>> doOpen(WebSocketUrl url, const http::Headers& headers) {
        auto connection = ClientWebSocketConnection<Stream>::create(std::move(url), upgradeHeaders(headers), io,
                                                                    tls, clientOptions.handshakeTimeout);
        doTrack(connection);
        return connection->open();
    }

    // Remembers the connection for the destructor, forgetting those that are gone.
    void doTrack(const std::shared_ptr<Connection>& connection) {
        std::lock_guard<std::mutex> guard(mutex);
        connections.erase(std::remove_if(connections.begin(), connections.end(),
                                          [](const std::weak_ptr<Connection>& known) { return known.expired(); }),
                           connections.end());
        connections.push_back(connection);
    }

    std::vector<std::shared_ptr<Connection>> doLiveConnections() {
        std::lock_guard<std::mutex> guard(mutex);
        std::vector<std::shared_ptr<Connection>> live;
        for (const auto& known : connections) {
            if (auto connection = known.lock()) {
                live.push_back(std::move(connection));
            }
        }
        return live;
    }

    // A handler's exception would end the thread; report it and keep serving.
    void doRunIoThread() {
        for (;;) {
            try {
                io.run();
                return;
            } catch (const std::exception& error) {
                std::cerr << "HTTP client: an I/O handler failed: " << error.what() << std::endl;
            }
        }
    }

    const HttpClientOptions clientOptions;
    // Declared before everything that uses it, so that it is destroyed after them.
    asio::io_context io;
    ssl::context tls;
    asio::executor_work_guard<asio::io_context::executor_type> work;
    std::mutex mutex;
    std::vector<std::weak_ptr<Connection>> connections;
    std::vector<std::thread> threads;
};

HttpClientServiceProvider::HttpClientServiceProvider(HttpClientOptions options)
    : impl(std::make_unique<Impl>(std::move(options))) {}

HttpClientServiceProvider::~HttpClientServiceProvider() = default;

Future<std::unique_ptr<Message>> HttpClientServiceProvider::handle(std::unique_ptr<http::HttpRequest>&& request,
                                                                   Address&&, std::shared_ptr<Context>&&) {
    try {
        return impl->open(*request);
    } catch (const std::exception&) {
        return makeErrorFuture<std::unique_ptr<Message>>(std::current_exception());
    }
}

}  // namespace korvane::host
