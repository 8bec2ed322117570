#pragma once

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "Common/Logging/LogEscape.h"
#include "Common/Platform/Linux/LogSinks.h"
#include "Tests/Support/CollectingLogSink.h"
#include "Tests/Support/JournalSocket.h"
#include "Tests/Support/LogPipe.h"
#include "Tests/Support/TemporaryHome.h"

// The sinks that there are, each with whoever reads what it writes:
//
//     std::shared_ptr<LogSink> makeSink();
//     std::vector<std::string> takeLines();                  // the entries that have come in
//     static std::string asRead(std::string_view line);      // how a reader finds a line

namespace utilia::test {

class CollectingPlace final {
public:
    std::shared_ptr<LogSink> makeSink() { return sink_ = std::make_shared<CollectingLogSink>(); }
    std::vector<std::string> takeLines() { return sink_->take(); }
    static std::string asRead(std::string_view line) { return std::string(line); }

private:
    std::shared_ptr<CollectingLogSink> sink_;
};

class DescriptorPlace final {
public:
    std::shared_ptr<LogSink> makeSink() {
        return platform::makeDescriptorLogSink(pipe_.writer.get(), "tool");
    }
    std::vector<std::string> takeLines() const {
        const std::string prefix = "tool[" + std::to_string(getpid()) + "]: ";
        std::vector<std::string> lines;
        std::istringstream text(pipe_.readAll());
        for (std::string line; std::getline(text, line);) {
            lines.push_back(line.starts_with(prefix) ? line.substr(prefix.size()) : line);
        }
        return lines;
    }
    static std::string asRead(std::string_view line) { return escapedLogLine(line); }

private:
    LogPipe pipe_;
};

class JournalPlace final {
public:
    std::shared_ptr<LogSink> makeSink() { return platform::makeJournalLogSink(path(), "tool"); }
    std::vector<std::string> takeLines() const { return journal_.receiveLines(); }
    static std::string asRead(std::string_view line) { return std::string(line); }

private:
    std::string path() const { return folder_.path() / "socket"; }

    TemporaryFolder folder_;
    JournalSocket journal_{path()};
};

using LogSinkPlaces = testing::Types<CollectingPlace, DescriptorPlace, JournalPlace>;

struct LogSinkPlaceNames {
    template <class Place>
    static std::string GetName(int) {
        if constexpr (std::is_same_v<Place, CollectingPlace>) return "Collecting";
        if constexpr (std::is_same_v<Place, DescriptorPlace>) return "Descriptor";
        if constexpr (std::is_same_v<Place, JournalPlace>) return "Journal";
    }
};

}  // namespace utilia::test
