#include "korvane/codec/json_reader.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>

namespace korvane::bayeux::json {

namespace {

const char* const numberExpected = "Invalid JSON, expected a number";
const char* const collectionInvalid = "JSON parsing error, invalid collection.";

bool isDigit(std::uint8_t byte) { return byte >= '0' && byte <= '9'; }

[[noreturn]] void failNumber() { throw std::invalid_argument(numberExpected); }

bool atEnd(std::uint64_t cursor, const common::DataBuffer& buffer) { return cursor >= buffer.size; }

// Consumes a run of digits; returns false if the run ends the buffer.
bool skipDigits(std::uint64_t& cursor, const common::DataBuffer& buffer) {
    while (cursor < buffer.size && isDigit(buffer.data[cursor])) {
        ++cursor;
    }
    return cursor < buffer.size;
}

// The index of the first `byte` in data[from .. to), or `to` if there is none.
std::uint64_t findByte(const common::DataBuffer& buffer, std::uint8_t byte, std::uint64_t from, std::uint64_t to) {
    if (from >= to) {
        return to;
    }
    const void* found = std::memchr(buffer.data + from, byte, to - from);
    return found == nullptr ? to : static_cast<std::uint64_t>(static_cast<const std::uint8_t*>(found) - buffer.data);
}

// The offset of the first '"' or '\\' among the eight bytes at `bytes`, or 8 if there is none.
// A byte equal to the one looked for becomes zero under the xor, and a zero byte is the one
// whose bit 7 stays clear in (b & 0x7f) + 0x7f | b; no carry crosses from byte to byte.
unsigned firstQuoteOrBackslash(const std::uint8_t* bytes) {
    constexpr std::uint64_t ones = 0x0101010101010101ULL;
    constexpr std::uint64_t lowBits = 0x7f7f7f7f7f7f7f7fULL;
    std::uint64_t word;
    std::memcpy(&word, bytes, sizeof word);
    auto zeroBytes = [](std::uint64_t v) { return ~(((v & lowBits) + lowBits) | v | lowBits); };
    const std::uint64_t hits = zeroBytes(word ^ (ones * '"')) | zeroBytes(word ^ (ones * '\\'));
    if (hits == 0) {
        return sizeof word;
    }
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    return static_cast<unsigned>(__builtin_ctzll(hits)) / 8;
#else
    return static_cast<unsigned>(__builtin_clzll(hits)) / 8;
#endif
}

// Passes the body of a string whose opening quote is consumed; returns the index of
// the closing quote and leaves the cursor behind it. The end of the buffer throws `endText`.
// `hasEscape` is set when a backslash was passed. A backslash hides the byte behind it,
// whatever it is. Short strings (keys, ids) are passed eight bytes at a time, then byte by
// byte. Beyond that the scan jumps from backslash to backslash with memchr, and looks for a
// new closing quote only when the one it had found turned out to be escaped, so every byte
// is looked at a bounded number of times.
std::uint64_t scanStringBody(std::uint64_t& cursor, const common::DataBuffer& buffer, const char* endText,
                             bool& hasEscape) {
    constexpr std::uint64_t shortString = 32;
    std::uint64_t bytewiseEnd = std::min(buffer.size, cursor + shortString);
    while (cursor + sizeof(std::uint64_t) <= bytewiseEnd) {
        const unsigned offset = firstQuoteOrBackslash(buffer.data + cursor);
        cursor += offset;
        if (offset == sizeof(std::uint64_t)) {
            continue;
        }
        if (buffer.data[cursor++] == '"') {
            return cursor - 1;
        }
        hasEscape = true;
        ++cursor;
    }
    while (cursor < bytewiseEnd) {
        std::uint8_t byte = buffer.data[cursor++];
        if (byte == '\\') {
            hasEscape = true;
            ++cursor;
        } else if (byte == '"') {
            return cursor - 1;
        }
    }
    std::uint64_t quote = findByte(buffer, '"', cursor, buffer.size);
    for (;;) {
        if (cursor >= buffer.size) {
            throw std::invalid_argument(endText);
        }
        if (quote < cursor) {
            quote = findByte(buffer, '"', cursor, buffer.size);
        }
        std::uint64_t backslash = findByte(buffer, '\\', cursor, quote);
        if (backslash == quote) {
            if (quote >= buffer.size) {
                throw std::invalid_argument(endText);
            }
            cursor = quote + 1;
            return quote;
        }
        hasEscape = true;
        cursor = backslash + 2;
    }
}

int hexValue(std::uint8_t byte) {
    if (byte >= '0' && byte <= '9') {
        return byte - '0';
    }
    if (byte >= 'a' && byte <= 'f') {
        return byte - 'a' + 10;
    }
    if (byte >= 'A' && byte <= 'F') {
        return byte - 'A' + 10;
    }
    return -1;
}

// The four hexadecimal digits at data[at .. at + 4), which must lie before `end`.
std::uint32_t readHexQuad(const common::DataBuffer& buffer, std::uint64_t at, std::uint64_t end) {
    if (at + 4 > end) {
        throw std::invalid_argument("Invalid JSON hex escape sequence");
    }
    std::uint32_t value = 0;
    for (std::uint64_t i = at; i < at + 4; ++i) {
        int digit = hexValue(buffer.data[i]);
        if (digit < 0) {
            throw std::invalid_argument("Invalid JSON hex escape sequence");
        }
        value = value * 16 + static_cast<std::uint32_t>(digit);
    }
    return value;
}

void appendUtf8(std::string& out, std::uint32_t codePoint) {
    if (codePoint < 0x80) {
        out.push_back(static_cast<char>(codePoint));
    } else if (codePoint < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (codePoint >> 6)));
        out.push_back(static_cast<char>(0x80 | (codePoint & 0x3F)));
    } else if (codePoint < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (codePoint >> 12)));
        out.push_back(static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (codePoint & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (codePoint >> 18)));
        out.push_back(static_cast<char>(0x80 | ((codePoint >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (codePoint & 0x3F)));
    }
}

