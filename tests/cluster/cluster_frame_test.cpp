#include "korvane/cluster/cluster_frame.h"

#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>
#include <string>

#include "support/test_helpers.h"

namespace korvane::cluster {
namespace {

// A frame's origin and message as one line; "-" for a missing data buffer.
std::string fieldsOf(const std::string& origin, const bayeux::PublishRequest& message) {
    return origin + "|" + message.channel + "|" + message.id + "|" + message.clientId + "|" +
           (message.data ? message.data->str() : "-") + (message.context ? "|with a context" : "");
}

TEST(ClusterFrame, EveryFieldCrossesByteForByte) {
    struct FrameCase {
        const char* name;
        std::string origin, channel, id, clientId;
        std::optional<std::string> data;
    };
    const std::string binary("\0\x01\xff\"\\\n", 6);
    const std::string large(70000, 'x');
    const FrameCase cases[] = {
        {"all fields", "origin1", "/chat/room", "42", "client7", std::string(R"({"text":"hi","n":[1,2.50,-0]})")},
        {"no data", "o", "/a", "", "", std::nullopt},
        {"empty data", "o", "/a", "", "", std::string()},
        {"json kept as written", "o", "/a/b", "", "c", std::string("{ \"a\" : 1e3 ,\"\\u00e9\":\"\xc3\xa9\" }")},
        {"bytes that are not text", "o\0x", "/bin", "id", "c", binary},
        {"data past 64 KiB", "o", "/big", "1", "c", large},
        {"empty origin and channel", "", "", "", "", std::string("null")},
    };
    for (const auto& c : cases) {
        bayeux::PublishRequest message(c.channel);
        message.id = c.id;
        message.clientId = c.clientId;
        if (c.data) {
            message.data = std::make_shared<common::DataBuffer>(*c.data);
        }
        const ClusterFrame decoded = decodeClusterFrame(encodeClusterFrame(c.origin, message));
        EXPECT_EQ(fieldsOf(decoded.origin, *decoded.message), fieldsOf(c.origin, message)) << c.name;
    }
}

TEST(ClusterFrame, LayoutIsVersionFlagsAndLengthPrefixedFields) {
    bayeux::PublishRequest message("/c");
    message.id = "7";
    message.data = std::make_shared<common::DataBuffer>("{}");
    const std::string expected("\x01\x01"
                               "\0\0\0\x02or"
                               "\0\0\0\x02/c"
                               "\0\0\0\x01"
                               "7"
                               "\0\0\0\0"
                               "\0\0\0\x02{}",
                               2 + 6 + 6 + 5 + 4 + 6);
    EXPECT_EQ(encodeClusterFrame("or", message), expected);
}

TEST(ClusterFrame, MalformedFramesAreRefusedWithTheirReason) {
    bayeux::PublishRequest message("/chat");
    message.data = std::make_shared<common::DataBuffer>("[1]");
    const std::string good = encodeClusterFrame("origin", message);
    struct Bad {
        const char* name;
        std::string frame, error;
    };
    const Bad cases[] = {
        {"empty", "", "Truncated cluster frame"},
        {"version 2", "\x02" + good.substr(1), "Unknown cluster frame version"},
        {"version 0", std::string(1, '\0') + good.substr(1), "Unknown cluster frame version"},
        {"no flags", good.substr(0, 1), "Truncated cluster frame"},
        {"cut inside a length", good.substr(0, 4), "Truncated cluster frame"},
        {"cut inside the data", good.substr(0, good.size() - 1), "Truncated cluster frame"},
        {"a length past the end", std::string("\x01\x00\xff\xff\xff\xff", 6), "Truncated cluster frame"},
        {"one byte too many", good + "x", "Trailing bytes after cluster frame"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(test_support::errorOf<std::invalid_argument>([&] { decodeClusterFrame(c.frame); }), c.error)
            << c.name;
    }
}

}  // namespace
}  // namespace korvane::cluster
