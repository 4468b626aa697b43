#include "load/websocket_frames.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace korvane::load {
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
TEST(WebSocketFrames, CutsServerBytesIntoFrames) {
    const std::string big(300, 'b');
    const struct {
        std::vector<std::string> reads;
        std::string outcome;
    } cases[] = {
        {{std::string("\x81\x02hi\x89\x00", 6)}, "text:hi ping: |"},
        {{"\x81", "\x02h", "i"}, "||text:hi |"},
        {{std::string("\x01\x01", 2) + "a", std::string("\x80\x01", 2) + "b"}, "text-:a |cont:b |"},
        {{std::string("\x81\x7E\x01\x2C", 4), big}, "|text:" + big + " |"},
        {{std::string("\xC1\x00", 2)}, "malformed"},
        {{"\x81\x81mask"}, "malformed"},
        {{std::string("\x81\x7F\0\0\0\0\0\x01\0\0", 10)}, "malformed"},
    };
    const char* names[16] = {"cont", "text", "binary", "", "", "", "", "", "close", "ping", "pong"};
    for (const auto& c : cases) {
        FrameReader reader(1024);
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
            outcome += status == FrameReader::Status::malformed ? "malformed" : "|";
        }
        EXPECT_EQ(outcome, c.outcome) << c.reads[0];
    }
}

}  // namespace
}  // namespace korvane::load
