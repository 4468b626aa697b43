#include "korvane/host/websocket_frames.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "host/host_test_support.h"

namespace korvane::host {
namespace {

// A frame's header at each bound of the length encodings. A client's masked frames are the server's to read: the
// raw client of the HTTP tests sends them.
TEST(WebSocketFrames, WritesEachLengthEncodingAtItsBounds) {
    const std::pair<std::size_t, std::string> cases[] = {  // payload size, a server's header
        {125, "\x81\x7D"}, {126, std::string("\x81\x7E\0\x7E", 4)}, {65535, "\x81\x7E\xFF\xFF"},
        {65536, std::string("\x81\x7F\0\0\0\0\0\x01\0\0", 10)}};
    for (const auto& [size, header] : cases) {
        std::uint8_t written[maxFrameHeaderBytes];
        const std::size_t length = writeFrameHeader(0x81, size, written);
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(written), length), header) << size;
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
    const std::tuple<bool, std::vector<std::string>, std::string> cases[] = {  // masked, reads, what next() gave
        {false, {std::string("\x81\x02hi\x89\x00", 6)}, "text:hi ping: |"},
        {false, {"\x81", "\x02h", "i"}, "||text:hi |"},
        {false, {std::string("\x01\x01", 2) + "a", std::string("\x80\x01", 2) + "b"}, "text-:a |cont:b |"},
        {false, {std::string("\x81\x7E\x01\x2C", 4), big}, "|text:" + big + " |"},
        {false, {std::string("\xC1\x00", 2)}, "malformed"},
        {false, {"\x81\x81mask"}, "malformed"},
        {false, {std::string("\x81\x7F\0\0\0\0\0\x01\0\0", 10)}, "too big"},
        {true, {maskedHello + maskedPing}, "text:hello, world ping:p |"},
        {true, {maskedHello.substr(0, 5), maskedHello.substr(5)}, "|text:hello, world |"},
        {true, {std::string("\x83\x80\0\0\0\0", 6)}, "malformed"},             // unknown opcode
        {true, {std::string("\x09\x80\0\0\0\0", 6)}, "malformed"},             // fragmented ping
        {true, {std::string("\x89\xFE\0\x7E", 4) + std::string(130, 0)}, "malformed"},  // ping over 125 bytes
        {true, {std::string("\x82\xFE\x04\x01", 4)}, "too big"},
    };
    for (const auto& [masked, reads, expected] : cases) {
        FrameReader reader(1024, masked);
        std::string outcome;
        for (const std::string& bytes : reads) {
            std::memcpy(reader.space(), bytes.data(), bytes.size());
            reader.commit(bytes.size());
            Frame frame;
            FrameReader::Status status;
            while ((status = reader.next(frame)) == FrameReader::Status::frame) {
                outcome += test::opcodeName(frame.opcode) + (frame.final ? ":" : "-:") +
                           std::string(frame.payload) + " ";
            }
            outcome += status == FrameReader::Status::malformed ? "malformed"
                       : status == FrameReader::Status::tooBig  ? "too big"
                                                                : "|";
        }
        EXPECT_EQ(outcome, expected) << reads[0];
    }
}

// A read that fills all its room leaves the next read twice the room, up to a bound; one
// that does not keeps the room as it is.
TEST(WebSocketFrames, GrowsTheRoomAfterAReadThatFilledIt) {
    FrameReader reader(1 << 20, false);
    // Reads `bytes` (0: the whole room) of four-byte frames, takes them and returns the next room.
    const auto readFrames = [&reader](std::size_t bytes) {
        char* into = reader.space();
        bytes = bytes == 0 ? reader.spaceSize() : bytes;
        for (std::size_t at = 0; at < bytes; at += 4) {
            std::memcpy(into + at, "\x81\x02hi", 4);
        }
        reader.commit(bytes);
        Frame frame;
        while (reader.next(frame) == FrameReader::Status::frame) {
        }
        reader.space();
        return reader.spaceSize();
    };
    reader.space();
    const std::size_t first = reader.spaceSize();
    const std::pair<std::size_t, std::size_t> reads[] = {  // bytes read, room after
        {100, first}, {0, 2 * first}, {0, 4 * first}, {8, 4 * first}, {0, 8 * first}};
    for (const auto& [bytes, roomAfter] : reads) {
        EXPECT_EQ(readFrames(bytes), roomAfter) << bytes;
    }
    std::size_t room = 0;
    for (int read = 0; read < 20; ++read) {
        room = readFrames(0);
    }
    EXPECT_EQ(room, std::size_t{64} << 10);
}

}  // namespace
}  // namespace korvane::host
