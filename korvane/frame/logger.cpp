#include "korvane/frame/logger.h"

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

void installStderrLogSink() {
    static std::once_flag once;
    std::call_once(once, [] {
        logging::add_common_attributes();
        logging::add_console_log(
            std::clog, logging::keywords::auto_flush = true,
            logging::keywords::format =
                (logging::expressions::stream
                 << logging::expressions::format_date_time<boost::posix_time::ptime>("TimeStamp",
                                                                                     "%Y-%m-%d %H:%M:%S.%f")
                 << " [" << logging::expressions::attr<std::string>("Channel") << "] "
                 << logging::expressions::attr<unsigned>("Severity") << ": " << logging::expressions::smessage));
    });
}

}  // namespace korvane::common
