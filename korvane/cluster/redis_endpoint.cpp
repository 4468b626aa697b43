#include "korvane/cluster/redis_endpoint.h"

#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <string_view>

namespace korvane::cluster {

namespace {

constexpr std::string_view scheme = "redis://";

[[noreturn]] void refuse(const std::string& why) { throw std::invalid_argument("invalid Redis URL: " + why); }

unsigned long parseDecimal(std::string_view text, unsigned long max, const char* what) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string_view::npos) {
        refuse(std::string("bad ") + what);
    }
    const std::string digits(text);
    errno = 0;
    const unsigned long value = std::strtoul(digits.c_str(), nullptr, 10);
    if (errno != 0 || value > max) {
        refuse(std::string("bad ") + what);
    }
    return value;
}

// user:password, :password or password, before the '@'.
void readCredentials(std::string_view userInfo, RedisEndpoint& endpoint) {
    const std::size_t colon = userInfo.find(':');
    if (colon == std::string_view::npos) {
        endpoint.password = std::string(userInfo);
        return;
    }
    endpoint.user = std::string(userInfo.substr(0, colon));
    endpoint.password = std::string(userInfo.substr(colon + 1));
}

void readHostAndPort(std::string_view authority, RedisEndpoint& endpoint) {
    std::string_view port;
    if (!authority.empty() && authority.front() == '[') {
        const std::size_t close = authority.find(']');
        if (close == std::string_view::npos) {
            refuse("unclosed [ in host");
        }
        endpoint.host = std::string(authority.substr(1, close - 1));
        const std::string_view after = authority.substr(close + 1);
        if (!after.empty() && after.front() != ':') {
            refuse("bad host");
        }
        port = after.empty() ? after : after.substr(1);
    } else {
        const std::size_t colon = authority.find(':');
        endpoint.host = std::string(authority.substr(0, colon));
        port = colon == std::string_view::npos ? std::string_view() : authority.substr(colon + 1);
        if (colon != std::string_view::npos && port.empty()) {
            refuse("bad port");
        }
    }
    if (endpoint.host.empty()) {
        refuse("no host");
    }
    if (!port.empty()) {
        const unsigned long number = parseDecimal(port, 65535, "port");
        if (number == 0) {
            refuse("bad port");
        }
        endpoint.port = static_cast<unsigned short>(number);
    }
}

}  // namespace

std::string RedisEndpoint::describe() const {
    const bool v6 = host.find(':') != std::string::npos;
    return (v6 ? "[" + host + "]" : host) + ":" + std::to_string(port) + "/" + std::to_string(database);
}

RedisEndpoint parseRedisUrl(const std::string& url, const char* fallbackPassword) {
    std::string_view rest(url);
    if (rest.substr(0, scheme.size()) != scheme) {
        refuse("it must start with redis://");
    }
    rest.remove_prefix(scheme.size());
    RedisEndpoint endpoint;
    const std::size_t slash = rest.find('/');
    const std::string_view authorityPart = rest.substr(0, slash);
    const std::size_t at = authorityPart.rfind('@');
    if (at != std::string_view::npos) {
        readCredentials(authorityPart.substr(0, at), endpoint);
    }
    readHostAndPort(at == std::string_view::npos ? authorityPart : authorityPart.substr(at + 1), endpoint);
    if (slash != std::string_view::npos && slash + 1 < rest.size()) {
        endpoint.database = static_cast<unsigned>(parseDecimal(rest.substr(slash + 1), 1u << 20, "database"));
    }
    if (endpoint.password.empty() && fallbackPassword != nullptr) {
        endpoint.password = fallbackPassword;
    }
    return endpoint;
}

}  // namespace korvane::cluster
