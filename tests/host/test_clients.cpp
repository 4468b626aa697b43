#include "test_clients.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <stdexcept>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

namespace korvane::host::test {

namespace {

namespace beast = boost::beast;
namespace bhttp = boost::beast::http;
namespace websocket = boost::beast::websocket;
namespace net = boost::asio;
using tcp = net::ip::tcp;
using PlainStream = beast::tcp_stream;
using TlsStream = beast::ssl_stream<beast::tcp_stream>;

constexpr std::chrono::seconds operationLimit(10);

std::string lowered(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return result;
}

template <class Fields>
void copyHeaders(const Fields& fields, ClientResponse& response) {
    for (const auto& field : fields) {
        response.headers.emplace(lowered(field.name_string()), std::string(field.value()));
    }
}

// Runs one asynchronous operation on the client's own context until it completes;
// the stream's timeout bounds it.
class Runner {
public:
    template <class Start>
    beast::error_code run(Start&& start) {
        beast::error_code result;
        bool done = false;
        start([&result, &done](beast::error_code error, auto&&...) {
            result = error;
            done = true;
        });
        // Only until this operation completes: the streams' timers stay armed behind it.
        io.restart();
        while (!done && io.run_one() != 0) {
        }
        return result;
    }

    net::io_context io;
};

void check(beast::error_code error, const char* what) {
    if (error) {
        throw std::runtime_error(std::string(what) + ": " + error.message());
    }
}

// A connected stream, plain or TLS, on the runner's context.
struct Connection {
    Connection(Runner& runner, unsigned short port, bool tls) : tlsContext(net::ssl::context::tls_client) {
        tcp::endpoint endpoint(net::ip::make_address("127.0.0.1"), port);
        if (tls) {
            tlsContext.set_verify_mode(net::ssl::verify_none);
            secure = std::make_unique<TlsStream>(runner.io, tlsContext);
            lowest().expires_after(operationLimit);
            check(runner.run([&](auto handler) { lowest().async_connect(endpoint, handler); }), "connect");
            lowest().expires_after(operationLimit);
            check(runner.run([&](auto handler) { secure->async_handshake(net::ssl::stream_base::client, handler); }),
                  "TLS handshake");
        } else {
            plain = std::make_unique<PlainStream>(runner.io);
            lowest().expires_after(operationLimit);
            check(runner.run([&](auto handler) { plain->async_connect(endpoint, handler); }), "connect");
        }
    }

    beast::tcp_stream& lowest() { return secure ? beast::get_lowest_layer(*secure) : *plain; }

    template <class F>
    auto with(F&& f) {
        return secure ? f(*secure) : f(*plain);
    }

    net::ssl::context tlsContext;
    std::unique_ptr<TlsStream> secure;
    std::unique_ptr<PlainStream> plain;
};

}  // namespace

TestCertificate::TestCertificate() {
    char pattern[] = "/tmp/korvane-host-tls-XXXXXX";
    folder = ::mkdtemp(pattern);
    cert = folder + "/cert.pem";
    key = folder + "/key.pem";
    const std::string command = "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2"
                                " -subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1 -keyout " +
                                key + " -out " + cert + " 2>/dev/null";
    if (std::system(command.c_str()) != 0) {
        throw std::runtime_error("openssl could not make a test certificate");
    }
}

TestCertificate::~TestCertificate() { std::filesystem::remove_all(folder); }

const TestCertificate& certificate() {
    static const TestCertificate made;
    return made;
}

std::string ClientResponse::header(const std::string& name) const {
    auto found = headers.find(name);
    return found == headers.end() ? std::string() : found->second;
}

// ---- HTTP ---------------------------------------------------------------------------

struct HttpTestClient::Impl {
    Impl(unsigned short port, bool tls) : connection(runner, port, tls) {}

