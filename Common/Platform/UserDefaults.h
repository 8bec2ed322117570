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
// Reads go to the newest version, also when another process wrote it a moment ago, and never to half of one. A key
// that is set replaces that key alone: whatever others have stored under other keys in the meantime survives. Each
// domain is kept in a binary property list of its own, which is exchanged as a whole and under a lock.
//
// With a domain of one application, own or foreign, the value is stored when the set returns. With a suite it waits
// for synchronize(), or for the end of the object, and is only seen through this object until then.
//
// Failures are logged once, with the file's name. After a failed write the file is as before, and what a suite has
// gathered waits for another synchronize(). Damage costs no data that could be saved: the unreadable file is kept,
// renamed to tell the time at which it was found, and the backup (".bak") stands in for it if that one can be read.
// A value that is set through an object after its key could not be read is dropped, with one log line: it would replace
// what its maker has not seen.
//
// Threads: only the one that uses the object; other objects for the same domain may be used on other threads.
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
