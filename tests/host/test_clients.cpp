#include "test_clients.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <stdexcept>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>

namespace korvane::host::test {

namespace {

namespace beast = boost::beast;
namespace bhttp = boost::beast::http;
namespace net = boost::asio;
using tcp = net::ip::tcp;
using TlsStream = beast::ssl_stream<beast::tcp_stream>;

constexpr std::chrono::seconds operationLimit(10);

// A response's status and headers (names in lower case), from a parsed message.
template <class Fields>
ClientResponse responseOf(const bhttp::response<bhttp::string_body, Fields>& message) {
    ClientResponse response;
    response.status = static_cast<int>(message.result_int());
    response.chunked = message.chunked();
    for (const auto& field : message) {
        std::string name(field.name_string());
        std::transform(name.begin(), name.end(), name.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        response.headers.emplace(std::move(name), std::string(field.value()));
    }
    return response;
}

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

struct HttpTestClient::Impl {
    Impl(unsigned short port, bool tls) : tlsContext(net::ssl::context::tls_client) {
        const tcp::endpoint endpoint(net::ip::make_address("127.0.0.1"), port);
        if (tls) {
            tlsContext.set_verify_mode(net::ssl::verify_none);
            secure = std::make_unique<TlsStream>(io, tlsContext);
        } else {
            plain = std::make_unique<beast::tcp_stream>(io);
        }
        must("connect", [&](auto&, auto handler) { lowest().async_connect(endpoint, handler); });
        if (secure) {
            must("TLS handshake",
                 [&](auto&, auto handler) { secure->async_handshake(net::ssl::stream_base::client, handler); });
        }
    }

    beast::tcp_stream& lowest() { return secure ? beast::get_lowest_layer(*secure) : *plain; }

    // Runs one asynchronous operation on the stream, plain or TLS, until it completes or `limit` passes.
    template <class Start>
    beast::error_code run(Start&& start, std::chrono::milliseconds limit = operationLimit) {
        beast::error_code result;
        bool done = false;
        auto handler = [&result, &done](beast::error_code error, auto&&...) {
            result = error;
            done = true;
        };
        lowest().expires_after(limit);
        secure ? start(*secure, handler) : start(*plain, handler);
        // Only until this operation completes: the stream's timer stays armed behind it.
        io.restart();
        while (!done && io.run_one() != 0) {
        }
        return result;
    }
    template <class Start>
    void must(const char* what, Start&& start) {
        if (const beast::error_code error = run(std::forward<Start>(start))) {
            throw std::runtime_error(std::string(what) + ": " + error.message());
        }
    }

    net::io_context io;
    net::ssl::context tlsContext;
    std::unique_ptr<TlsStream> secure;
    std::unique_ptr<beast::tcp_stream> plain;
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
    impl_->must("write", [&](auto& stream, auto handler) { net::async_write(stream, net::buffer(bytes), handler); });
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
    impl_->must("read response",
                [&](auto& stream, auto handler) { bhttp::async_read(stream, impl_->buffer, parser, handler); });
    ClientResponse response = responseOf(parser.get());
    response.body = parser.get().body();
    return response;
}

ClientResponse HttpTestClient::readHeader() {
    Impl& impl = *impl_;
    impl.parser.emplace();
    impl.parser->on_chunk_header(impl.onChunkHeader);
    impl.parser->on_chunk_body(impl.onChunkBody);
    impl.must("read header",
              [&](auto& stream, auto handler) { bhttp::async_read_header(stream, impl.buffer, *impl.parser, handler); });
    return responseOf(impl.parser->get());
}

std::optional<std::string> HttpTestClient::readChunk() {
    Impl& impl = *impl_;
    impl.chunkStarted = false;
    while (!(impl.chunkStarted && impl.chunk.size() == impl.chunkSize) && !impl.parser->is_done()) {
        impl.must("read chunk",
                  [&](auto& stream, auto handler) { bhttp::async_read_some(stream, impl.buffer, *impl.parser, handler); });
    }
    if (impl.parser->is_done() || impl.chunkSize == 0) {
        return std::nullopt;
    }
    return impl.chunk;
}

bool HttpTestClient::closedByServer(std::chrono::milliseconds wait) {
    char byte;
    const beast::error_code error =
        impl_->run([&](auto& stream, auto handler) { stream.async_read_some(net::buffer(&byte, 1), handler); }, wait);
    return error && error != beast::error::timeout;
}

void HttpTestClient::close() {
    beast::error_code ignored;
    impl_->lowest().socket().shutdown(tcp::socket::shutdown_both, ignored);
    impl_->lowest().close();
}

}  // namespace korvane::host::test
