#pragma once

// Which other sites may talk to the Bayeux path: the listed origins get CORS answers
// and may open WebSockets; any other site may not open a WebSocket to this server.
//
// Threading: immutable after construction; safe on any thread.

#include <string>
#include <string_view>
#include <vector>

namespace korvane::host {

class OriginPolicy {
public:
    explicit OriginPolicy(std::vector<std::string> allowedOrigins);

    // The origin is one of the configured ones, compared exactly.
    bool isListed(std::string_view origin) const;
    // A WebSocket upgrade with this Origin header (empty when absent) and this Host
    // header may go ahead: no origin, a listed one, or one naming the server's own
    // host and port under any scheme.
    bool allowsUpgrade(std::string_view origin, std::string_view host) const;

private:
    std::vector<std::string> allowed;
};

}  // namespace korvane::host