// Decodes the \u escape whose backslash stands at `at`, a surrogate pair included;
// returns the index behind the escape.
std::uint64_t decodeUnicodeEscape(const common::DataBuffer& buffer, std::uint64_t at, std::uint64_t end,
                                  std::string& out) {
    std::uint32_t unit = readHexQuad(buffer, at + 2, end);
    std::uint64_t behind = at + 6;
    if (unit < 0xD800 || unit > 0xDBFF) {
        appendUtf8(out, unit);
        return behind;
    }
    if (behind + 5 >= end) {
        throw std::invalid_argument("Invalid JSON surrogate pair");
    }
    if (buffer.data[behind] != '\\' || buffer.data[behind + 1] != 'u') {
        throw std::invalid_argument("Invalid JSON unicode escaped character");
    }
    std::uint32_t second = readHexQuad(buffer, behind + 2, end);
    if (second < 0xDC00 || second > 0xDFFF) {
        throw std::invalid_argument("Invalid JOSN surrogate pair second code unit");
    }
    appendUtf8(out, (((unit - 0xD800) << 10) | (second - 0xDC00)) + 0x10000);
    return behind + 6;
}

// 10^exponent as a 32-bit integer. A power beyond the 32-bit range (or a negative
// exponent, which rounds to zero) gives what the x86-64 conversion gives: INT32_MIN
// out of range, the truncated value otherwise.
std::uint32_t powerOfTen(std::int32_t exponent) {
    double power = std::pow(10.0, static_cast<double>(exponent));
    if (!(power < 2147483648.0)) {
        return 0x80000000u;
    }
    return static_cast<std::uint32_t>(static_cast<std::int32_t>(power));
}

// The closing bytes of the collections that skipValue has entered, innermost on top.
// Each level is one bit; the first 64 levels live inline so ordinary values allocate nothing.
class NestingStack {
public:
    bool empty() const { return depth == 0; }
    void push(bool isObject) {
        std::uint64_t word = depth / 64;
        std::uint64_t bit = std::uint64_t{1} << (depth % 64);
        if (word == 0) {
            inlineBits = isObject ? (inlineBits | bit) : (inlineBits & ~bit);
        } else {
            if (overflow.size() < word) {
                overflow.push_back(0);
            }
            std::uint64_t& bits = overflow[word - 1];
            bits = isObject ? (bits | bit) : (bits & ~bit);
        }
        ++depth;
    }
    void pop() { --depth; }
    bool topIsObject() const {
        std::uint64_t top = depth - 1;
        std::uint64_t word = top / 64;
        std::uint64_t bits = word == 0 ? inlineBits : overflow[word - 1];
        return ((bits >> (top % 64)) & 1) != 0;
    }

private:
    std::uint64_t depth = 0;
    std::uint64_t inlineBits = 0;
    std::vector<std::uint64_t> overflow;
};

// Passes a key and its colon, the opening of each member of an object.
void skipMemberKey(std::uint64_t& cursor, const common::DataBuffer& buffer) {
    skipString(cursor, buffer);
    expectChar(cursor, buffer, ':');
}

// Passes a value that is not a collection.
void skipScalar(std::uint64_t& cursor, const common::DataBuffer& buffer, char first) {
    switch (first) {
    case '"':
        skipString(cursor, buffer);
        break;
    case 't':
        expectLiteral(cursor, buffer, "true");
        break;
    case 'f':
        expectLiteral(cursor, buffer, "false");
        break;
    case 'n':
        expectLiteral(cursor, buffer, "null");
        break;
    default:
        skipNumber(cursor, buffer);
        break;
    }
}

}  // namespace

