#include "korvane/host/websocket_frames.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace korvane::host {
namespace {

TEST(WebSocketFrames, MasksPayloadsBehindTheirLengthEncoding) {
    const struct {
        std::size_t size;
        std::string header;  // before the mask key
    } cases[] = {{13, "\x81\x8D"}, {300, std::string("\x81\xFE\x01\x2C", 4)},
                 {70000, std::string("\x81\xFF\0\0\0\0\0\x01\x11\x70", 10)}};
    for (const auto& c : cases) {
        const std::string payload(c.size, 'p');
        std::string frame;
        appendMaskedFrame(frame, Opcode::text, payload, 0x01020304);
        ASSERT_EQ(frame.size(), c.header.size() + 4 + c.size);
        EXPECT_EQ(frame.substr(0, c.header.size()), c.header) << c.size;
        EXPECT_EQ(frame.substr(c.header.size(), 4), "\x01\x02\x03\x04");
        std::string unmasked = frame.substr(c.header.size() + 4);
        for (std::size_t i = 0; i < unmasked.size(); ++i) {
            unmasked[i] = static_cast<char>(unmasked[i] ^ (i % 4 + 1));
        }
        EXPECT_EQ(unmasked, payload);
    }
}

// Each case feeds its chunks as separate reads and lists what next() gave after each.
// Masked cases are a client's frames read by the server, the others a server's read by a client.
TEST(WebSocketFrames, CutsPeerBytesIntoFrames) {
    const std::string big(300, 'b');
    std::string maskedHello;
    appendMaskedFrame(maskedHello, Opcode::text, "hello, world", 0xA1B2C3D4);
    std::string maskedPing;
    appendMaskedFrame(maskedPing, Opcode::ping, "p", 7);
    const struct {
        bool masked;
        std::vector<std::string> reads;
        std::string outcome;
    } cases[] = {
        {false, {std::string("\x81\x02hi\x89\x00", 6)}, "text:hi ping: |"},
        {false, {"\x81", "\x02h", "i"}, "||text:hi |"},
        {false, {std::string("\x01\x01", 2) + "a", std::string("\x80\x01", 2) + "b"}, "text-:a |cont:b |"},
        {false, {std::string("\x81\x7E\x01\x2C", 4), big}, "|text:" + big + " |"},
        {false, {std::string("\xC1\x00", 2)}, "malformed"},
        {false, {"\x81\x81mask"}, "malformed"},
        {false, {std::string("\x81\x7F\0\0\0\0\0\x01\0\0", 10)}, "too big"},
        {true, {maskedHello + maskedPing}, "text:hello, world ping:p |"},
        {true, {maskedHello.substr(0, 5), maskedHello.substr(5)}, "|text:hello, world |"},
        {true, {std::string("\x81\x02hi", 4)}, "malformed"},                   // a client's frame must be masked
        {true, {std::string("\x83\x80\0\0\0\0", 6)}, "malformed"},             // unknown opcode
        {true, {std::string("\x09\x80\0\0\0\0", 6)}, "malformed"},             // fragmented ping
        {true, {std::string("\x89\xFE\0\x7E", 4) + std::string(130, 0)}, "malformed"},  // ping over 125 bytes
        {true, {std::string("\x82\xFE\x04\x01", 4)}, "too big"},
    };
    const char* names[16] = {"cont", "text", "binary", "", "", "", "", "", "close", "ping", "pong"};
    for (const auto& c : cases) {
        FrameReader reader(1024, c.masked);
        std::string outcome;
        for (const std::string& bytes : c.reads) {
            std::memcpy(reader.space(), bytes.data(), bytes.size());
            reader.commit(bytes.size());
            Frame frame;
            FrameReader::Status status;
            while ((status = reader.next(frame)) == FrameReader::Status::frame) {
                outcome += std::string(names[static_cast<int>(frame.opcode)]) + (frame.final ? ":" : "-:") +
                           std::string(frame.payload) + " ";
            }
            outcome += status == FrameReader::Status::malformed ? "malformed"
                       : status == FrameReader::Status::tooBig  ? "too big"
                                                                : "|";
        }
        EXPECT_EQ(outcome, c.outcome) << c.reads[0];
    }
}

TEST(WebSocketFrames, WritesUnmaskedHeadersForEachLengthEncoding) {
    const struct {
        std::uint64_t size;
        std::string header;
    } cases[] = {{125, "\x81\x7D"}, {126, std::string("\x81\x7E\0\x7E", 4)}, {65535, "\x81\x7E\xFF\xFF"},
                 {65536, std::string("\x81\x7F\0\0\0\0\0\x01\0\0", 10)}};
    for (const auto& c : cases) {
        std::uint8_t header[maxFrameHeaderBytes];
        const std::size_t length = writeFrameHeader(0x81, c.size, header);
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(header), length), c.header) << c.size;
    }
}

}  // namespace
}  // namespace korvane::host
