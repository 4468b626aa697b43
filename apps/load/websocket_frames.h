#pragma once

// The client side of WebSocket framing, kept to what the load tool needs once the
// HTTP upgrade is done: masked frames out, and the server's unmasked frames in,
// parsed in place from the bytes read so far. Doing this by hand rather than
// through a full WebSocket stream keeps the tool's cost per delivery small, so that
// it does not take the server's share of the machine.
//
// Threading: none; a FrameReader belongs to one connection.

#include <cstdint>
#include <string>
#include <string_view>

namespace korvane::load {

enum class Opcode : std::uint8_t { continuation = 0x0, text = 0x1, binary = 0x2, close = 0x8, ping = 0x9, pong = 0xA };

// Appends one final frame of `payload`, masked with `maskKey`, to `out`.
void appendMaskedFrame(std::string& out, Opcode opcode, std::string_view payload, std::uint32_t maskKey);

struct Frame {
    Opcode opcode = Opcode::text;
    bool final = true;
    std::string_view payload;  // valid until the reader's next space()
};

// Collects the bytes read from the server and cuts them into frames.
class FrameReader {
public:
    enum class Status { frame, needMore, malformed };

    explicit FrameReader(std::size_t maxFrameBytes) : maxFrameBytes(maxFrameBytes) {}

    // Room to read into: at least what the frame at the front still lacks.
    char* space();
    std::size_t spaceSize() const { return buffer.size() - filled; }
    // `bytes` were read into space().
    void commit(std::size_t bytes) { filled += bytes; }

    // The next whole frame, if any, and moves past it. Malformed: masked, over the
    // size limit, or with reserved bits set.
    Status next(Frame& frame);
    void clear() { filled = consumed = wanted = 0; }

private:
    const std::size_t maxFrameBytes;
    std::string buffer = std::string(4096, '\0');
    std::size_t filled = 0;    // bytes read
    std::size_t consumed = 0;  // bytes of frames already handed out
    std::size_t wanted = 0;    // bytes the front frame needs in all, once its header is known
};

}  // namespace korvane::load
