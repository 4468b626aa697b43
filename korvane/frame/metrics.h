#pragma once

// The metrics of a server in the Prometheus text format, version 0.0.4: a MetricsWriter
// builds the text family by family, and a MetricsExposition holds the collectors that
// each write theirs, the embedding program's own among them, and renders them all.
//
// Threading: a MetricsWriter belongs to one render. MetricsExposition's add() and render()
// may be called from any thread; `mutex` guards the list of collectors and is not held
// while a collector runs, so a collector may take its owner's locks.

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "korvane/export.h"

namespace korvane::common {

class KORVANE_EXPORT MetricsWriter {
public:
    using Labels = std::initializer_list<std::pair<std::string_view, std::string_view>>;

    // Starts a family: its # HELP and # TYPE lines; `type` is "counter" or "gauge".
    void family(std::string_view name, std::string_view type, std::string_view help);
    void sample(std::string_view name, std::uint64_t value, Labels labels = {});
    void sample(std::string_view name, double value, Labels labels = {});
    // A family of one unlabelled sample.
    void single(std::string_view name, std::string_view type, std::string_view help, std::uint64_t value);

    const std::string& text() const { return out; }

private:
    void doSampleName(std::string_view name, Labels labels);

    std::string out;
};

class KORVANE_EXPORT MetricsExposition {
public:
    using Collector = std::function<void(MetricsWriter&)>;

    // Rendered after the collectors added before it.
    void add(Collector collector);
    std::string render() const;

private:
    mutable std::mutex mutex;
    std::vector<Collector> collectors;
};

}  // namespace korvane::common
