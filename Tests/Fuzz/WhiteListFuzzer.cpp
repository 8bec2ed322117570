// What an administrator may type, and what may stand in the settings: the text's pieces put together again are the text
// but for blanks, and a white-list of any settings names tools of the catalogue only.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "Common/Logging/Log.h"
#include "Common/Platform/JSONSerialization.h"
#include "Common/UtiliaCommon/AdminSettings/KAVKeyValueHelper.h"
#include "Common/UtiliaCommon/AdminSettings/ToolSets.h"

namespace {

using namespace utilia;

class SilentSink final : public LogSink {
public:
    bool write(std::string_view) noexcept override { return true; }
};

void parse(std::string_view text) {
    std::optional<std::vector<std::string>> pieces;
    std::int64_t error = 77;
    const bool isAccepted = KAVKeyValueHelper::arrayFromWhiteListString(text, &pieces, &error);
    if (error != (isAccepted ? 0 : -1)) std::abort();
    if (!isAccepted && (pieces || text.find("business-toolset-only") == text.npos)) std::abort();
    if (!pieces) return;
    const auto commas = static_cast<std::size_t>(std::count(text.begin(), text.end(), ','));
    if (pieces->size() != commas + 1) std::abort();
    for (const std::string& piece : *pieces) {
        if (text.find(piece) == text.npos) std::abort();
        if (!piece.empty() && (piece.front() == ' ' || piece.back() == '\t')) std::abort();
    }
}

void load(const Value& settings) {
    if (!settings.dictionary()) return;
    const auto list = ToolSets::whiteListFromSettings(*settings.dictionary());
    if (list.has_value() != settings.dictionary()->contains("WhiteToolsList")) std::abort();
    if (!list) return;
    static const ToolSets::Identifiers catalogue = ToolSets::fullSet();
    for (const std::string& identifier : *list) {
        if (std::find(catalogue.begin(), catalogue.end(), identifier) == catalogue.end())
            std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool isPrepared = [] {
        setLogSink(std::make_shared<SilentSink>());
        setExtendedLoggingProbe([] { return true; });
        return true;
    }();
    if (!isPrepared) return 0;
    parse({reinterpret_cast<const char*>(data), size});
    if (const auto settings = platform::jsonObjectFromData({data, size})) load(*settings);
    return 0;
}
