#include "Common/Platform/Linux/BinaryPropertyListWriter.h"

#include <array>
#include <bit>
#include <functional>
#include <string_view>
#include <vector>

#include "Common/Foundation/Unicode.h"
#include "Common/Platform/Linux/BinaryPropertyListReader.h"

namespace utilia::platform {
namespace {

using Index = std::uint32_t;

constexpr std::size_t bytesFor(std::uint64_t largest) {
    return largest <= 0xFF ? 1 : largest <= 0xFFFF ? 2 : largest <= 0xFFFFFFFF ? 4 : 8;
}

class Writer final {
public:
    Data write(const Value& top) {
        slots_.resize(256, kFree);
        number(top);
        referenceSize_ = bytesFor(objects_.size());
        out_.reserve(objects_.size() * 16);
        out_.insert(out_.end(), kBinaryPropertyListMagic.begin(), kBinaryPropertyListMagic.end());
        std::vector<std::size_t> offsets;
        offsets.reserve(objects_.size());
        for (const Object& object : objects_) {
            offsets.push_back(out_.size());
            encode(object);
        }
        const std::size_t table = out_.size();
        const std::size_t offsetSize = bytesFor(table);
        for (const std::size_t offset : offsets) put(offset, offsetSize);
        put(0, 6);
        put(offsetSize, 1);
        put(referenceSize_, 1);
        put(objects_.size(), 8);
        put(0, 8);
        put(table, 8);
        return std::move(out_);
    }

private:
    // A leaf is known by its content, a container by itself. `bits` holds booleans, numbers and
    // dates; `bytes` views text or data inside the value that is being written.
    struct Object {
        Value::Type type;
        bool beyondSigned = false;
        std::uint64_t bits = 0;
        std::string_view bytes;
        std::size_t references = 0;  // of a container: where they begin in references_
        std::size_t count = 0;       // … and how many

        bool operator==(const Object&) const = default;
    };

    Index number(const Value& value) {
        switch (value.type()) {
        case Value::Type::Array:
            return numberArray(*value.array());
        case Value::Type::Dictionary:
            return numberDictionary(*value.dictionary());
        case Value::Type::Boolean:
            return boolean(*value.boolean());
        case Value::Type::Integer:
            if (const auto* large = value.largeInteger()) {
                return leaf(
                    {.type = value.type(), .beyondSigned = true, .bits = *large, .bytes = {}});
            }
            return leaf({.type = value.type(),
                         .bits = static_cast<std::uint64_t>(*value.integer()),
                         .bytes = {}});
        case Value::Type::Real:
            return leaf({.type = value.type(),
                         .bits = std::bit_cast<std::uint64_t>(*value.real()),
                         .bytes = {}});
        case Value::Type::Date:
            return leaf(
                {.type = value.type(),
                 .bits = std::bit_cast<std::uint64_t>(value.date()->secondsSinceReferenceDate),
                 .bytes = {}});
        case Value::Type::String:
            return leaf({.type = value.type(), .bytes = *value.string()});
        case Value::Type::Bytes:
            return leaf({.type = value.type(),
                         .bytes = {reinterpret_cast<const char*>(value.data()->data()),
                                   value.data()->size()}});
        case Value::Type::Null:
            break;  // refused before (PropertyListRules.h)
        }
        return leaf({.type = Value::Type::Null, .bytes = {}});
    }

    // As the original platform does it: each is in the file, and the first is what is referred to.
    Index boolean(bool value) {
        const auto self = static_cast<Index>(objects_.size());
        objects_.push_back({.type = Value::Type::Boolean, .bits = value ? 1u : 0u, .bytes = {}});
        Index& first = firstBooleans_[value ? 1 : 0];
        if (first == kFree) first = self;
        return first;
    }

    Index numberArray(const Array& array) {
        const Index self = container(Value::Type::Array, array.size());
        const std::size_t begin = objects_[self].references;
        std::size_t i = begin;
        for (const Value& element : array) {
            const Index child = number(element);
            references_[i++] = child;
        }
        return self;
    }

    Index numberDictionary(const Dictionary& dictionary) {
        const Index self = container(Value::Type::Dictionary, 2 * dictionary.size());
        std::size_t i = objects_[self].references;
        for (const auto& [key, element] : dictionary) {
            references_[i++] = leaf({.type = Value::Type::String, .bytes = key});
        }
        for (const auto& [key, element] : dictionary) {
            const Index child = number(element);
            references_[i++] = child;
        }
        return self;
    }

