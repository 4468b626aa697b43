#pragma once

// WebSocket framing over bytes already read, for both ends once the HTTP upgrade is
// done: the server reads its peers' masked frames and writes unmasked ones, the load
// tool the reverse. Frames are cut from the bytes read so far and unmasked in place;
// what a message is (fragments, control frames among them) is the caller's business.
// Doing this by hand rather than through a full WebSocket stream keeps the cost of a
// frame to one pass over its bytes and no allocation.
//
// Threading: none; a FrameReader belongs to one connection, read on one thread at a time.
// Readers on one thread share a spare room (websocket_frames.cpp).

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace korvane::host {

enum class Opcode : std::uint8_t { continuation = 0x0, text = 0x1, binary = 0x2, close = 0x8, ping = 0x9, pong = 0xA };

// The longest frame header: two bytes, eight of length and four of mask key.
constexpr std::size_t maxFrameHeaderBytes = 14;

// Writes the header of a frame of `size` bytes whose first byte (FIN, reserved bits,
// opcode) is `firstByte`, unmasked, into `out`; returns its length (2, 4 or 10).
std::size_t writeFrameHeader(std::uint8_t firstByte, std::uint64_t size, std::uint8_t* out);

// Appends one final frame of `payload`, masked with `maskKey`, to `out`.
void appendMaskedFrame(std::string& out, Opcode opcode, std::string_view payload, std::uint32_t maskKey);

struct Frame {
    Opcode opcode = Opcode::text;
    bool final = true;
    std::string_view payload;  // unmasked; valid until the reader's next space() or release()
};

// Collects the bytes read from the peer and cuts them into frames.
class FrameReader {
public:
    // Malformed: reserved bits, an unknown opcode, a mask where the peer must (not) set
    // one, a fragmented or long control frame. Too big: a frame over the size limit.
    enum class Status { frame, needMore, malformed, tooBig };

    // `masked`: whether the peer's frames carry a mask (a client's always do, a server's never).
    FrameReader(std::size_t maxFrameBytes, bool masked) : maxFrameBytes(maxFrameBytes), masked(masked) {}

    // Room to read into: at least what the frame at the front still lacks, and twice the
    // last room when the last read filled it (more was most likely waiting: one read
    // then takes what took two, and the second found the socket empty).
    char* space();
    std::size_t spaceSize() const { return capacity - filled; }
    // `bytes` were read into space().
    void commit(std::size_t bytes) {
        filled += bytes;
        roomFilled = bytes != 0 && filled == capacity;
    }

    // The next whole frame, if any, and moves past it.
    Status next(Frame& frame);
    void clear() {
        filled = consumed = wanted = 0;
        roomFilled = false;
    }
    // Lets go of the storage when every byte read has been handed out: an idle connection
    // holds no read buffer. A first-size one is kept for the next reader on this thread.
    void release();

private:
    void resize(std::size_t bytes);

    const std::size_t maxFrameBytes;
    const bool masked;
    // Left uninitialised: bytes are only ever read where a read has written them.
    std::unique_ptr<char[]> buffer;
    std::size_t capacity = 0;
    std::size_t filled = 0;    // bytes read
    std::size_t consumed = 0;  // bytes of frames already handed out
    std::size_t wanted = 0;    // bytes the front frame needs in all, once its header is known
    bool roomFilled = false;   // the last read filled all the room it had
};

}  // namespace korvane::host