char nextChar(std::uint64_t& cursor, const common::DataBuffer& buffer) {
    skipWhitespace(cursor, buffer);
    if (cursor >= buffer.size) {
        throw std::invalid_argument("Invalid JSON, unexpected end");
    }
    return static_cast<char>(buffer.data[cursor++]);
}

void expectChar(std::uint64_t& cursor, const common::DataBuffer& buffer, char expected) {
    skipWhitespace(cursor, buffer);
    if (cursor < buffer.size && buffer.data[cursor] == static_cast<std::uint8_t>(expected)) {
        ++cursor;
        return;
    }
    throw std::invalid_argument(std::string("Invalid JSON, expected '") + expected + "'");
}

void expectLiteral(std::uint64_t& cursor, const common::DataBuffer& buffer, const char* literal) {
    expectChar(cursor, buffer, literal[0]);
    for (const char* next = literal + 1; *next != '\0'; ++next) {
        // The cursor must stand inside the buffer after each further byte, so a
        // literal that ends the buffer is refused.
        if (cursor >= buffer.size || buffer.data[cursor] != static_cast<std::uint8_t>(*next) ||
            ++cursor >= buffer.size) {
            throw std::invalid_argument(std::string("Invalid JSON, expected a literal") + literal);
        }
    }
}

void skipString(std::uint64_t& cursor, const common::DataBuffer& buffer) {
    expectChar(cursor, buffer, '"');
    bool hasEscape = false;
    scanStringBody(cursor, buffer, "Invalid JSON, expected a string", hasEscape);
}

void skipNumber(std::uint64_t& cursor, const common::DataBuffer& buffer) {
    char first = peekChar(cursor, buffer);
    if (!isDigit(first) && first != '-') {
        failNumber();
    }
    std::uint8_t c = static_cast<std::uint8_t>(first);
    if (c == '-') {
        if (atEnd(++cursor, buffer)) {
            failNumber();
        }
        c = buffer.data[cursor];
    }
    if (c == '0') {
        if (atEnd(++cursor, buffer)) {
            failNumber();
        }
    } else {
        if (!isDigit(c)) {
            failNumber();
        }
        if (atEnd(++cursor, buffer) || !skipDigits(cursor, buffer)) {
            return;
        }
    }
    std::uint8_t d = buffer.data[cursor];
    if (d == '.') {
        if (atEnd(++cursor, buffer) || !isDigit(buffer.data[cursor])) {
            failNumber();
        }
        if (atEnd(++cursor, buffer) || !skipDigits(cursor, buffer)) {
            return;
        }
        d = buffer.data[cursor];
    }
    if (d != 'e' && d != 'E') {
        return;
    }
    if (atEnd(++cursor, buffer)) {
        failNumber();
    }
    if (buffer.data[cursor] == '+' || buffer.data[cursor] == '-') {
        if (atEnd(++cursor, buffer)) {
            failNumber();
        }
    }
    if (!isDigit(buffer.data[cursor])) {
        failNumber();
    }
    skipDigits(cursor, buffer);
}

// The value grammar is recursive; this walk keeps the open collections on an explicit
// stack instead of the native one, so a body of any depth cannot exhaust the thread's
// stack. Each step does what one level of the recursive walk would do at that point,
// with the same texts: in particular the end of the buffer right after a complete
// element ends every open level silently.
void skipValue(std::uint64_t& cursor, const common::DataBuffer& buffer) {
    NestingStack open;
    for (;;) {
        // Enter one value: collections are opened, anything else is passed whole.
        char first = peekChar(cursor, buffer);
        if (first == '[' || first == '{') {
            bool isObject = first == '{';
            char close = isObject ? '}' : ']';
            ++cursor;
            char c = peekChar(cursor, buffer);
            if (c == close) {
                ++cursor;
            } else if (cursor < buffer.size) {
                open.push(isObject);
                if (isObject) {
                    skipMemberKey(cursor, buffer);
                }
                continue;
            }
        } else {
            skipScalar(cursor, buffer, first);
        }
        // A value is complete: close the collections that end here, move on to the next element.
        for (;;) {
            if (open.empty() || cursor >= buffer.size) {
                return;
            }
            bool isObject = open.topIsObject();
            char c = nextChar(cursor, buffer);
            if (c == (isObject ? '}' : ']')) {
                open.pop();
                continue;
            }
            if (c != ',') {
                throw std::invalid_argument(collectionInvalid);
            }
            if (cursor >= buffer.size) {
                return;
            }
            if (isObject) {
                skipMemberKey(cursor, buffer);
            }
            break;
        }
    }
}

