#include <algorithm>
#include <cassert>

#include "Common/Foundation/CopyOnWriteInternal.h"
#include "Common/Foundation/KeyedHash.h"
#include "Common/Foundation/Value.h"

// Entries lie in one vector in the order in which their keys were first set, so that walking a
// dictionary is walking an array. Small dictionaries, which is nearly all of them, are searched
// from front to back. Above kIndexedFrom entries an index of positions stands beside the vector:
// linear probing over a table at most half full. Each slot keeps 32 bits of its key's hash, which
// give its home place, so that growing and removing never touch a key.

namespace utilia {
namespace {

constexpr std::size_t kIndexedFrom = 33;
constexpr std::size_t kNone = static_cast<std::size_t>(-1);

std::uint32_t hashOf(std::string_view key) { return static_cast<std::uint32_t>(keyedHash(key)); }

class PositionIndex final {
public:
    bool isActive() const { return !slots_.empty(); }

    // The position for which `matches` answers true, among those of this hash; kNone without one.
    template <class Matches>
    std::size_t find(std::uint32_t hash, Matches matches) const {
        for (std::size_t place = hash & mask(); slots_[place].occupied; place = next(place)) {
            if (slots_[place].hash == hash && matches(slots_[place].position))
                return slots_[place].position;
        }
        return kNone;
    }

    // Makes room for `count` positions in all; after that, adding up to them does not fail.
    void reserve(std::size_t count) {
        if (count * 2 <= slots_.size()) return;
        std::size_t size = 128;
        while (size < count * 2) size *= 2;
        std::vector<Slot> old(size);
        old.swap(slots_);
        for (const Slot& slot : old) {
            if (slot.occupied) add(slot.hash, slot.position);
        }
    }

    void add(std::uint32_t hash, std::size_t position) {
        std::size_t place = hash & mask();
        while (slots_[place].occupied) place = next(place);
        slots_[place] = {position, hash, true};
    }

    // Forgets a position; those behind it move up by one, as their entries do.
    void remove(std::uint32_t hash, std::size_t position) {
        std::size_t hole = hash & mask();
        while (slots_[hole].position != position || !slots_[hole].occupied) hole = next(hole);
        // Later members of the run move into the hole unless that would put them before their home
        // place.
        for (std::size_t place = next(hole); slots_[place].occupied; place = next(place)) {
            const std::size_t home = slots_[place].hash & mask();
            if (((place - home) & mask()) < ((place - hole) & mask())) continue;
            slots_[hole] = slots_[place];
            hole = place;
        }
        slots_[hole] = {};
        for (Slot& slot : slots_) {
            if (slot.occupied && slot.position > position) --slot.position;
        }
    }

private:
    struct Slot {
        std::size_t position = 0;
        std::uint32_t hash = 0;
        bool occupied = false;
    };

    std::size_t mask() const { return slots_.size() - 1; }
    std::size_t next(std::size_t place) const { return (place + 1) & mask(); }

    std::vector<Slot> slots_;  // a power of two
};

}  // namespace

struct Dictionary::Storage {
    std::vector<Entry> entries;
    PositionIndex index;

    std::size_t positionOf(std::string_view key) const {
        if (index.isActive()) {
            return index.find(hashOf(key),
                              [&](std::size_t position) { return entries[position].first == key; });
        }
        for (std::size_t i = 0; i < entries.size(); ++i) {
            if (entries[i].first == key) return i;
        }
        return kNone;
    }

    void append(std::string key, Value value) {
        const std::size_t position = entries.size();
        if (position + 1 >= kIndexedFrom) {
            const bool fresh = !index.isActive();
            PositionIndex grown;
            if (fresh) {
                grown.reserve(position + 1);
                for (std::size_t i = 0; i < position; ++i) grown.add(hashOf(entries[i].first), i);
            } else {
                index.reserve(position + 1);
            }
            const std::uint32_t hash = hashOf(key);
            entries.emplace_back(std::move(key), std::move(value));
            if (fresh) index = std::move(grown);
            index.add(hash, position);
        } else {
            entries.emplace_back(std::move(key), std::move(value));
        }
    }

    void erase(std::size_t position) {
        if (index.isActive()) index.remove(hashOf(entries[position].first), position);
        entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(position));
    }
};

Dictionary::Dictionary(std::initializer_list<Entry> entries) {
    for (const Entry& entry : entries) set(entry.first, entry.second);
}

Dictionary::Storage& Dictionary::own() { return ownStorage(storage_); }

std::size_t Dictionary::size() const { return storage_ ? storage_->entries.size() : 0; }
Dictionary::const_iterator Dictionary::begin() const {
    return storage_ ? storage_->entries.data() : nullptr;
}
Dictionary::const_iterator Dictionary::end() const { return begin() + size(); }

const Value* Dictionary::find(std::string_view key) const {
    const std::size_t position = storage_ ? storage_->positionOf(key) : kNone;
    return position == kNone ? nullptr : &storage_->entries[position].second;
}

std::optional<std::string> Dictionary::string(std::string_view key) const {
    const Value* const value = find(key);
    const std::string* const text = value ? value->string() : nullptr;
    return text ? std::optional(*text) : std::nullopt;
}

std::optional<Dictionary> Dictionary::dictionary(std::string_view key) const {
    const Value* const value = find(key);
    const Dictionary* const dictionary = value ? value->dictionary() : nullptr;
    return dictionary ? std::optional(*dictionary) : std::nullopt;
}

std::optional<Array> Dictionary::array(std::string_view key) const {
    const Value* const value = find(key);
    const Array* const array = value ? value->array() : nullptr;
    return array ? std::optional(*array) : std::nullopt;
}

bool Dictionary::boolean(std::string_view key) const {
    const Value* const value = find(key);
    return value && value->boolValue();
}

void Dictionary::set(std::string_view key, Value value) {
    // The key may be text of the storage itself: it is not used after own(), which may let that
    // storage go.
    const std::size_t position = storage_ ? storage_->positionOf(key) : kNone;
    if (position != kNone) {
        own().entries[position].second = std::move(value);
    } else {
        std::string ownKey(key);
        own().append(std::move(ownKey), std::move(value));
    }
}

bool Dictionary::remove(std::string_view key) {
    const std::size_t position = storage_ ? storage_->positionOf(key) : kNone;
    if (position == kNone) return false;
    own().erase(position);
    return true;
}

void Dictionary::reserve(std::size_t count) {
    Storage& storage = own();
    storage.entries.reserve(count);
    if (storage.index.isActive()) storage.index.reserve(count);
}

bool operator==(const Dictionary& left, const Dictionary& right) {
    if (left.storage_ == right.storage_) return true;
    if (left.size() != right.size()) return false;
    return std::all_of(left.begin(), left.end(), [&right](const Dictionary::Entry& entry) {
        const Value* const other = right.find(entry.first);
        return other && *other == entry.second;
    });
}

}  // namespace utilia
