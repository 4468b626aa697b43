#include "korvane/frame/metrics.h"

#include <cstdio>

namespace korvane::common {

namespace {

// A label value as the format quotes it: backslash, double quote and line feed escaped.
void appendEscaped(std::string_view value, std::string& out) {
    for (const char c : value) {
        if (c == '\\') {
            out += "\\\\";
        } else if (c == '"') {
            out += "\\\"";
        } else if (c == '\n') {
            out += "\\n";
        } else {
            out += c;
        }
    }
}

}  // namespace

void MetricsWriter::family(std::string_view name, std::string_view type, std::string_view help) {
    out.append("# HELP ").append(name).append(" ").append(help).append("\n");
    out.append("# TYPE ").append(name).append(" ").append(type).append("\n");
}

void MetricsWriter::doSampleName(std::string_view name, Labels labels) {
    out.append(name);
    if (labels.size() == 0) {
        out += ' ';
        return;
    }
    char separator = '{';
    for (const auto& [label, value] : labels) {
        out.append(1, separator).append(label).append("=\"");
        appendEscaped(value, out);
        out += '"';
        separator = ',';
    }
    out += "} ";
}

void MetricsWriter::sample(std::string_view name, std::uint64_t value, Labels labels) {
    doSampleName(name, labels);
    out.append(std::to_string(value)).append("\n");
}

void MetricsWriter::sample(std::string_view name, double value, Labels labels) {
    doSampleName(name, labels);
    char text[32];
    std::snprintf(text, sizeof(text), "%.3f", value);
    out.append(text).append("\n");
}

void MetricsWriter::single(std::string_view name, std::string_view type, std::string_view help,
                           std::uint64_t value) {
    family(name, type, help);
    sample(name, value);
}

void MetricsExposition::add(Collector collector) {
    std::lock_guard<std::mutex> guard(mutex);
    collectors.push_back(std::move(collector));
}

std::string MetricsExposition::render() const {
    std::vector<Collector> current;
    {
        std::lock_guard<std::mutex> guard(mutex);
        current = collectors;
    }
    MetricsWriter writer;
    for (const Collector& collector : current) {
        collector(writer);
    }
    return writer.text();
}

}  // namespace korvane::common
