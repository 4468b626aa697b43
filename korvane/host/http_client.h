#pragma once

// The host's outbound HTTP client: opens WebSockets to ws:// and wss:// URLs for the
// library's WebSocket client transport. A request is an http::HttpClientRequest
// whose target is the URL and whose method is "get"; its headers go out on the
// upgrade request, except "connection", "upgrade", "host" and the "sec-websocket-*"
// headers, which the upgrade itself sets. The answer is an http::WebSocket:
//   - `inbound` publishes the messages read from the peer, one WebSocketFrame per
//     whole message (first byte 129 for text, 130 for binary). The next message is
//     read only while the subscriber has demand. The peer's close ends it with
//     onComplete, a broken connection with onError; cancel() closes the socket.
//   - `outbound` takes the frames to write. It asks its publisher for one frame at
//     a time, the next once the previous write completed. Its onComplete sends a
//     close frame after the queued frames; its onError closes at once.
// A failure before the socket is open fails the future with a text that names the
// cause: a malformed URL or an unsupported scheme, a name that does not resolve, a
// refused connection, an untrusted certificate or failed TLS handshake, or an
// upgrade the server refused ("WebSocket upgrade refused by <url>: HTTP 403").
//
// Threading: the provider owns an io_context run by `threadCount` threads, started
// in the constructor and stopped in the destructor (not by the registry's start and
// stop). Every connection runs on its own strand; calls from the library on any
// thread are posted to it, so they never run I/O or the peer's callbacks inline.
// A connection lives while either of its two ends is referenced or I/O of it is
// pending; it never refers to the provider. The destructor closes the connections
// that are still open (their inbound subscribers get onError "The HTTP client
// service stopped"), fails the upgrades in progress the same way, and joins the
// threads; it must not run on one of those threads.

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

#include "korvane/frame/http.h"

namespace korvane::host {

struct HttpClientOptions {
    // Threads that run the client's I/O.
    std::size_t threadCount = 1;
    // A PEM file of certificate authorities to trust besides the system's store
    // (a private CA, or a test's own). Empty: the system's store only.
    std::string extraCaFile;
    // Limit on the name resolution, TCP connect and TLS handshake together, and
    // separately on the upgrade and on the closing handshake.
    std::chrono::milliseconds handshakeTimeout{30000};
};

class HttpClientServiceProvider : public http::HttpServiceProvider {
public:
    // Throws std::runtime_error when `extraCaFile` cannot be loaded.
    explicit HttpClientServiceProvider(HttpClientOptions options = HttpClientOptions());
    ~HttpClientServiceProvider() override;
    HttpClientServiceProvider(const HttpClientServiceProvider&) = delete;
    HttpClientServiceProvider& operator=(const HttpClientServiceProvider&) = delete;

    // Opens a WebSocket to `request->target`; the future yields an http::WebSocket.
    // Resolves on one of the client's threads, or at once for a malformed request.
    Future<std::unique_ptr<Message>> handle(std::unique_ptr<http::HttpRequest>&& request, Address&& address,
                                            std::shared_ptr<Context>&& context) override;

private:
    class Impl;
    std::unique_ptr<Impl> impl;
};

}  // namespace korvane::host
