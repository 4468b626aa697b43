#pragma once

// The owning, growable byte buffer of every wire text and body: plain bytes with
// no terminator. Not synchronised: one owner at a time.

#include <cstdint>
#include <string>
#include <string_view>

#include "korvane/export.h"

namespace korvane::common {

class KORVANE_EXPORT DataBuffer {
public:
    DataBuffer() noexcept = default;
    explicit DataBuffer(std::string_view text);
    DataBuffer(const DataBuffer& other);
    DataBuffer& operator=(const DataBuffer& other);
    // A move hands the storage over and leaves the source empty with no storage.
    DataBuffer(DataBuffer&& other) noexcept;
    DataBuffer& operator=(DataBuffer&& other) noexcept;
    ~DataBuffer();

    // Makes room for `needed` bytes in all: capacity becomes max(capacity * 2, needed).
    // Throws std::runtime_error "Out of memory!" when the allocation fails.
    void reserve(std::uint64_t needed);
    void append(const char* bytes, std::uint64_t count);
    void append(std::string_view text) { append(text.data(), text.size()); }
    // Appending a buffer to itself, or an empty buffer, does nothing.
    void append(const DataBuffer& other);
    void push_back(char byte);
    void clear() noexcept { size = 0; }
    bool empty() const noexcept { return size == 0; }

    const char* chars() const noexcept { return reinterpret_cast<const char*>(data); }
    std::string_view view() const noexcept {
        return data == nullptr ? std::string_view() : std::string_view(reinterpret_cast<const char*>(data), size);
    }
    std::string str() const { return std::string(view()); }

    std::uint8_t* data = nullptr;  // from malloc, or null
    std::uint64_t capacity = 0;
    std::uint64_t size = 0;
};

}  // namespace korvane::common
