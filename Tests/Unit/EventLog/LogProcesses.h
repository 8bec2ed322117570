#pragma once

#include <cstddef>
#include <map>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>

#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Tests/Unit/EventLog/LogSample.h"
#include "Tests/Unit/EventLog/XmlDocument.h"

// Processes that share a log. Each record has its writer's name and a number (sampleRecord()).

namespace utilia::test {

// Which records of which writer were found, and how often.
using Found = std::map<std::string, std::map<int, int>>;

// Adds the records of a document that must be whole: the header, records, and the footer where it is
// ended. Answers what is wrong with it, or "".
inline std::string addRecords(std::string content, bool isEnded, Found& found) {
    if (!content.starts_with(sampleHeader())) return "no header: " + content.substr(0, 100);
    if (content.ends_with(kEventLogFooter) != isEnded) return isEnded ? "no footer" : "a footer";
    if (!isEnded) content += kEventLogFooter;
    if (!XmlDocument::parse(content)) return "not well-formed: " + content;
    const auto valueAfter = [](std::string_view text, std::string_view words) {
        const std::size_t begin = text.find(words) + words.size();
        return std::string(text.substr(begin, text.find('"', begin) - begin));
    };
    constexpr std::string_view kBegin = "\n\t<details writer=";
    std::string_view rest = content;
    for (std::size_t at = rest.find(kBegin); at != std::string_view::npos; at = rest.find(kBegin)) {
        rest.remove_prefix(at);
        ++found[valueAfter(rest, "writer=\"")][std::stoi(valueAfter(rest, "number=\""))];
        rest.remove_prefix(kBegin.size());
    }
    return "";
}

inline std::string contentOf(int descriptor) {
    std::string content;
    char chunk[1 << 16];
    for (ssize_t size = 0; (size = read(descriptor, chunk, sizeof chunk)) > 0;)
        content.append(chunk, static_cast<std::size_t>(size));
    return content;
}

// In memory that children have in common with their parent; never unmapped.
template <class T>
T* shared(std::size_t count) {
    void* const memory =
        mmap(nullptr, count * sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::runtime_error("mmap");
    return new (memory) T[count]();
}

// A forked child that dies with this process; the body ends it.
template <class Body>
pid_t forkChild(Body body) {
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child < 0) throw std::runtime_error("fork");
    if (child != 0) return child;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() == parent) body();
    _exit(0);
}

inline int statusOf(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) != child) {
    }
    return status;
}

}  // namespace utilia::test
