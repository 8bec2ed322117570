#include <cstdio>
#include <fstream>
#include <iostream>
#include <set>
#include <string>

// A program that does nothing, built once without and once with the framework. With an argument it
// says what it consists of: the number of its shared objects and its private memory in KiB.

namespace {

void describe() {
    std::set<std::string> objects;
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        const std::size_t slash = line.find('/');
        if (slash != std::string::npos && line.find(".so", slash) != std::string::npos)
            objects.insert(line.substr(slash));
    }
    long dirty = 0;
    std::ifstream memory("/proc/self/smaps_rollup");
    for (std::string line; std::getline(memory, line);)
        std::sscanf(line.c_str(), "Private_Dirty: %ld", &dirty);
    std::cout << objects.size() << ' ' << dirty << '\n';
}

}  // namespace

int main(int argc, char**) {
    if (argc > 1) describe();
    return 0;
}
