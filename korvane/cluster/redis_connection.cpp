#include "korvane/cluster/redis_connection.h"

#include <hiredis/hiredis.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <stdexcept>
#include <string>

namespace korvane::cluster {

namespace {

timeval toTimeval(std::chrono::milliseconds time) {
    timeval value{};
    value.tv_sec = static_cast<time_t>(time.count() / 1000);
    value.tv_usec = static_cast<suseconds_t>((time.count() % 1000) * 1000);
    return value;
}

// A command's arguments as hiredis takes them, binary-safe.
struct Argv {
    explicit Argv(const std::vector<std::string_view>& arguments) {
        texts.reserve(arguments.size());
        lengths.reserve(arguments.size());
        for (const auto& argument : arguments) {
            texts.push_back(argument.data());
            lengths.push_back(argument.size());
        }
    }
    int count() const { return static_cast<int>(texts.size()); }

    std::vector<const char*> texts;
    std::vector<std::size_t> lengths;
};

}  // namespace

void RedisReplyDeleter::operator()(redisReply* reply) const { freeReplyObject(reply); }

RedisConnection::RedisConnection(const RedisEndpoint& endpoint, std::chrono::milliseconds timeout,
                                 std::chrono::milliseconds ioTimeout) {
    context = redisConnectWithTimeout(endpoint.host.c_str(), endpoint.port, toTimeval(timeout));
    if (context == nullptr) {
        throw std::runtime_error("cannot connect to Redis at " + endpoint.describe() + ": out of memory");
    }
    if (context->err) {
        const std::string reason = context->errstr;
        redisFree(context);
        throw std::runtime_error("cannot connect to Redis at " + endpoint.describe() + ": " + reason);
    }
    socket = context->fd;
    try {
        redisEnableKeepAlive(context);
        // Also when zero: that clears whatever the connect left on the socket.
        redisSetTimeout(context, toTimeval(ioTimeout));
        if (!endpoint.password.empty()) {
            if (endpoint.user.empty()) {
                command({"AUTH", endpoint.password});
            } else {
                command({"AUTH", endpoint.user, endpoint.password});
            }
        }
        if (endpoint.database != 0) {
            command({"SELECT", std::to_string(endpoint.database)});
        }
    } catch (...) {
        redisFree(context);
        throw;
    }
}

RedisConnection::~RedisConnection() { redisFree(context); }

RedisReply RedisConnection::command(const std::vector<std::string_view>& arguments) {
    Argv argv(arguments);
    // The error of an AUTH is reported by command name only, so that no argument reaches a log.
    const std::string name(arguments.empty() ? std::string_view() : arguments.front());
    return checked(redisCommandArgv(context, argv.count(), argv.texts.data(), argv.lengths.data()),
                   name.c_str());
}

void RedisConnection::send(const std::vector<std::string_view>& arguments) {
    Argv argv(arguments);
    int written =
        redisAppendCommandArgv(context, argv.count(), argv.texts.data(), argv.lengths.data()) == REDIS_OK ? 0 : -1;
    while (written == 0) {
        if (redisBufferWrite(context, &written) != REDIS_OK) {
            written = -1;
        }
    }
    if (written < 0) {
        throw std::runtime_error(std::string("Redis connection lost during write: ") + context->errstr);
    }
}

RedisReply RedisConnection::nextReply(int wake, std::chrono::milliseconds timeout) {
    if (RedisReply reply = bufferedReply()) {
        return reply;
    }
    pollfd watched[2] = {{socket, POLLIN, 0}, {wake, POLLIN, 0}};
    const bool readable = ::poll(watched, 2, static_cast<int>(timeout.count())) > 0 &&
                          (watched[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0;
    if (!readable) {
        return nullptr;
    }
    if (redisBufferRead(context) != REDIS_OK) {
        return checked(nullptr, "read");
    }
    return bufferedReply();
}

RedisReply RedisConnection::bufferedReply() {
    void* reply = nullptr;
    if (redisGetReplyFromReader(context, &reply) != REDIS_OK) {
        return checked(nullptr, "read");
    }
    return reply ? checked(reply, "read") : nullptr;
}

void RedisConnection::interrupt() { ::shutdown(socket, SHUT_RDWR); }

RedisReply RedisConnection::checked(void* raw, const char* what) {
    RedisReply reply(static_cast<redisReply*>(raw));
    if (!reply) {
        throw std::runtime_error(std::string("Redis connection lost during ") + what + ": " +
                                 (context->err ? context->errstr : "no reply"));
    }
    if (reply->type == REDIS_REPLY_ERROR) {
        throw std::runtime_error(std::string("Redis refused ") + what + ": " + std::string(reply->str, reply->len));
    }
    return reply;
}

}  // namespace korvane::cluster
