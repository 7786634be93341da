#pragma once

#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <regex>
#include <string>
#include <vector>

// What the benchmarks that run the real server share: a home folder of their own, the web port
// the server announces, and the percentiles they print.
namespace pointlane::bench {

// A fresh folder under /tmp, named after the benchmark, removed with everything in it.
struct TempHome {
    std::filesystem::path path;
    explicit TempHome(const std::string& name) {
        std::string pattern = "/tmp/pointlane-" + name + "-XXXXXX";
        path = ::mkdtemp(pattern.data());
    }
    ~TempHome() { std::filesystem::remove_all(path); }
    TempHome(const TempHome&) = delete;
    TempHome& operator=(const TempHome&) = delete;
};

// The port in the server's "Web table on port N" line, once it has printed it.
inline std::optional<int> webPortIn(const std::string& text) {
    std::smatch match;
    static const std::regex mark("Web table on port ([0-9]+)");
    if (std::regex_search(text, match, mark)) {
        return std::stoi(match[1]);
    }
    return std::nullopt;
}

struct Figures {
    double p50 = 0;
    double p99 = 0;
};

// The median and the 99th percentile of the samples (at least one).
inline Figures figures(std::vector<double> micros) {
    std::sort(micros.begin(), micros.end());
    const auto at = [&](double q) {
        return micros[std::min(micros.size() - 1, static_cast<std::size_t>(q * micros.size()))];
    };
    return {at(0.50), at(0.99)};
}

}  // namespace pointlane::bench
