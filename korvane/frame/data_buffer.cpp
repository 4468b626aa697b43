#include "korvane/frame/data_buffer.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace korvane::common {

DataBuffer::DataBuffer(std::string_view text) { append(text); }

DataBuffer::DataBuffer(const DataBuffer& other) { append(other.chars(), other.size); }

DataBuffer& DataBuffer::operator=(const DataBuffer& other) {
    if (this != &other) {
        size = 0;
        append(other.chars(), other.size);
    }
    return *this;
}

DataBuffer::DataBuffer(DataBuffer&& other) noexcept : data(other.data), capacity(other.capacity), size(other.size) {
    other.data = nullptr;
    other.capacity = 0;
    other.size = 0;
}

DataBuffer& DataBuffer::operator=(DataBuffer&& other) noexcept {
    if (this != &other) {
        std::free(data);
        data = other.data;
        capacity = other.capacity;
        size = other.size;
        other.data = nullptr;
        other.capacity = 0;
        other.size = 0;
    }
    return *this;
}

DataBuffer::~DataBuffer() { std::free(data); }

void DataBuffer::reserve(std::uint64_t needed) {
    if (needed == 0 || (data != nullptr && needed <= capacity)) {
        return;
    }
    std::uint64_t grown = std::max(capacity * 2, needed);
    void* storage = data == nullptr ? std::malloc(grown) : std::realloc(data, grown);
    if (storage == nullptr) {
        throw std::runtime_error("Out of memory!");
    }
    data = static_cast<std::uint8_t*>(storage);
    capacity = grown;
}

void DataBuffer::append(const char* bytes, std::uint64_t count) {
    if (count == 0) {
        return;
    }
    reserve(size + count);
    std::memcpy(data + size, bytes, count);
    size += count;
}

void DataBuffer::append(const DataBuffer& other) {
    if (&other == this || other.size == 0) {
        return;
    }
    append(other.chars(), other.size);
}

void DataBuffer::push_back(char byte) {
    reserve(size + 1);
    data[size++] = static_cast<std::uint8_t>(byte);
}

}  // namespace korvane::common
