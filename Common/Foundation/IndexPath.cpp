#include "Common/Foundation/IndexPath.h"

#include <cstdio>

namespace utilia {

std::uint64_t IndexPath::indexAtPosition(std::size_t position) const {
    return position < indexes_.size() ? indexes_[position] : kNotFound;
}

std::string IndexPath::description() const {
    char address[32];
    std::snprintf(address, sizeof address, "%p", static_cast<const void*>(this));
    std::string text = "<NSIndexPath: ";
    text.append(address).append("> {length = ").append(std::to_string(length()));
    text += ", path = ";
    for (std::size_t i = 0; i < indexes_.size(); ++i) {
        if (i > 0) text += " - ";
        text += std::to_string(indexes_[i]);
    }
    return text + "}";
}

}  // namespace utilia
