#include "Benchmarks/Support/Results.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace utilia::bench {
namespace {

double medianOf(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

// "p50_us" is "p50, µs".
std::string title(const std::string& metric) {
    const std::size_t mark = metric.rfind('_');
    const std::string unit = mark == std::string::npos ? "" : metric.substr(mark + 1);
    std::string name = metric.substr(0, mark);
    std::replace(name.begin(), name.end(), '_', ' ');
    if (unit == "us") return name + ", µs";
    if (unit == "ms") return name + ", ms";
    if (unit == "ns") return name + ", ns";
    if (unit == "kib") return name + ", KiB";
    if (unit == "mib") return name + ", MiB";
    if (unit == "bytes") return name + ", bytes";
    if (unit == "objects") return name + ", shared objects";
    if (unit == "percent") return name + ", %";
    if (metric == "per_s") return "per second";
    std::string words = metric;
    std::replace(words.begin(), words.end(), '_', ' ');
    return words;
}

}  // namespace

std::string shortNumber(double value) {
    const double size = std::fabs(value);
    const int decimals = size == 0 || size >= 100 ? 0 : size >= 10 ? 1 : size >= 1 ? 2 : 3;
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

void Results::add(const std::string& measurement, const std::string& variant,
                  const Figures& figures) {
    auto row = std::find_if(rows_.begin(), rows_.end(), [&](const Row& one) {
        return one.measurement == measurement && one.variant == variant;
    });
    if (row == rows_.end()) row = rows_.insert(row, Row{measurement, variant, {}});
    for (const auto& [metric, value] : figures) {
        auto found = std::find_if(row->metrics.begin(), row->metrics.end(),
                                  [&name = metric](const auto& one) { return one.first == name; });
        if (found == row->metrics.end()) found = row->metrics.insert(found, {metric, {}});
        found->second.push_back(value);
    }
}

std::optional<double> Results::median(const std::string& measurement, const std::string& variant,
                                      const std::string& metric) const {
    for (const Row& row : rows_) {
        if (row.measurement != measurement || row.variant != variant) continue;
        for (const auto& [name, values] : row.metrics) {
            if (name == metric) return medianOf(values);
        }
    }
    return std::nullopt;
}

std::string Results::tables() const {
    std::vector<Row> rows = rows_;
    std::stable_sort(rows.begin(), rows.end(),
                     [](const Row& a, const Row& b) { return a.measurement < b.measurement; });
    std::string text;
    std::string header;
    for (const Row& row : rows) {
        std::string columns = "| measurement | variant |";
        std::string rule = "| --- | --- |";
        std::string line = "| " + row.measurement + " | " + row.variant + " |";
        for (const auto& [metric, values] : row.metrics) {
            columns += " " + title(metric) + " |";
            rule += " ---: |";
            const auto [least, most] = std::minmax_element(values.begin(), values.end());
            line += " " + shortNumber(medianOf(values));
            if (values.size() > 1 && *least != *most) {
                line += " (" + shortNumber(*least) + " to " + shortNumber(*most) + ")";
            }
            line += " |";
        }
        if (columns != header) text += "\n" + columns + "\n" + rule + "\n";
        header = columns;
        text += line + "\n";
    }
    return text;
}

}  // namespace utilia::bench
