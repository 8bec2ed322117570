#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Value.h"

namespace utilia::platform {

// One domain of stored preferences: the running application's own, another application's, or the suite that the
// applications of a group share.
//
// A domain is one binary property-list file. Every write takes the domain's lock, reads what is there, changes only
// the keys that were set here, and replaces the file; so writers of different keys never undo each other, and a
// reader sees the file before or after a write, never between. Another process's write is seen by the next read.
//
// Own and foreign domains write through: a set that returned is in the file. A suite gathers sets until
// `synchronize` or the end of the object; reads see the gathered sets.
//
// A file that does not parse is set aside beside the domain under a dated name, with one log line, and never
// overwritten; the last good copy (".bak") is used when there is a valid one. A write that fails is logged once
// with its object; the file keeps its earlier content and the gathered sets stay for the next synchronize.
//
// Threads: an instance belongs to one thread; instances of one domain may be used on different threads.
class UTILIA_EXPORT UserDefaults final {
public:
    // The running application's own domain, named by its bundle identifier ("" without one: nothing is stored).
    static UserDefaults& standardUserDefaults();
    // The domain of any application, by its bundle identifier. Empty when the name is not a file name.
    static std::unique_ptr<UserDefaults> initWithDomain(std::string_view bundleIdentifier);
    // A group's shared suite, inside the group's container. Empty when `name` is not usable as a suite.
    static std::unique_ptr<UserDefaults> initWithSuiteName(std::string_view name);

    UserDefaults(const UserDefaults&) = delete;
    UserDefaults& operator=(const UserDefaults&) = delete;
    ~UserDefaults();  // writes what is still gathered

    std::optional<Value> objectForKey(std::string_view key) const;
    // Empty when the key is absent or holds another type.
    std::optional<Array> arrayForKey(std::string_view key) const;
    std::optional<Dictionary> dictionaryForKey(std::string_view key) const;
    std::optional<Data> dataForKey(std::string_view key) const;
    // Numbers are converted to text.
    std::optional<std::string> stringForKey(std::string_view key) const;
    bool boolForKey(std::string_view key) const;
    std::int64_t integerForKey(std::string_view key) const;
    double doubleForKey(std::string_view key) const;

    // Every key and value of the domain.
    Dictionary dictionaryRepresentation() const;

    // Values that a property list cannot hold (text with NUL or not UTF-8, dates that are not finite) are refused
    // with one log line and change nothing.
    void setObject(Value value, std::string_view forKey);
    void removeObjectForKey(std::string_view key);

    // Writes what was gathered. Answers whether everything set so far is in the file.
    bool synchronize();

    // Where this domain is stored; empty for the domain without a name.
    const std::string& path() const;

private:
    struct Implementation;
    explicit UserDefaults(std::unique_ptr<Implementation> implementation);
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace utilia::platform
