#include "korvane/host/websocket_frames.h"

#include <cstring>

namespace korvane::host {

namespace {

// Within the allocator's per-thread cache: a connect request is a few hundred bytes, and the
// buffer doubles for more.
constexpr std::size_t initialBufferBytes = 512;
// Past this, a room grows only for a frame that needs it.
constexpr std::size_t largestGrownBufferBytes = 64 * 1024;
constexpr std::uint64_t maxControlPayload = 125;

// A first-size room that a reader let go of, for the next reader on this thread to take: a
// loop reads its connections one after another, so most reads find the last one's room here,
// still in the cache, instead of asking the allocator for one and giving it back.
thread_local std::unique_ptr<char[]> spareRoom;

// XORs `size` bytes with the four-byte `mask`, eight at a time: the mask repeats every
// four bytes, so twice over is the same.
void applyMask(char* bytes, std::size_t size, const char mask[4]) {
    std::uint64_t wide;
    std::memcpy(&wide, mask, 4);
    std::memcpy(reinterpret_cast<char*>(&wide) + 4, mask, 4);
    std::size_t i = 0;
    for (; i + 8 <= size; i += 8) {
        std::uint64_t chunk;
        std::memcpy(&chunk, bytes + i, 8);
        chunk ^= wide;
        std::memcpy(bytes + i, &chunk, 8);
    }
    for (; i < size; ++i) {
        bytes[i] ^= mask[i & 3];
    }
}

bool isKnownOpcode(std::uint8_t opcode) { return opcode <= 0x2 || (opcode >= 0x8 && opcode <= 0xA); }
bool isControlOpcode(std::uint8_t opcode) { return (opcode & 0x8) != 0; }

}  // namespace

std::size_t writeFrameHeader(std::uint8_t firstByte, std::uint64_t size, std::uint8_t* out) {
    out[0] = firstByte;
    if (size < 126) {
        out[1] = static_cast<std::uint8_t>(size);
        return 2;
    }
    if (size <= 0xFFFF) {
        out[1] = 126;
        out[2] = static_cast<std::uint8_t>(size >> 8);
        out[3] = static_cast<std::uint8_t>(size);
        return 4;
    }
    out[1] = 127;
    for (int i = 0; i < 8; ++i) {
        out[2 + i] = static_cast<std::uint8_t>(size >> (56 - 8 * i));
    }
    return 10;
}

void appendMaskedFrame(std::string& out, Opcode opcode, std::string_view payload, std::uint32_t maskKey) {
    std::uint8_t header[maxFrameHeaderBytes];
    const std::size_t length = writeFrameHeader(0x80 | static_cast<std::uint8_t>(opcode), payload.size(), header);
    header[1] |= 0x80;
    const char mask[4] = {static_cast<char>(maskKey >> 24), static_cast<char>(maskKey >> 16),
                          static_cast<char>(maskKey >> 8), static_cast<char>(maskKey)};
    out.append(reinterpret_cast<const char*>(header), length);
    out.append(mask, 4);
    const std::size_t start = out.size();
    out.append(payload);
    applyMask(out.data() + start, payload.size(), mask);
}

char* FrameReader::space() {
    // Frames already handed out are dropped; a partial one moves to the front.
    if (consumed != 0) {
        std::memmove(buffer.get(), buffer.get() + consumed, filled - consumed);
        filled -= consumed;
        consumed = 0;
    }
    if (capacity == 0) {
        buffer = std::move(spareRoom);
        if (buffer) {
            capacity = initialBufferBytes;
        } else {
            resize(initialBufferBytes);
        }
    }
    if (wanted > capacity) {
        resize(wanted);
    } else if (filled == capacity || (roomFilled && capacity < largestGrownBufferBytes)) {
        resize(capacity * 2);
    }
    roomFilled = false;
    return buffer.get() + filled;
}

void FrameReader::resize(std::size_t bytes) {
    std::unique_ptr<char[]> larger(new char[bytes]);
    if (filled != 0) {
        std::memcpy(larger.get(), buffer.get(), filled);
    }
    buffer = std::move(larger);
    capacity = bytes;
}

void FrameReader::release() {
    if (consumed == filled) {
        if (capacity == initialBufferBytes && !spareRoom) {
            spareRoom = std::move(buffer);
        }
        buffer.reset();
        capacity = 0;
        clear();
    }
}

FrameReader::Status FrameReader::next(Frame& frame) {
    auto* at = reinterpret_cast<std::uint8_t*>(buffer.get() + consumed);
    const std::size_t available = filled - consumed;
    wanted = 0;
    if (available < 2) {
        return Status::needMore;
    }
    const std::uint8_t opcode = at[0] & 0x0F;
    const bool final = (at[0] & 0x80) != 0;
    if ((at[0] & 0x70) != 0 || ((at[1] & 0x80) != 0) != masked || !isKnownOpcode(opcode)) {
        return Status::malformed;
    }
    std::size_t header = 2;
    std::uint64_t size = at[1] & 0x7F;
    if (isControlOpcode(opcode) && (!final || size > maxControlPayload)) {
        return Status::malformed;
    }
    if (size >= 126) {
        const std::size_t lengthBytes = size == 126 ? 2 : 8;
        if (available < 2 + lengthBytes) {
            return Status::needMore;
        }
        size = 0;
        for (std::size_t i = 0; i < lengthBytes; ++i) {
            size = (size << 8) | at[2 + i];
        }
        header += lengthBytes;
    }
    if (size > maxFrameBytes) {
        return Status::tooBig;
    }
    const std::size_t maskBytes = masked ? 4 : 0;
    if (available < header + maskBytes + size) {
        wanted = header + maskBytes + size;
        return Status::needMore;
    }
    char* payload = reinterpret_cast<char*>(at) + header + maskBytes;
    if (masked) {
        applyMask(payload, size, reinterpret_cast<const char*>(at) + header);
    }
    frame.final = final;
    frame.opcode = static_cast<Opcode>(opcode);
    frame.payload = std::string_view(payload, size);
    consumed += header + maskBytes + size;
    return Status::frame;
}

}  // namespace korvane::host
