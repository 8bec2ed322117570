#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Common/Foundation/ComparisonResult.h"
#include "Common/Foundation/Export.h"
#include "Common/Foundation/IndexPath.h"
#include "Common/Platform/Bundle.h"

namespace utilia {

// Versions of applications and of the resources that they share: read, printed and compared.
//
// A version is an index path, usually major, minor, patch and build, and is ordered as those are.
// It has two forms in text, "5.1.2 (3456)" for people and "5.1.2-3456" for reports and records.
// Each has exactly four numbers, signed and with 64 bits: further components are left out, one that
// is missing is printed as kNotFound, and no version at all as four zeros. So a version of another
// length than four does not read back as itself.
//
// Out of memory, answers are empty, with one log line: no version, a version without components, "".
//
// Threads: any.
class UTILIA_EXPORT VersionManager final {
public:
    VersionManager() = delete;

    // The four numbers in a text, whatever stands between them; empty when there are more or less
    // than four, and for no text. A number is a run of decimal digits of any script, but only ASCII
    // digits have a value: the others end it, and are 0 when it begins with them. What is too large
    // is 9223372036854775807. No signs.
    static std::optional<IndexPath> versionWithString(std::optional<std::string_view> string);

    // "CFBundleShortVersionString" at its points, then "CFBundleVersion", as many components as that
    // gives. What is no number is 0 (leading digits count), a negative one is taken modulo 2^64. A
    // short version that is missing, or no text, has no components; a build number that is missing
    // is 0. So no bundle, and one that says nothing, has the version 0.
    static IndexPath versionFromBundle(const platform::Bundle* bundle);
    static IndexPath mainBundleVersion();
    static std::string mainBundleVersionReportForm();
    static std::string stringVersionFromBundle(const platform::Bundle* bundle);  // for people

    static std::string versionToString(const std::optional<IndexPath>& version);
    static std::string versionToStringReportForm(const std::optional<IndexPath>& version);

    // Of texts, not of versions: numbers in them are compared as numbers, all else as it is written
    // (compareNumerically). "5.10.0" comes after "5.9.0", "5.1" before "5.1.0".
    static ComparisonResult compareVersion(std::string_view version, std::string_view withVersion);
};

}  // namespace utilia