std::string readStringOrNull(std::uint64_t& cursor, const common::DataBuffer& buffer) {
    if (peekChar(cursor, buffer) == 'n') {
        expectLiteral(cursor, buffer, "null");
        return std::string();
    }
    expectChar(cursor, buffer, '"');
    std::uint64_t start = cursor;
    bool hasEscape = false;
    std::uint64_t end = scanStringBody(cursor, buffer, "Invalid JSON string", hasEscape);
    if (!hasEscape) {
        // Nothing to decode: the common case costs one copy and no second pass.
        return std::string(reinterpret_cast<const char*>(buffer.data) + start, end - start);
    }
    return decodeStringSpan(buffer, start, end);
}

std::int32_t readInteger(std::uint64_t& cursor, const common::DataBuffer& buffer) {
    char first = peekChar(cursor, buffer);
    if (!isDigit(first) && first != '-') {
        failNumber();
    }
    std::uint8_t c = static_cast<std::uint8_t>(first);
    bool negative = c == '-';
    if (negative) {
        if (atEnd(++cursor, buffer)) {
            failNumber();
        }
        c = buffer.data[cursor];
    }
    // Unsigned arithmetic gives the 32-bit wrap-around without undefined behaviour.
    std::uint32_t value = 0;
    auto signedResult = [&negative](std::uint32_t magnitude) {
        return static_cast<std::int32_t>(negative ? 0u - magnitude : magnitude);
    };
    if (c == '0') {
        if (atEnd(++cursor, buffer)) {
            failNumber();
        }
    } else {
        if (!isDigit(c)) {
            failNumber();
        }
        for (; cursor < buffer.size && isDigit(buffer.data[cursor]); ++cursor) {
            value = value * 10 + (buffer.data[cursor] - '0');
        }
        if (cursor >= buffer.size) {
            return signedResult(value);
        }
    }
    std::uint8_t d = buffer.data[cursor];
    if (d == '.') {
        ++cursor;
        throw std::invalid_argument("Invalid JSON, expected an integer");
    }
    if (d != 'e' && d != 'E') {
        return signedResult(value);
    }
    if (atEnd(++cursor, buffer)) {
        failNumber();
    }
    if (buffer.data[cursor] == '-') {
        throw std::invalid_argument("Invalid JSON, expected an integer.");
    }
    if (buffer.data[cursor] == '+' && atEnd(++cursor, buffer)) {
        failNumber();
    }
    if (!isDigit(buffer.data[cursor])) {
        failNumber();
    }
    std::uint32_t exponent = 0;
    for (; cursor < buffer.size && isDigit(buffer.data[cursor]); ++cursor) {
        exponent = exponent * 10 + (buffer.data[cursor] - '0');
    }
    return signedResult(value * powerOfTen(static_cast<std::int32_t>(exponent)));
}

bool readBoolean(std::uint64_t& cursor, const common::DataBuffer& buffer) {
    char first = peekChar(cursor, buffer);
    if (first == 't') {
        expectLiteral(cursor, buffer, "true");
        return true;
    }
    if (first == 'f') {
        expectLiteral(cursor, buffer, "false");
        return false;
    }
    throw std::invalid_argument("Invalid JSON boolean");
}

void readStringList(std::uint64_t& cursor, const common::DataBuffer& buffer, char open, char close,
                    std::vector<std::string>& out) {
    expectChar(cursor, buffer, open);
    char c = peekChar(cursor, buffer);
    if (c == close) {
        ++cursor;
    }
    while (cursor < buffer.size && c != close) {
        out.push_back(readStringOrNull(cursor, buffer));
        if (cursor >= buffer.size) {
            return;
        }
        c = nextChar(cursor, buffer);
        if (c != close && c != ',') {
            throw std::invalid_argument(collectionInvalid);
        }
    }
}

std::string decodeStringSpan(const common::DataBuffer& buffer, std::uint64_t start, std::uint64_t end) {
    std::string out;
    out.reserve(end - start);
    std::uint64_t i = start;
    while (i < end) {
        std::uint64_t plainEnd = i;
        while (plainEnd < end && buffer.data[plainEnd] != '\\') {
            ++plainEnd;
        }
        out.append(reinterpret_cast<const char*>(buffer.data) + i, plainEnd - i);
        i = plainEnd;
        if (i >= end) {
            break;
        }
        if (i + 1 >= end) {
            throw std::invalid_argument("Invalid JSON escape sequence");
        }
        std::uint8_t escaped = buffer.data[i + 1];
        switch (escaped) {
        case 'n':
            out.push_back('\n');
            break;
        case 't':
            out.push_back('\t');
            break;
        case 'r':
            out.push_back('\r');
            break;
        case 'b':
            out.push_back('\b');
            break;
        case 'f':
            out.push_back('\f');
            break;
        case 'u':
            i = decodeUnicodeEscape(buffer, i, end, out);
            continue;
        default:
            out.push_back(static_cast<char>(escaped));
            break;
        }
        i += 2;
    }
    return out;
}

}  // namespace korvane::bayeux::json
