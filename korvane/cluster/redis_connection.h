#pragma once

// One blocking connection to a Redis server on hiredis's synchronous API, logged in
// and on its database once constructed.
//
// Threading: one thread at a time runs commands and reads replies (the thread that
// owns the connection). interrupt() alone may come from any other thread while the
// object lives: it shuts the socket down, so that a blocked read or write fails at
// once and the owner sees an error.

#include <chrono>
#include <memory>
#include <string_view>
#include <vector>

#include "korvane/cluster/redis_endpoint.h"

struct redisContext;
struct redisReply;

namespace korvane::cluster {

struct RedisReplyDeleter {
    void operator()(redisReply* reply) const;
};
using RedisReply = std::unique_ptr<redisReply, RedisReplyDeleter>;

class RedisConnection {
public:
    // Connects within `timeout`, sends AUTH when the endpoint has a password and
    // SELECT when its database is not 0. `ioTimeout` bounds each later read and write;
    // zero means none (a subscriber waits for messages as long as it takes). Throws
    // std::runtime_error, never with the password in its text.
    RedisConnection(const RedisEndpoint& endpoint, std::chrono::milliseconds timeout,
                    std::chrono::milliseconds ioTimeout);
    ~RedisConnection();
    RedisConnection(const RedisConnection&) = delete;
    RedisConnection& operator=(const RedisConnection&) = delete;

    // Sends one command, its arguments binary-safe, and returns the reply. Throws
    // std::runtime_error on a lost connection and on an error reply.
    RedisReply command(const std::vector<std::string_view>& arguments);
    // Writes one command without waiting for its reply (a subscribed connection's
    // confirmations come with its messages). Throws std::runtime_error on a lost connection.
    void send(const std::vector<std::string_view>& arguments);
    // The next reply the server pushes (a subscribed connection's messages), or null
    // when none came before `wake` became readable or `timeout` passed. Throws
    // std::runtime_error on a lost connection and on an error reply.
    RedisReply nextReply(int wake, std::chrono::milliseconds timeout);
    void interrupt();

private:
    RedisReply checked(void* reply, const char* what);
    // A reply already read off the socket, or null.
    RedisReply bufferedReply();

    redisContext* context = nullptr;
    int socket = -1;
};

}  // namespace korvane::cluster
