#pragma once

#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "Common/Foundation/Value.h"

// Names of attributes and elements that are made from keys. A key that is a name in XML 1.0, with
// no colon in it and at most kLongestName bytes long, is used as it is. In all others, each
// character that cannot stand there becomes "_"; and since an element cannot have two attributes of
// one name, "_2", "_3" … follow where that name is used already.
//
// Threads: any; an object belongs to one thread.

namespace utilia {

inline constexpr std::size_t kLongestName = 1000;

// Names that the element has before the dictionary's come.
enum class NamesTaken { None, OfEvent };
bool isTaken(std::string_view name, NamesTaken taken);

// Names of ASCII letters, digits, "_", "-" and "."; there are others.
bool isPlainName(std::string_view key);

// A name, whatever the key.
std::string xmlName(std::string_view key);

// The names of a dictionary's attributes, no two of which are the same. A key that is a name keeps
// it, wherever it stands.
class AttributeNames final {
public:
    AttributeNames(const Dictionary& dictionary, NamesTaken taken);

    // To be asked once for each key, in the order of the dictionary.
    std::string nameFor(std::string_view key);

private:
    NamesTaken taken_;
    std::unordered_set<std::string> used_;
    std::unordered_map<std::string, unsigned> lastNumbers_;
};

}  // namespace utilia