    Runner runner;
    Connection connection;
    beast::flat_buffer buffer;
    std::optional<bhttp::response_parser<bhttp::string_body>> parser;
    std::string chunk;
    std::size_t chunkSize = 0;
    bool chunkStarted = false;
    // The parser keeps references to these.
    std::function<void(std::uint64_t, std::string_view, beast::error_code&)> onChunkHeader =
        [this](std::uint64_t size, std::string_view, beast::error_code&) {
            chunkSize = size;
            chunkStarted = true;
            chunk.clear();
        };
    std::function<std::size_t(std::uint64_t, std::string_view, beast::error_code&)> onChunkBody =
        [this](std::uint64_t, std::string_view body, beast::error_code&) {
            chunk.append(body);
            return body.size();
        };
};

HttpTestClient::HttpTestClient(unsigned short port, bool tls) : impl_(std::make_unique<Impl>(port, tls)) {}

HttpTestClient::~HttpTestClient() = default;

void HttpTestClient::sendRaw(const std::string& bytes) {
    impl_->connection.lowest().expires_after(operationLimit);
    check(impl_->runner.run([&](auto handler) {
        impl_->connection.with([&](auto& stream) { net::async_write(stream, net::buffer(bytes), handler); });
    }),
          "write");
}

std::string HttpTestClient::format(const std::string& method, const std::string& target, const HeaderList& headers,
                                   const std::string& body) {
    std::string text = method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n";
    for (const auto& [name, value] : headers) {
        text += name + ": " + value + "\r\n";
    }
    if (!body.empty()) {
        text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    }
    return text + "\r\n" + body;
}

ClientResponse HttpTestClient::request(const std::string& method, const std::string& target,
                                       const HeaderList& headers, const std::string& body) {
    sendRaw(format(method, target, headers, body));
    return read(method == "HEAD");
}

ClientResponse HttpTestClient::read(bool head) {
    bhttp::response_parser<bhttp::string_body> parser;
    // A response to HEAD announces a body it does not carry: the parser must not wait for it.
    parser.skip(head);
    parser.body_limit(64 << 20);
    impl_->connection.lowest().expires_after(operationLimit);
    check(impl_->runner.run([&](auto handler) {
        impl_->connection.with([&](auto& stream) { bhttp::async_read(stream, impl_->buffer, parser, handler); });
    }),
          "read response");
    ClientResponse response;
    response.status = static_cast<int>(parser.get().result_int());
    response.chunked = parser.get().chunked();
    copyHeaders(parser.get(), response);
    response.body = parser.get().body();
    return response;
}

ClientResponse HttpTestClient::readHeader() {
    Impl& impl = *impl_;
    impl.parser.emplace();
    impl.parser->on_chunk_header(impl.onChunkHeader);
    impl.parser->on_chunk_body(impl.onChunkBody);
    impl.connection.lowest().expires_after(operationLimit);
    check(impl.runner.run([&](auto handler) {
        impl.connection.with([&](auto& stream) { bhttp::async_read_header(stream, impl.buffer, *impl.parser, handler); });
    }),
          "read header");
    ClientResponse response;
    response.status = static_cast<int>(impl.parser->get().result_int());
    response.chunked = impl.parser->get().chunked();
    copyHeaders(impl.parser->get(), response);
    return response;
}

std::optional<std::string> HttpTestClient::readChunk() {
    Impl& impl = *impl_;
    impl.chunkStarted = false;
    while (!(impl.chunkStarted && impl.chunk.size() == impl.chunkSize) && !impl.parser->is_done()) {
        impl.connection.lowest().expires_after(operationLimit);
        check(impl.runner.run([&](auto handler) {
            impl.connection.with(
                [&](auto& stream) { bhttp::async_read_some(stream, impl.buffer, *impl.parser, handler); });
        }),
              "read chunk");
    }
    if (impl.parser->is_done() || impl.chunkSize == 0) {
        return std::nullopt;
    }
    return impl.chunk;
}

bool HttpTestClient::closedByServer(std::chrono::milliseconds wait) {
    char byte;
    impl_->connection.lowest().expires_after(wait);
    beast::error_code error = impl_->runner.run([&](auto handler) {
        impl_->connection.with([&](auto& stream) { stream.async_read_some(net::buffer(&byte, 1), handler); });
    });
    return error && error != beast::error::timeout;
}

void HttpTestClient::close() {
    beast::error_code ignored;
    impl_->connection.lowest().socket().shutdown(tcp::socket::shutdown_both, ignored);
    impl_->connection.lowest().close();
}

// ---- WebSocket ----------------------------------------------------------------------

struct WebSocketTestClient::Impl {
    Impl(unsigned short port, bool tls) : connection(runner, port, tls), host("127.0.0.1:" + std::to_string(port)) {
        if (tls) {
            secure = std::make_unique<websocket::stream<TlsStream&>>(*connection.secure);
        } else {
            plain = std::make_unique<websocket::stream<PlainStream&>>(*connection.plain);
        }
    }

