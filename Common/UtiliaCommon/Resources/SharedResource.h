#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/IndexPath.h"
#include "Common/Foundation/Value.h"

namespace utilia {

// Key of the suite, and of a resource's record in it. Contract: never rename.
inline constexpr std::string_view kResourcesKey = "Resources";
inline constexpr std::string_view kResourcePathKey = "ResourcePath";  // string
inline constexpr std::string_view kResourceVersionKey = "Version";    // string, in report form

// The record of one shared resource: where its newest installed copy lies and which version that
// is. A resource is known by its name and by the identifier of the bundle that owns it.
//
// Nothing is kept here: every call reads or changes the shared store, under its lock and once. So a
// change of one field never disturbs the other, nor any other resource; but path and version are
// two changes, and who reads in between sees the new one of the first and the old one of the second.
// Documentation/Formats/SharedResources.md has the layout.
//
// Out of memory, nothing is answered and nothing changed, with one log line.
//
// Threads: any; never inside a block of accessAppGroupPlist.
class UTILIA_EXPORT SharedResource final {
public:
    // Touches no store; there need not be a record.
    SharedResource(std::string_view name, std::string_view bundleId);

    const std::string& name() const { return name_; }
    const std::string& bundleId() const { return bundleId_; }

    // Empty when the field, the record or anything above it is missing or of another type.
    std::optional<Value> getValueForKey(std::string_view key) const;
    // Nothing removes the field. The record is made when it is missing, and stays for ever. A value,
    // name or identifier that a property list cannot hold changes nothing, with one log line.
    void updateValue(std::optional<Value> value, std::string_view forKey) const;

    std::optional<std::string> path() const;
    void setPath(const std::optional<std::string>& path) const;

    // Empty also when the stored text is no version.
    std::optional<IndexPath> version() const;
    // Stored in report form, with four components whatever it has: no version is stored as 0.0.0-0,
    // which reads back as four zeros.
    void setVersion(const std::optional<IndexPath>& version) const;

private:
    std::optional<Value> stored(std::string_view key) const;
    void store(std::optional<Value> value, std::string_view key) const;

    std::string name_;
    std::string bundleId_;
    bool isNamed_ = false;  // else there was no memory for the names
};

}  // namespace utilia
