#include "korvane/frame/logger.h"

#include <chrono>
#include <cstdio>
#include <ctime>
#include <exception>
#include <mutex>
#include <unordered_map>
#include <vector>

#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sources/severity_channel_logger.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/support/date_time.hpp>
#include <boost/log/utility/setup/common_attributes.hpp>
#include <boost/log/utility/setup/console.hpp>

namespace korvane::common {

namespace logging = boost::log;

template <>
struct basic_diagnostic_logger<char>::Impl {
    explicit Impl(const std::string& channel) : source(logging::keywords::channel = channel) {}
    logging::sources::severity_channel_logger_mt<unsigned, std::string> source;
};

namespace {

// Every live logger and the masks asked for. Never destroyed: loggers are static
// objects of many translation units and may outlive any ordinary static here.
struct LoggerRegistry {
    std::mutex mutex;
    unsigned globalLevels = defaultLogLevels;
    std::unordered_map<std::string, unsigned> channelLevels;
    std::vector<diagnostic_logger*> loggers;

    unsigned levelsFor(const std::string& channel) const {
        auto found = channelLevels.find(channel);
        return found == channelLevels.end() ? globalLevels : found->second;
    }
};

LoggerRegistry& registry() {
    static auto* instance = new LoggerRegistry();
    return *instance;
}

}  // namespace

template <>
basic_diagnostic_logger<char>::basic_diagnostic_logger(const char* channel)
    : channelName(channel), mask(defaultLogLevels), state(std::make_unique<Impl>(channelName)) {
    LoggerRegistry& all = registry();
    std::lock_guard<std::mutex> guard(all.mutex);
    mask.store(all.levelsFor(channelName));
    all.loggers.push_back(this);
}

template <>
basic_diagnostic_logger<char>::~basic_diagnostic_logger() {
    LoggerRegistry& all = registry();
    std::lock_guard<std::mutex> guard(all.mutex);
    for (auto it = all.loggers.begin(); it != all.loggers.end(); ++it) {
        if (*it == this) {
            all.loggers.erase(it);
            break;
        }
    }
}

template class basic_diagnostic_logger<char>;

struct LogStatement::Record {
    logging::record record;
    logging::record_ostream stream;
};

LogStatement::LogStatement(diagnostic_logger& logger, unsigned level) : uncaughtAtStart(std::uncaught_exceptions()) {
    if (!logger.isEnabled(level) || !logging::core::get()->get_logging_enabled()) {
        return;
    }
    logging::record opened = logger.impl().source.open_record(logging::keywords::severity = level);
    if (opened) {
        record = std::make_unique<Record>();
        record->record = std::move(opened);
        record->stream.attach_record(record->record);
    }
}

LogStatement::~LogStatement() = default;

std::ostream& LogStatement::stream() { return record->stream.stream(); }

void LogStatement::push() {
    std::unique_ptr<Record> finished = std::move(record);
    // A statement interrupted by unwinding drops its record.
    if (std::uncaught_exceptions() > uncaughtAtStart) {
        return;
    }
    finished->stream.flush();
    finished->stream.detach_from_record();
    logging::core::get()->push_record(std::move(finished->record));
}

void setLogLevels(unsigned levels) {
    LoggerRegistry& all = registry();
    std::lock_guard<std::mutex> guard(all.mutex);
    all.globalLevels = levels;
    all.channelLevels.clear();
    for (diagnostic_logger* logger : all.loggers) {
        logger->setLevels(levels);
    }
}

void setLogLevels(const std::string& channel, unsigned levels) {
    LoggerRegistry& all = registry();
    std::lock_guard<std::mutex> guard(all.mutex);
    all.channelLevels[channel] = levels;
    for (diagnostic_logger* logger : all.loggers) {
        if (logger->channel() == channel) {
            logger->setLevels(levels);
        }
    }
}

namespace {

std::string levelName(unsigned level) {
    switch (level) {
    case logFrequent:
        return "frequent";
    case logTrace:
        return "trace";
    case logLifecycle:
        return "lifecycle";
    case logWarning:
        return "warning";
    case logFailure:
        return "failure";
    default:
        return std::to_string(level);
    }
}

// A JSON string of `text`: quotes, backslashes and control characters escaped, so that
// a message with a line break still makes one line. Other bytes pass as they are.
void appendJsonString(std::string& out, std::string_view text) {
    out += '"';
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
            out += escaped;
        } else {
            out += c;
        }
    }
    out += '"';
}

// Now in UTC, e.g. "2026-11-26T03:20:07.123Z". The sink is synchronous, so the time
// of formatting is that of the record within microseconds.
std::string utcTimestamp() {
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[32];
    const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
    std::snprintf(text + length, sizeof text - length, ".%03dZ", static_cast<int>(millis));
    return text;
}

void formatJson(const logging::record_view& record, logging::formatting_ostream& out) {
    const auto level = logging::extract<unsigned>("Severity", record);
    const auto channel = logging::extract<std::string>("Channel", record);
    const auto message = logging::extract<std::string>("Message", record);
    out << jsonLogLine(level ? *level : 0, channel ? *channel : std::string(), message ? *message : std::string());
}

}  // namespace

std::string jsonLogLine(unsigned level, std::string_view channel, std::string_view message) {
    std::string line = "{\"time\":\"" + utcTimestamp() + "\",\"level\":";
    appendJsonString(line, levelName(level));
    line += ",\"channel\":";
    appendJsonString(line, channel);
    line += ",\"message\":";
    appendJsonString(line, message);
    line += '}';
    return line;
}

void installStderrLogSink(LogFormat format) {
    static std::once_flag once;
    std::call_once(once, [format] {
        logging::add_common_attributes();
        auto sink = logging::add_console_log(std::clog, logging::keywords::auto_flush = true);
        if (format == LogFormat::json) {
            sink->set_formatter(&formatJson);
            return;
        }
        sink->set_formatter(
            logging::expressions::stream
            << logging::expressions::format_date_time<boost::posix_time::ptime>("TimeStamp", "%Y-%m-%d %H:%M:%S.%f")
            << " [" << logging::expressions::attr<std::string>("Channel") << "] "
            << logging::expressions::attr<unsigned>("Severity") << ": " << logging::expressions::smessage);
    });
}

}  // namespace korvane::common
