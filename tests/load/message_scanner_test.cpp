#include "load/message_scanner.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace korvane::load {
namespace {

TEST(MessageScanner, SplitsBodiesIntoTopLevelObjects) {
    const struct {
        std::string body;
        std::vector<std::string> objects;
    } cases[] = {
        {R"([{"a":1},{"b":{"c":2}}])", {R"({"a":1})", R"({"b":{"c":2}})"}},
        {R"({"only":true})", {R"({"only":true})"}},
        {R"([{"text":"a } and { in a string"}])", {R"({"text":"a } and { in a string"})"}},
        {R"([{"text":"an \"escaped\" quote }"}])", {R"({"text":"an \"escaped\" quote }"})"}},
        {R"([{"text":"a backslash \\"},{"b":"}"}])", {R"({"text":"a backslash \\"})", R"({"b":"}"})"}},
        {R"([{"open":1)", {}},
        {R"([{"text":"unterminated}])", {}},
        {"[]", {}},
    };
    for (const auto& c : cases) {
        const auto objects = splitObjects(c.body);
        EXPECT_EQ(std::vector<std::string>(objects.begin(), objects.end()), c.objects) << c.body;
    }
}

TEST(MessageScanner, ReadsTheFieldsOfRepliesAndDeliveries) {
    const std::string reply =
        R"({"channel":"/meta/connect","successful":true,"advice":{"reconnect":"retry","interval": 250},"clientId":"ab\"c"})";
    EXPECT_EQ(stringField(reply, "channel"), "/meta/connect");
    EXPECT_EQ(stringField(reply, "reconnect"), "retry");
    EXPECT_EQ(stringField(reply, "clientId"), R"(ab\"c)");
    EXPECT_EQ(numberField(reply, "interval"), 250);
    EXPECT_TRUE(isTrue(reply, "successful"));
    EXPECT_FALSE(isTrue(R"({"successful":false})", "successful"));
    EXPECT_FALSE(stringField(reply, "error").has_value());
    EXPECT_FALSE(numberField(reply, "channel").has_value());

    const auto stamp =
        deliveryStamp(R"({"channel":"/rooms/3","data":{"p":4,"s":17,"t":123456789,"x":"xxxx"},"id":"9"})");
    ASSERT_TRUE(stamp.has_value());
    EXPECT_EQ(std::vector<std::int64_t>({stamp->publisher, stamp->sequence, stamp->sentMicros}),
              std::vector<std::int64_t>({4, 17, 123456789}));
    EXPECT_FALSE(deliveryStamp(R"({"channel":"/rooms/3","data":{"p":4,"t":1}})").has_value());
    EXPECT_FALSE(deliveryStamp(R"({"channel":"/rooms/3","data":"text"})").has_value());
}

}  // namespace
}  // namespace korvane::load
