// Formats records with ten attributes for some seconds, and prints how many a second, and how often
// memory was asked for in each.

#include <cstdio>
#include <cstdlib>
#include <new>

#include "Benchmarks/Support/Measure.h"
#include "Common/UtiliaCommon/CEP/EventRecord.h"

namespace {

std::size_t allocations = 0;

}  // namespace

void* operator new(std::size_t size) {
    ++allocations;
    if (void* memory = std::malloc(size)) return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

int main(int argc, char** argv) {
    using namespace utilia;
    const double seconds = argc == 2 ? std::atof(argv[1]) : 1;
    const Dictionary details{
        {"text", "plain text"}, {"other", "a & b"},    {"more", "some <words>"}, {"count", 42},
        {"size", 123'456'789},  {"isOn", true},        {"isOff", false},         {"ratio", 0.75},
        {"width", 1440},        {"name", "na\u00EFve"}};
    const EventSource source{"com.korvane.utilia.Timer", "/Applications/Timer.app", "1.2-34"};
    bench::pinToOneCore();
    std::size_t records = 0;
    std::size_t bytes = 0;
    const std::size_t before = allocations;
    const std::uint64_t begin = bench::nanoseconds();
    const std::uint64_t end = begin + static_cast<std::uint64_t>(seconds * 1e9);
    std::uint64_t now = begin;
    for (; now < end; now = bench::nanoseconds()) {
        for (int i = 0; i < 1000; ++i, ++records) {
            TextBuffer out;
            appendEventRecord(out, Date::now(), source, "Start", nullptr, nullptr, &details);
            bytes += out.size();
        }
    }
    if (bytes < records * 100) return 1;
    std::printf("%.9g %.9g\n",
                static_cast<double>(records) / (static_cast<double>(now - begin) / 1e9),
                static_cast<double>(allocations - before) / static_cast<double>(records));
    return 0;
}
