#pragma once

#include <cstddef>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "Common/Foundation/Result.h"
#include "Common/Foundation/Value.h"

namespace utilia::platform {

inline constexpr std::size_t kMessageCatalogMaximumSize = 1024 * 1024;

// The texts of one language: a compiled gettext catalogue (.mo) in either byte order, UTF-8. Plural
// forms are passed over, and so are its hash table and the order of its entries.
//
// Threads: immutable once made.
class MessageCatalog final {
public:
    // Refused for bytes that are no such catalogue, also when only one of its entries is damaged.
    static Result<MessageCatalog> parse(Data bytes);

    // The translation, never empty; empty (nothing) for a key without one.
    std::optional<std::string_view> find(std::string_view key) const;
    std::size_t size() const { return entries_.size(); }

private:
    MessageCatalog() = default;

    Data bytes_;
    std::vector<std::pair<std::string_view, std::string_view>> entries_;  // in bytes_, by key
};

}  // namespace utilia::platform
