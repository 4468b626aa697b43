#include "korvane/frame/random.h"

#include <sys/random.h>

#include <cerrno>
#include <cstdint>
#include <stdexcept>

namespace korvane::common {

namespace {

constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
constexpr unsigned alphabetSize = sizeof(alphabet) - 1;
// The largest multiple of 62 below 256: bytes at or above it are drawn again, so
// that every character is equally likely.
constexpr unsigned acceptBelow = 256 - 256 % alphabetSize;

void fillRandom(std::uint8_t* bytes, std::size_t count) {
    std::size_t filled = 0;
    while (filled < count) {
        ssize_t got = getrandom(bytes + filled, count - filled, 0);
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            throw std::runtime_error("Unable to read the system's random source");
        }
        filled += static_cast<std::size_t>(got);
    }
}

}  // namespace

std::string randomString(unsigned char length) {
    std::string text;
    text.reserve(length);
    std::uint8_t pool[64];
    while (text.size() < length) {
        fillRandom(pool, sizeof(pool));
        for (std::uint8_t byte : pool) {
            if (byte < acceptBelow && text.size() < length) {
                text.push_back(alphabet[byte % alphabetSize]);
            }
        }
    }
    return text;
}

}  // namespace korvane::common
