#pragma once

// Where the cluster's Redis server is and how to log in to it, read from a URL:
// redis://[[user]:password@]host[:port][/database]. A host in brackets is IPv6.
// The password is never part of any text this code writes.
//
// Plain values and functions: any thread.

#include <string>

namespace korvane::cluster {

struct RedisEndpoint {
    std::string host;
    unsigned short port = 6379;
    unsigned database = 0;
    std::string user;      // empty: the default user
    std::string password;  // empty: no AUTH

    // host:port/database, for logs.
    std::string describe() const;
};

// `fallbackPassword` (may be null) is used when the URL carries none. Throws
// std::invalid_argument with a text that never quotes the URL's user part.
RedisEndpoint parseRedisUrl(const std::string& url, const char* fallbackPassword);

}  // namespace korvane::cluster