    Index container(Value::Type type, std::size_t count) {
        objects_.push_back(
            {.type = type, .bytes = {}, .references = references_.size(), .count = count});
        references_.resize(references_.size() + count);
        return static_cast<Index>(objects_.size() - 1);
    }

    // The number of the object with this content; open addressing, at most half full.
    Index leaf(const Object& object) {
        if (leaves_ * 2 >= slots_.size()) grow();
        std::size_t slot = hash(object) & (slots_.size() - 1);
        for (; slots_[slot] != kFree; slot = (slot + 1) & (slots_.size() - 1)) {
            if (objects_[slots_[slot]] == object) return slots_[slot];
        }
        slots_[slot] = static_cast<Index>(objects_.size());
        objects_.push_back(object);
        ++leaves_;
        return slots_[slot];
    }

    void grow() {
        std::vector<Index> old(slots_.size() * 4, kFree);
        old.swap(slots_);
        for (const Index index : old) {
            if (index == kFree) continue;
            std::size_t slot = hash(objects_[index]) & (slots_.size() - 1);
            while (slots_[slot] != kFree) slot = (slot + 1) & (slots_.size() - 1);
            slots_[slot] = index;
        }
    }

    static std::size_t hash(const Object& object) {
        const std::size_t bits =
            (object.bits + static_cast<std::uint64_t>(object.type)) * 0x9E3779B97F4A7C15u;
        return (bits ^ bits >> 32) + std::hash<std::string_view>()(object.bytes);
    }

    void encode(const Object& object) {
        switch (object.type) {
        case Value::Type::Boolean:
            put(object.bits ? 0x09 : 0x08, 1);
            break;
        case Value::Type::Integer:
            encodeInteger(object);
            break;
        case Value::Type::Real:
            put(0x23, 1);
            put(object.bits, 8);
            break;
        case Value::Type::Date:
            put(0x33, 1);
            put(object.bits, 8);
            break;
        case Value::Type::String:
            encodeText(object.bytes);
            break;
        case Value::Type::Bytes:
            encodeMarker(0x40, object.bytes.size());
            out_.insert(out_.end(), object.bytes.begin(), object.bytes.end());
            break;
        case Value::Type::Array:
        case Value::Type::Dictionary: {
            const bool isArray = object.type == Value::Type::Array;
            encodeMarker(isArray ? 0xA0 : 0xD0, isArray ? object.count : object.count / 2);
            for (std::size_t i = 0; i < object.count; ++i)
                put(references_[object.references + i], referenceSize_);
            break;
        }
        case Value::Type::Null:
            put(0x00, 1);
            break;
        }
    }

    void encodeInteger(const Object& object) {
        if (object.beyondSigned) {
            put(0x14, 1);
            put(0, 8);
            put(object.bits, 8);
            return;
        }
        encodePlainInteger(object.bits);
    }

    // One, two and four bytes are unsigned, eight are signed: so every negative number takes eight.
    void encodePlainInteger(std::uint64_t bits) {
        const std::size_t size = bytesFor(bits);
        put(0x10 | static_cast<std::uint64_t>(std::countr_zero(size)), 1);
        put(bits, size);
    }

    void encodeText(std::string_view text) {
        bool ascii = true;
        for (const char c : text) ascii = ascii && static_cast<signed char>(c) >= 0;
        if (ascii) {
            encodeMarker(0x50, text.size());
            out_.insert(out_.end(), text.begin(), text.end());
            return;
        }
        const std::u16string units = utf16FromUtf8(text);
        encodeMarker(0x60, units.size());
        for (const char16_t unit : units) put(unit, 2);
    }

    void encodeMarker(std::uint8_t type, std::size_t count) {
        put(type | (count < 15 ? count : 15u), 1);
        if (count >= 15) encodePlainInteger(count);
    }

    void put(std::uint64_t value, std::size_t size) {
        while (size-- > 0)
            out_.push_back(static_cast<std::uint8_t>(size < 8 ? value >> 8 * size : 0));
    }

    static constexpr Index kFree = ~Index{0};

    std::array<Index, 2> firstBooleans_{kFree, kFree};
    std::vector<Object> objects_;
    std::vector<Index> references_;
    std::vector<Index> slots_;
    std::size_t leaves_ = 0;
    std::size_t referenceSize_ = 0;
    Data out_;
};

}  // namespace

Data writeBinaryPropertyList(const Value& value) { return Writer().write(value); }

}  // namespace utilia::platform
