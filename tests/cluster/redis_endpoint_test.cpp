#include "korvane/cluster/redis_endpoint.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace korvane::cluster {
namespace {

TEST(RedisEndpoint, UrlsGiveHostPortDatabaseAndCredentials) {
    struct Case {
        const char* url;
        const char* fallback;
        const char* host;
        unsigned short port;
        unsigned database;
        const char* user;
        const char* password;
        const char* described;
    };
    const Case cases[] = {
        {"redis://localhost", nullptr, "localhost", 6379, 0, "", "", "localhost:6379/0"},
        {"redis://127.0.0.1:7000", nullptr, "127.0.0.1", 7000, 0, "", "", "127.0.0.1:7000/0"},
        {"redis://127.0.0.1:7000/", nullptr, "127.0.0.1", 7000, 0, "", "", "127.0.0.1:7000/0"},
        {"redis://127.0.0.1:7000/3", nullptr, "127.0.0.1", 7000, 3, "", "", "127.0.0.1:7000/3"},
        {"redis://:s3cr:et@h:1", nullptr, "h", 1, 0, "", "s3cr:et", "h:1/0"},
        {"redis://alice:pw@h", nullptr, "h", 6379, 0, "alice", "pw", "h:6379/0"},
        {"redis://p@ss@h", nullptr, "h", 6379, 0, "", "p@ss", "h:6379/0"},
        {"redis://[::1]:6380/2", nullptr, "::1", 6380, 2, "", "", "[::1]:6380/2"},
        {"redis://h:1", "from-env", "h", 1, 0, "", "from-env", "h:1/0"},
        {"redis://:in-url@h:1", "from-env", "h", 1, 0, "", "in-url", "h:1/0"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.url);
        const RedisEndpoint endpoint = parseRedisUrl(c.url, c.fallback);
        EXPECT_EQ(endpoint.host, c.host);
        EXPECT_EQ(endpoint.port, c.port);
        EXPECT_EQ(endpoint.database, c.database);
        EXPECT_EQ(endpoint.user, c.user);
        EXPECT_EQ(endpoint.password, c.password);
        EXPECT_EQ(endpoint.describe(), c.described);
    }
}

TEST(RedisEndpoint, BadUrlsAreRefusedWithoutQuotingTheirCredentials) {
    struct Case {
        const char* url;
        const char* error;
    };
    const Case cases[] = {
        {"http://h:1", "invalid Redis URL: it must start with redis://"},
        {"redis://", "invalid Redis URL: no host"},
        {"redis://:hunter2@:1", "invalid Redis URL: no host"},
        {"redis://:hunter2@h:", "invalid Redis URL: bad port"},
        {"redis://h:0", "invalid Redis URL: bad port"},
        {"redis://h:65536", "invalid Redis URL: bad port"},
        {"redis://h:12ab", "invalid Redis URL: bad port"},
        {"redis://h:1/x", "invalid Redis URL: bad database"},
        {"redis://[::1", "invalid Redis URL: unclosed [ in host"},
        {"redis://[::1]x", "invalid Redis URL: bad host"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.url);
        try {
            parseRedisUrl(c.url, nullptr);
            ADD_FAILURE() << "accepted";
        } catch (const std::invalid_argument& error) {
            EXPECT_STREQ(error.what(), c.error);
        }
    }
}

}  // namespace
}  // namespace korvane::cluster
