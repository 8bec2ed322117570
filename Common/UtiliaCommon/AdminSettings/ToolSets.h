#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Value.h"
#include "Common/Platform/Bundle.h"

// The catalogue of the product's tools, and which of them the administrator allows on this machine.
//
// Without a white-list in the administrator's settings every tool of the catalogue is allowed; with
// one, its members. The white-list is read when an object is made, and not again: a change of the
// settings takes effect at the next start of a tool, or when createSharedInstance() is called again.
//
// A settings file that is missing, damaged or half-written restricts nothing. A "WhiteToolsList"
// that is no array forbids every tool, with one log line: somebody wanted a restriction and did not
// say which.
//
// Threads: an object is read-only once it is made, and may be asked from any thread. The shared one
// is created on the main thread before others ask; creating it takes no lock.

namespace utilia {

inline constexpr std::string_view kToolBundleIdentifierPrefix = "com.korvane.utilia.";

class UTILIA_EXPORT ToolSets final {
public:
    using Identifiers = std::vector<std::string>;

    // Reads the white-list, logs what it forbids, and becomes the shared instance in the place of an
    // earlier one, which lives on as long as somebody holds it.
    static std::shared_ptr<ToolSets> createSharedInstance();
    static std::shared_ptr<ToolSets> sharedInstance();  // null before the first creation

    // The bundle identifiers of the catalogue, in its order; then without the four media tools.
    static Identifiers fullSet();
    static Identifiers businessPredefinedSet();

    // Whether an element equals the text but for letter case. The first one is copied to
    // `foundObject` (may be null), which is left alone when there is none.
    static bool isFoundCaseInsensitveString(std::string_view string, const Identifiers& inArray,
                                            std::string* foundObject = nullptr);

    // The administrator's white-list in bundle identifiers as the catalogue spells them; empty when
    // nothing is restricted. Entries that name no tool are dropped, with a verbose log line each.
    static std::optional<Identifiers> loadWhiteList();
    // The same from settings that are read already.
    static std::optional<Identifiers> whiteListFromSettings(const Dictionary& settings);

    ToolSets();

    const std::optional<Identifiers>& whiteList() const { return whiteList_; }
    // The tools that may run without a white-list: the catalogue.
    Identifiers currentUnrestrictedToolSet() const;
    // One log line with the tools that the white-list forbids, also when there are none of them;
    // nothing without a white-list.
    void traceForbiddenTools() const;

    // Whether the tool may run: it is in the catalogue, spelled exactly so, and no white-list leaves
    // it out. `isInSet` and `isRestricted` (may be null) tell the two apart.
    bool isToolAllowedWithBundleId(std::string_view bundleId, bool* isInSet = nullptr,
                                   bool* isRestricted = nullptr) const;
    // The same for the bundle's identifier; a bundle without one is in no set.
    bool isToolAllowed(const platform::Bundle& bundle, bool* isInSet = nullptr,
                       bool* isRestricted = nullptr) const;

private:
    std::optional<Identifiers> whiteList_;
};

}  // namespace utilia
