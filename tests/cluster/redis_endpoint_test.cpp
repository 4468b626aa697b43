#include "korvane/cluster/redis_endpoint.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "support/test_helpers.h"

namespace korvane::cluster {
namespace {

// Host, description, user and password of a URL, or the text of its refusal.
std::string parsed(const char* url, const char* fallback) {
    std::string result;
    const std::string error = test_support::errorOf<std::invalid_argument>([&] {
        const RedisEndpoint endpoint = parseRedisUrl(url, fallback);
        result = endpoint.host + " " + std::to_string(endpoint.port) + "/" + std::to_string(endpoint.database) + " " +
                 endpoint.describe() + " " + endpoint.user + ":" + endpoint.password;
    });
    return result.empty() ? error : result;
}

TEST(RedisEndpoint, UrlsGiveHostPortDatabaseAndCredentialsAndBadOnesAreRefusedWithoutQuotingThem) {
    const struct {
        const char *url, *fallback, *expected;
    } cases[] = {
        {"redis://localhost", nullptr, "localhost 6379/0 localhost:6379/0 :"},
        {"redis://127.0.0.1:7000", nullptr, "127.0.0.1 7000/0 127.0.0.1:7000/0 :"},
        {"redis://127.0.0.1:7000/", nullptr, "127.0.0.1 7000/0 127.0.0.1:7000/0 :"},
        {"redis://127.0.0.1:7000/3", nullptr, "127.0.0.1 7000/3 127.0.0.1:7000/3 :"},
        {"redis://:s3cr:et@h:1", nullptr, "h 1/0 h:1/0 :s3cr:et"},
        {"redis://alice:pw@h", nullptr, "h 6379/0 h:6379/0 alice:pw"},
        {"redis://p@ss@h", nullptr, "h 6379/0 h:6379/0 :p@ss"},
        {"redis://[::1]:6380/2", nullptr, "::1 6380/2 [::1]:6380/2 :"},
        {"redis://h:1", "from-env", "h 1/0 h:1/0 :from-env"},
        {"redis://:in-url@h:1", "from-env", "h 1/0 h:1/0 :in-url"},
        {"http://h:1", nullptr, "invalid Redis URL: it must start with redis://"},
        {"redis://", nullptr, "invalid Redis URL: no host"},
        {"redis://:hunter2@:1", nullptr, "invalid Redis URL: no host"},
        {"redis://:hunter2@h:", nullptr, "invalid Redis URL: bad port"},
        {"redis://h:0", nullptr, "invalid Redis URL: bad port"},
        {"redis://h:65535", nullptr, "h 65535/0 h:65535/0 :"},
        {"redis://h:65536", nullptr, "invalid Redis URL: bad port"},
        {"redis://h:12ab", nullptr, "invalid Redis URL: bad port"},
        {"redis://h:1/x", nullptr, "invalid Redis URL: bad database"},
        {"redis://[::1", nullptr, "invalid Redis URL: unclosed [ in host"},
        {"redis://[::1]x", nullptr, "invalid Redis URL: bad host"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(parsed(c.url, c.fallback), c.expected) << c.url;
    }
}

}  // namespace
}  // namespace korvane::cluster
