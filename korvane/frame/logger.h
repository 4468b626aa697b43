#pragma once

// Diagnostic logging on the Boost.Log core. Every source file that logs owns one
// static logger with its channel name. A level is a single bit (the constants
// below); the enabled mask defaults to warnings and failures and is settable
// globally and per channel.
//
//   KORVANE_LOG(logger, logTrace) << "deliver " << channel;
//
// A disabled statement costs one bit test and evaluates nothing of its message.
// Threading: loggers may be used from any thread; record opening is serialised by
// the logger's own read-write lock.

#include <atomic>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>

#include "korvane/export.h"

namespace korvane::common {

constexpr unsigned logFrequent = 4;    // a tick update, the start and end of parsing
constexpr unsigned logTrace = 8;       // tracing
constexpr unsigned logLifecycle = 16;  // the life of sessions and subscriptions
constexpr unsigned logWarning = 256;
constexpr unsigned logFailure = 512;   // refusals and failures
constexpr unsigned defaultLogLevels = logWarning | logFailure;

template <class CharT>
class KORVANE_EXPORT basic_diagnostic_logger {
public:
    explicit basic_diagnostic_logger(const char* channel);
    ~basic_diagnostic_logger();
    basic_diagnostic_logger(const basic_diagnostic_logger&) = delete;
    basic_diagnostic_logger& operator=(const basic_diagnostic_logger&) = delete;

    bool isEnabled(unsigned level) const noexcept { return (mask.load(std::memory_order_relaxed) & level) != 0; }
    void setLevels(unsigned levels) noexcept { mask.store(levels, std::memory_order_relaxed); }
    unsigned levels() const noexcept { return mask.load(std::memory_order_relaxed); }
    const std::string& channel() const noexcept { return channelName; }

    struct Impl;
    Impl& impl() noexcept { return *state; }

private:
    std::string channelName;
    std::atomic<unsigned> mask;
    std::unique_ptr<Impl> state;
};

using diagnostic_logger = basic_diagnostic_logger<char>;

// One log statement: opens a record if the level is enabled and the core takes it,
// and pushes it unless the statement was interrupted by unwinding.
class KORVANE_EXPORT LogStatement {
public:
    LogStatement(diagnostic_logger& logger, unsigned level);
    ~LogStatement();
    LogStatement(const LogStatement&) = delete;
    LogStatement& operator=(const LogStatement&) = delete;

    explicit operator bool() const noexcept { return record != nullptr; }
    std::ostream& stream();
    void push();

private:
    struct Record;
    std::unique_ptr<Record> record;
    int uncaughtAtStart;
};

// Sets the mask of every logger, present and future, clearing per-channel settings.
KORVANE_EXPORT void setLogLevels(unsigned levels);
// Sets the mask of one channel, present and future.
KORVANE_EXPORT void setLogLevels(const std::string& channel, unsigned levels);
enum class LogFormat {
    text,  // "local time [channel] level: message"
    json,  // {"time","level","channel","message"}: UTC, RFC 3339 with milliseconds; level by name
};
// Adds a sink on standard error writing one line a record. Idempotent: the first
// call's format stays.
KORVANE_EXPORT void installStderrLogSink(LogFormat format = LogFormat::text);
// A record as a line of the json format, without its line break: for what a program
// reports outside any logger, such as the error it exits on.
KORVANE_EXPORT std::string jsonLogLine(unsigned level, std::string_view channel, std::string_view message);

}  // namespace korvane::common

#define KORVANE_LOG(logger, level)                                                                    \
    if (!(logger).isEnabled(level)) {                                                                 \
    } else                                                                                            \
        for (::korvane::common::LogStatement korvane_log_statement_((logger), (level)); korvane_log_statement_; \
             korvane_log_statement_.push())                                                           \
        korvane_log_statement_.stream()
