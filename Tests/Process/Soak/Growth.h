#pragma once

#include <cstddef>
#include <vector>

namespace utilia::test {

// What is seen of a process at one moment.
struct Sample {
    double seconds = 0;
    double heap = 0;    // KiB in use
    double memory = 0;  // KiB
    std::size_t descriptors = 0;
};

// What may come on top.
struct Limits {
    double kibibytes = 0;         // from the first quarter of the samples to the last
    double kibibytesPerHour = 0;  // where the samples are of long enough
    double longEnough = 0;        // seconds, to tell an hour's growth from
};

// How something changed from the first quarter of the samples to the last.
struct Trend {
    double last = 0;
    double growth = 0;
    double perHour = 0;
    bool isLong = false;  // so that an hour's growth can be told from it

    bool isWithin(const Limits& limits) const {
        return growth <= limits.kibibytes && (!isLong || perHour <= limits.kibibytesPerHour);
    }
};

// Of medians: a sample may fall into the middle of something. There are at least two samples.
Trend trend(const std::vector<Sample>& samples, double Sample::*what, double longEnough);

}  // namespace utilia::test
