#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Benchmarks/Support/Measure.h"

namespace utilia::bench {

// Every figure of a run: measurement ("latency 64 B"), variant ("utilia"), metric ("p50_us"), one
// value a repeat.
class Results final {
public:
    void add(const std::string& measurement, const std::string& variant, const Figures& figures);

    // Empty when it was not measured.
    std::optional<double> median(const std::string& measurement, const std::string& variant,
                                 const std::string& metric) const;

    // Markdown: a table for each group of measurements with the same metrics, medians with the
    // least and the most.
    std::string tables() const;

private:
    struct Row {
        std::string measurement;
        std::string variant;
        std::vector<std::pair<std::string, std::vector<double>>> metrics;
    };
    std::vector<Row> rows_;
};

// Three significant digits, without an exponent.
std::string shortNumber(double value);

}  // namespace utilia::bench
