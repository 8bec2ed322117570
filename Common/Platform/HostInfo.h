#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Common/Foundation/Export.h"

namespace utilia::platform {

// What this computer is, and how its desktop is set. What cannot be found out is an empty answer,
// never an error. Texts are UTF-8, without line breaks or control characters.
//
// Threads: any.
class UTILIA_EXPORT HostInfo final {
public:
    struct OperatingSystemVersion {
        long majorVersion = 0;
        long minorVersion = 0;
        long patchVersion = 0;
    };
    enum class Appearance { Light, Dark };

    // The system's files are looked for below `root`, the user's in his own folders.
    explicit HostInfo(std::string root = {});

    // A name of this computer that differs for each application and lets nobody find out the
    // computer's own identity, nor another application's name of it: "8-4-4-4-12" upper-case
    // hexadecimal digits. Empty where the computer has no identity.
    std::string platformUUID(std::string_view application) const;
    OperatingSystemVersion operatingSystemVersion() const;  // of the kernel
    std::string model() const;                              // as its maker calls it
    bool hasInternalBattery() const;
    std::optional<Appearance> appearance() const;
    std::optional<bool> isDoNotDisturbOn() const;
    // "de_DE", of the user's messages.
    static std::string localeIdentifier();

private:
    std::string root_;
};

}  // namespace utilia::platform
