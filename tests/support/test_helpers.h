#pragma once

// Small helpers shared by the unit tests of several areas.

#include <cstddef>
#include <exception>
#include <functional>
#include <string>

namespace korvane::test_support {

// The text of the E that `action` throws; any other exception type fails the test.
template <class E = std::exception>
std::string errorOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const E& error) {
        return error.what();
    }
    return "(no exception)";
}

// `piece` written `times` times, for deeply nested inputs.
inline std::string repeated(const std::string& piece, std::size_t times) {
    std::string text;
    text.reserve(piece.size() * times);
    while (times-- > 0) {
        text += piece;
    }
    return text;
}

}  // namespace korvane::test_support
