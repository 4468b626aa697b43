#include "korvane/codec/utf8.h"

#include <cstdint>
#include <cstring>

namespace korvane::bayeux {

namespace {

constexpr std::uint64_t highBits = 0x8080808080808080ULL;

bool isContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

// The length of the sequence that starts at `at`, or 0 if it is malformed. The
// second byte's range carries the rules against overlongs, surrogates and code
// points above U+10FFFF, as in Unicode's table of well-formed byte sequences.
std::size_t sequenceLength(const unsigned char* at, std::size_t left) {
    const unsigned char lead = at[0];
    std::size_t length;
    unsigned char secondMin = 0x80;
    unsigned char secondMax = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) {
            secondMin = 0xA0;  // below: an overlong form of U+0000 to U+07FF
        } else if (lead == 0xED) {
            secondMax = 0x9F;  // above: the surrogates
        }
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) {
            secondMin = 0x90;  // below: an overlong form of U+0000 to U+FFFF
        } else if (lead == 0xF4) {
            secondMax = 0x8F;  // above: beyond U+10FFFF
        }
    } else {
        return 0;  // a stray continuation byte, an overlong two-byte lead, or 0xF5 and up
    }
    if (length > left || at[1] < secondMin || at[1] > secondMax) {
        return 0;
    }
    for (std::size_t k = 2; k < length; ++k) {
        if (!isContinuation(at[k])) {
            return 0;
        }
    }
    return length;
}

}  // namespace

bool isValidUtf8(const char* bytes, std::size_t size) {
    const auto* at = reinterpret_cast<const unsigned char*>(bytes);
    const unsigned char* const end = at + size;
    while (at < end) {
        // Plain ASCII, the bulk of any Bayeux text, is skipped eight bytes at a time.
        if (end - at >= 8) {
            std::uint64_t word;
            std::memcpy(&word, at, sizeof word);
            if ((word & highBits) == 0) {
                at += 8;
                continue;
            }
        }
        if (*at < 0x80) {
            ++at;
            continue;
        }
        const std::size_t length = sequenceLength(at, static_cast<std::size_t>(end - at));
        if (length == 0) {
            return false;
        }
        at += length;
    }
    return true;
}

}  // namespace korvane::bayeux
