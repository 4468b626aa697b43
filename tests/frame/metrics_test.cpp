// Label values are quoted as the text format reads them back: backslash, double quote and
// line feed escaped, anything else as it is.

#include "korvane/frame/metrics.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace korvane::common {

TEST(MetricsWriter, EscapesLabelValues) {
    const std::pair<std::string, std::string> rows[] = {
        {"long-polling", R"(m{l="long-polling"} 1)"},
        {"a\\b", R"(m{l="a\\b"} 1)"},
        {"say \"hi\"", R"(m{l="say \"hi\""} 1)"},
        {"two\nlines", R"(m{l="two\nlines"} 1)"},
    };
    for (const auto& [value, line] : rows) {
        MetricsWriter writer;
        writer.sample("m", std::uint64_t{1}, {{"l", value}});
        EXPECT_EQ(writer.text(), line + "\n") << value;
    }
}

}  // namespace korvane::common
