#pragma once

// Captures the log records of one channel, as "level text" lines, for as long as it lives.
// Boost.Log's synchronous sink serialises records from any thread.

#include <sstream>
#include <string>

#include <boost/log/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sinks/text_ostream_backend.hpp>
#include <boost/make_shared.hpp>

namespace korvane::test_support {

class ChannelCapture {
public:
    explicit ChannelCapture(const std::string& channel)
        : text(boost::make_shared<std::ostringstream>()),
          sink(boost::make_shared<Sink>(boost::make_shared<boost::log::sinks::text_ostream_backend>())) {
        namespace expr = boost::log::expressions;
        sink->locked_backend()->add_stream(text);
        sink->set_filter(expr::attr<std::string>("Channel") == channel);
        sink->set_formatter(expr::stream << expr::attr<unsigned>("Severity") << " " << expr::smessage);
        boost::log::core::get()->add_sink(sink);
    }
    ~ChannelCapture() { boost::log::core::get()->remove_sink(sink); }
    ChannelCapture(const ChannelCapture&) = delete;
    ChannelCapture& operator=(const ChannelCapture&) = delete;

    std::string lines() {
        sink->flush();
        return text->str();
    }

    // The lines so far, and a fresh start.
    std::string take() {
        std::string seen = lines();
        text->str(std::string());
        return seen;
    }

private:
    using Sink = boost::log::sinks::synchronous_sink<boost::log::sinks::text_ostream_backend>;
    boost::shared_ptr<std::ostringstream> text;
    boost::shared_ptr<Sink> sink;
};

}  // namespace korvane::test_support
