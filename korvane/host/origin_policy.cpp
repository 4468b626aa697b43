#include "korvane/host/origin_policy.h"

#include <algorithm>

#include "korvane/host/ascii_case.h"

namespace korvane::host {

namespace {

// "host[:port]" without a port that only repeats the scheme's default.
std::string authority(std::string_view text, std::string_view scheme) {
    std::string result = asciiLowered(text);
    const std::string defaultPort = scheme == "https" || scheme == "wss" ? ":443" : ":80";
    if (result.size() > defaultPort.size() &&
        result.compare(result.size() - defaultPort.size(), defaultPort.size(), defaultPort) == 0) {
        result.resize(result.size() - defaultPort.size());
    }
    return result;
}

}  // namespace

OriginPolicy::OriginPolicy(std::vector<std::string> allowedOrigins) : allowed(std::move(allowedOrigins)) {}

bool OriginPolicy::isListed(std::string_view origin) const {
    return !origin.empty() && std::find(allowed.begin(), allowed.end(), origin) != allowed.end();
}

bool OriginPolicy::allowsUpgrade(std::string_view origin, std::string_view host) const {
    if (origin.empty() || isListed(origin)) {
        return true;
    }
    const std::size_t schemeEnd = origin.find("://");
    if (schemeEnd == std::string_view::npos || host.empty()) {
        return false;
    }
    const std::string scheme = asciiLowered(origin.substr(0, schemeEnd));
    std::string_view originAuthority = origin.substr(schemeEnd + 3);
    originAuthority = originAuthority.substr(0, originAuthority.find('/'));
    // A Host header carries no scheme: its default port is the one of the origin's scheme.
    return authority(originAuthority, scheme) == authority(host, scheme);
}

}  // namespace korvane::host
