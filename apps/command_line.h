#pragma once

// The flags of the command-line programs: each flag has a name, a placeholder for its
// value (empty for a switch), its default as shown by --help, a help text, and how it
// sets the program's options. Threading: none; used by main before any thread starts.

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace korvane::apps {

template <class Options>
struct Flag {
    using Setter = std::function<void(Options&, const std::string& name, const std::string& value)>;
    std::string name;
    std::string value;
    std::string defaultText;
    std::string help;
    Setter set;
};

inline std::invalid_argument invalidValue(const std::string& flag, const std::string& text) {
    return std::invalid_argument("invalid value for " + flag + ": '" + text + "'");
}

// A decimal number from 0 to `max`; anything else throws invalidValue.
inline unsigned long long parseNumber(const std::string& flag, const std::string& text, unsigned long long max) {
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = std::strtoull(text.c_str(), &end, 10);
    if (text.empty() || text[0] == '-' || *end != '\0' || errno != 0 || value > max) {
        throw invalidValue(flag, text);
    }
    return value;
}

template <class Options>
void printFlags(std::ostream& out, const std::string& synopsis, const std::vector<Flag<Options>>& flags) {
    out << synopsis;
    for (const Flag<Options>& flag : flags) {
        std::string head = "  " + flag.name + (flag.value.empty() ? "" : " " + flag.value);
        head.resize(std::max<std::size_t>(head.size() + 1, 32), ' ');
        out << head << flag.help << (flag.defaultText.empty() ? "" : " (default: " + flag.defaultText + ")") << "\n";
    }
}

// Sets `options` from the command line. --help prints the flags and exits 0; an
// unknown flag, a missing value or a bad one throws std::invalid_argument.
template <class Options>
void applyFlags(int argc, char** argv, const std::string& synopsis, const std::vector<Flag<Options>>& flags,
                Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        if (name == "--help" || name == "-h") {
            printFlags(std::cout, synopsis, flags);
            std::exit(0);
        }
        auto flag = std::find_if(flags.begin(), flags.end(), [&](const Flag<Options>& f) { return f.name == name; });
        if (flag == flags.end()) {
            throw std::invalid_argument("unknown flag " + name);
        }
        if (flag->value.empty()) {
            flag->set(options, name, "");
            continue;
        }
        if (i + 1 >= argc) {
            throw std::invalid_argument("missing value for " + name);
        }
        flag->set(options, name, argv[++i]);
    }
}

}  // namespace korvane::apps
