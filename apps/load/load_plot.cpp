#include "load/load_plot.h"

#include <cstdlib>
#include <fstream>
#include <iostream>

namespace korvane::load {
namespace {

std::string stem(const std::string& pngPath) {
    const std::string suffix = ".png";
    const bool hasSuffix =
        pngPath.size() > suffix.size() && pngPath.compare(pngPath.size() - suffix.size(), suffix.size(), suffix) == 0;
    return hasSuffix ? pngPath.substr(0, pngPath.size() - suffix.size()) : pngPath;
}

void writeSeries(const std::string& path, const std::vector<SecondPoint>& seconds) {
    std::ofstream out(path);
    out << "# second sent/s delivered/s p50_ms p99_ms max_ms\n";
    for (const SecondPoint& point : seconds) {
        out << point.at << ' ' << point.sentPerSecond << ' ' << point.deliveredPerSecond << ' ' << point.p50Ms << ' '
            << point.p99Ms << ' ' << point.maxMs << '\n';
    }
}

// One line per non-empty bucket: its upper edge in ms and the fraction at or below it.
void writeCdf(const std::string& path, const LatencyHistogram& latency) {
    std::ofstream out(path);
    out << "# latency_ms fraction\n";
    std::uint64_t seen = 0;
    for (std::size_t bucket = 0; bucket < LatencyHistogram::kBucketCount && latency.count() != 0; ++bucket) {
        if (latency.countAt(bucket) == 0) {
            continue;
        }
        seen += latency.countAt(bucket);
        const double upperMs = (LatencyHistogram::lowestValueOf(bucket) + LatencyHistogram::widthOf(bucket)) / 1000.0;
        out << upperMs << ' ' << static_cast<double>(seen) / latency.count() << '\n';
    }
}

void writeScript(const std::string& path, const std::string& png, const std::string& series, const std::string& cdf) {
    std::ofstream out(path);
    out << "set terminal png size 1000,900\n"
        << "set output '" << png << "'\n"
        << "set multiplot layout 2,1\n"
        << "set title 'Messages per second and latency'\n"
        << "set xlabel 'seconds (measured from 0)'\n"
        << "set ylabel 'messages/s'\n"
        << "set y2label 'latency (ms)'\n"
        << "set ytics nomirror\nset y2tics\nset logscale y2\nset grid\nset key outside bottom center horizontal\n"
        << "plot '" << series << "' using 1:3 with lines lw 2 title 'delivered/s', "
        << "'' using 1:2 with lines title 'sent/s', "
        << "'' using 1:($4>0?$4:1/0) axes x1y2 with lines title 'p50', "
        << "'' using 1:($5>0?$5:1/0) axes x1y2 with lines title 'p99', "
        << "'' using 1:($6>0?$6:1/0) axes x1y2 with points pt 1 title 'max'\n"
        << "unset y2label\nunset y2tics\nunset logscale\n"
        << "set title 'Latency CDF (measured time)'\n"
        << "set xlabel 'latency (ms)'\nset ylabel 'fraction delivered'\n"
        << "set logscale x\nset yrange [0:1]\nset ytics mirror\n"
        << "plot '" << cdf << "' using 1:2 with steps lw 2 title 'CDF'\n"
        << "unset multiplot\n";
}

}  // namespace

bool writePlot(const std::string& pngPath, const std::vector<SecondPoint>& seconds, const LatencyHistogram& latency) {
    const std::string base = stem(pngPath);
    const std::string series = base + "-series.dat";
    const std::string cdf = base + "-cdf.dat";
    const std::string script = base + ".gp";
    writeSeries(series, seconds);
    writeCdf(cdf, latency);
    writeScript(script, pngPath, series, cdf);
    const std::string command = "gnuplot '" + script + "'";
    if (std::system(command.c_str()) != 0) {
        std::cerr << "korvane-load: gnuplot failed on " << script << "\n";
        return false;
    }
    return true;
}

}  // namespace korvane::load
