#include "korvane/host/browser_session.h"

#include <sys/random.h>

#include <cerrno>
#include <cstdint>
#include <stdexcept>

namespace korvane::host {

namespace {

constexpr std::size_t sessionIdBytes = 16;

bool isSessionId(std::string_view text) {
    if (text.size() != sessionIdBytes * 2) {
        return false;
    }
    for (char c : text) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) {
            return false;
        }
    }
    return true;
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) {
        text.remove_prefix(1);
    }
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) {
        text.remove_suffix(1);
    }
    return text;
}

}  // namespace

std::string newBrowserSessionId() {
    std::uint8_t bytes[sessionIdBytes];
    std::size_t filled = 0;
    while (filled < sizeof(bytes)) {
        ssize_t got = getrandom(bytes + filled, sizeof(bytes) - filled, 0);
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            throw std::runtime_error("Unable to read the system's random source");
        }
        filled += static_cast<std::size_t>(got);
    }
    static constexpr char hex[] = "0123456789abcdef";
    std::string text;
    text.reserve(sessionIdBytes * 2);
    for (std::uint8_t byte : bytes) {
        text.push_back(hex[byte >> 4]);
        text.push_back(hex[byte & 0x0f]);
    }
    return text;
}

std::string_view findBrowserSessionId(std::string_view cookieHeader, std::string_view name) {
    while (!cookieHeader.empty()) {
        std::size_t end = cookieHeader.find(';');
        std::string_view pair = trimmed(cookieHeader.substr(0, end));
        cookieHeader = end == std::string_view::npos ? std::string_view() : cookieHeader.substr(end + 1);
        std::size_t equals = pair.find('=');
        if (equals == std::string_view::npos || trimmed(pair.substr(0, equals)) != name) {
            continue;
        }
        std::string_view value = trimmed(pair.substr(equals + 1));
        if (isSessionId(value)) {
            return value;
        }
    }
    return {};
}

std::string browserSessionCookie(std::string_view name, std::string_view sessionId, bool secure) {
    std::string cookie;
    cookie.append(name).append("=").append(sessionId).append("; Path=/; HttpOnly; SameSite=Lax");
    if (secure) {
        cookie.append("; Secure");
    }
    return cookie;
}

}  // namespace korvane::host
