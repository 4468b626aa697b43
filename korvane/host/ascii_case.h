#pragma once

// ASCII case folding for the protocol texts the host compares without case (header names,
// methods, schemes, file extensions): only A-Z change, whatever the locale. Internal to the
// host; a pure function, callable from any thread.

#include <string>
#include <string_view>

namespace korvane::host {

inline std::string asciiLowered(std::string_view text) {
    std::string result(text);
    for (char& c : result) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return result;
}

}  // namespace korvane::host
