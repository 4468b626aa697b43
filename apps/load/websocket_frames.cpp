#include "load/websocket_frames.h"

#include <cstring>

namespace korvane::load {

void appendMaskedFrame(std::string& out, Opcode opcode, std::string_view payload, std::uint32_t maskKey) {
    out.push_back(static_cast<char>(0x80 | static_cast<std::uint8_t>(opcode)));
    const std::uint64_t size = payload.size();
    if (size < 126) {
        out.push_back(static_cast<char>(0x80 | size));
    } else if (size <= 0xFFFF) {
        out.push_back(static_cast<char>(0x80 | 126));
        out.push_back(static_cast<char>(size >> 8));
        out.push_back(static_cast<char>(size));
    } else {
        out.push_back(static_cast<char>(0x80 | 127));
        for (int shift = 56; shift >= 0; shift -= 8) {
            out.push_back(static_cast<char>(size >> shift));
        }
    }
    const char mask[4] = {static_cast<char>(maskKey >> 24), static_cast<char>(maskKey >> 16),
                          static_cast<char>(maskKey >> 8), static_cast<char>(maskKey)};
    out.append(mask, 4);
    const std::size_t start = out.size();
    out.append(payload);
    // Eight bytes at a time: the mask repeats every four, so twice over is the same.
    std::uint64_t wide;
    std::memcpy(&wide, mask, 4);
    std::memcpy(reinterpret_cast<char*>(&wide) + 4, mask, 4);
    char* bytes = out.data() + start;
    std::size_t i = 0;
    for (; i + 8 <= payload.size(); i += 8) {
        std::uint64_t chunk;
        std::memcpy(&chunk, bytes + i, 8);
        chunk ^= wide;
        std::memcpy(bytes + i, &chunk, 8);
    }
    for (; i < payload.size(); ++i) {
        bytes[i] ^= mask[i & 3];
    }
}

char* FrameReader::space() {
    // Frames already handed out are dropped; a partial one moves to the front.
    if (consumed != 0) {
        std::memmove(buffer.data(), buffer.data() + consumed, filled - consumed);
        filled -= consumed;
        consumed = 0;
    }
    if (wanted > buffer.size()) {
        buffer.resize(wanted);
    } else if (filled == buffer.size()) {
        buffer.resize(buffer.size() * 2);
    }
    return buffer.data() + filled;
}

FrameReader::Status FrameReader::next(Frame& frame) {
    const auto* at = reinterpret_cast<const std::uint8_t*>(buffer.data() + consumed);
    const std::size_t available = filled - consumed;
    wanted = 0;
    if (available < 2) {
        return Status::needMore;
    }
    if ((at[0] & 0x70) != 0 || (at[1] & 0x80) != 0) {
        return Status::malformed;  // reserved bits, or a mask the server must not set
    }
    std::size_t header = 2;
    std::uint64_t size = at[1] & 0x7F;
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
        return Status::malformed;
    }
    if (available < header + size) {
        wanted = header + size;
        return Status::needMore;
    }
    frame.final = (at[0] & 0x80) != 0;
    frame.opcode = static_cast<Opcode>(at[0] & 0x0F);
    frame.payload = std::string_view(buffer.data() + consumed + header, size);
    consumed += header + size;
    return Status::frame;
}

}  // namespace korvane::load
