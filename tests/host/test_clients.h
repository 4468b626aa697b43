#pragma once

// A blocking HTTP client for the server tests, over loopback, plain or
// TLS (any certificate is accepted). Every wait is bounded: an operation that does
// not complete within a few seconds throws. Beast stays inside test_clients.cpp.
//
// Threading: one client belongs to one thread.

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace korvane::host::test {

using HeaderList = std::vector<std::pair<std::string, std::string>>;

struct ClientResponse {
    int status = 0;
    std::multimap<std::string, std::string> headers;  // names in lower case
    std::string body;
    bool chunked = false;

    // The first value of `name` (lower case), or empty.
    std::string header(const std::string& name) const;
};

// A self-signed certificate for 127.0.0.1 (its files), made once for the whole run.
struct TestCertificate {
    TestCertificate();
    ~TestCertificate();
    std::string folder, cert, key;
};
const TestCertificate& certificate();

class HttpTestClient {
public:
    explicit HttpTestClient(unsigned short port, bool tls = false);
    ~HttpTestClient();

    // Sends bytes as they are.
    void sendRaw(const std::string& bytes);
    // Formats one HTTP/1.1 request with a Host header, and a Content-Length when there is a body.
    static std::string format(const std::string& method, const std::string& target, const HeaderList& headers = {},
                              const std::string& body = "");
    // Sends a request and reads its whole response.
    ClientResponse request(const std::string& method, const std::string& target, const HeaderList& headers = {},
                           const std::string& body = "");
    // Reads one whole response; `head` for the answer to a HEAD request.
    ClientResponse read(bool head = false);
    // Reads a response's header only; its body follows through readChunk().
    ClientResponse readHeader();
    // The next chunk of a chunked body, or nothing once the body ended.
    std::optional<std::string> readChunk();
    // Whether the server closed the connection within `wait` (without sending anything more).
    bool closedByServer(std::chrono::milliseconds wait);
    void close();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace korvane::host::test