    template <class F>
    auto with(F&& f) {
        return secure ? f(*secure) : f(*plain);
    }

    // Upgrades; the server's response lands in `handshake` whether or not it agreed.
    beast::error_code upgrade(const std::string& target, const HeaderList& headers) {
        connection.lowest().expires_never();
        return with([&](auto& socket) {
            websocket::stream_base::timeout timeouts = websocket::stream_base::timeout::suggested(beast::role_type::client);
            timeouts.handshake_timeout = operationLimit;
            timeouts.idle_timeout = operationLimit;
            socket.set_option(timeouts);
            socket.set_option(websocket::stream_base::decorator([headers](websocket::request_type& request) {
                for (const auto& [name, value] : headers) {
                    request.set(name, value);
                }
            }));
            return runner.run([&](auto handler) { socket.async_handshake(response, host, target, handler); });
        });
    }

    Runner runner;
    Connection connection;
    const std::string host;
    std::unique_ptr<websocket::stream<TlsStream&>> secure;
    std::unique_ptr<websocket::stream<PlainStream&>> plain;
    websocket::response_type response;
    ClientResponse handshake;
    beast::flat_buffer buffer;
    int closeCode = 0;
};

WebSocketTestClient::WebSocketTestClient(unsigned short port, const std::string& target, const HeaderList& headers,
                                         bool tls)
    : impl_(std::make_unique<Impl>(port, tls)) {
    check(impl_->upgrade(target, headers), "WebSocket handshake");
    impl_->handshake.status = static_cast<int>(impl_->response.result_int());
    copyHeaders(impl_->response, impl_->handshake);
}

WebSocketTestClient::~WebSocketTestClient() = default;

ClientResponse WebSocketTestClient::refusedUpgrade(unsigned short port, const std::string& target,
                                                   const HeaderList& headers) {
    Impl impl(port, false);
    impl.upgrade(target, headers);
    ClientResponse response;
    response.status = static_cast<int>(impl.response.result_int());
    copyHeaders(impl.response, response);
    response.body = impl.response.body();
    return response;
}

const ClientResponse& WebSocketTestClient::handshake() const { return impl_->handshake; }

void WebSocketTestClient::write(const std::string& text) {
    check(impl_->with([&](auto& socket) {
        socket.text(true);
        return impl_->runner.run([&](auto handler) { socket.async_write(net::buffer(text), handler); });
    }),
          "WebSocket write");
}

void WebSocketTestClient::writeFragments(const std::vector<std::string>& fragments) {
    for (std::size_t i = 0; i < fragments.size(); ++i) {
        const bool last = i + 1 == fragments.size();
        check(impl_->with([&](auto& socket) {
            socket.text(true);
            return impl_->runner.run(
                [&](auto handler) { socket.async_write_some(last, net::buffer(fragments[i]), handler); });
        }),
              "WebSocket fragment write");
    }
}

std::optional<std::string> WebSocketTestClient::read() {
    beast::error_code error =
        impl_->with([&](auto& socket) { return impl_->runner.run([&](auto handler) { socket.async_read(impl_->buffer, handler); }); });
    if (error == websocket::error::closed) {
        impl_->closeCode = impl_->with([](auto& socket) { return static_cast<int>(socket.reason().code); });
        return std::nullopt;
    }
    check(error, "WebSocket read");
    std::string message = beast::buffers_to_string(impl_->buffer.data());
    impl_->buffer.consume(impl_->buffer.size());
    return message;
}

int WebSocketTestClient::closeCode() const { return impl_->closeCode; }

void WebSocketTestClient::close() {
    impl_->with([&](auto& socket) {
        return impl_->runner.run([&](auto handler) { socket.async_close(websocket::close_code::normal, handler); });
    });
}

}  // namespace korvane::host::test
