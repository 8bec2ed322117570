// Both readers of property lists, and both writers on what was accepted: it can be written, reads back as the same
// from the binary form, and reads back from the XML form whenever that can hold it. And the look at one key, which
// answers for each key of a list that can be read what the whole list holds there.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>

#include "Common/Platform/Linux/BinaryPropertyListReader.h"
#include "Common/Platform/PropertyListSerialization.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace utilia::platform;
    constexpr std::string_view kNoKey = "hardly a key";
    const auto value = propertyListFromData({data, size});
    const auto absent = readBinaryPropertyListKey({data, size}, kNoKey);
    const bool isBinary =
        size >= kBinaryPropertyListMagic.size() &&
        std::memcmp(data, kBinaryPropertyListMagic.data(), kBinaryPropertyListMagic.size()) == 0;
    if (!value) return 0;
    if (isBinary) {
        const utilia::Dictionary* const all = value->dictionary();
        if (absent.has_value() != (all != nullptr)) std::abort();
        if (absent && absent->has_value() != (all->find(kNoKey) != nullptr)) std::abort();
        int looks = 0;
        for (const auto& [key, held] : all ? *all : utilia::Dictionary()) {
            if (++looks > 16) break;
            const auto one = readBinaryPropertyListKey({data, size}, key);
            if (!one || !*one || !(**one == held)) std::abort();
            // Through windows it is the same, or not to be had.
            const auto fetch = [&](std::size_t offset, std::span<std::uint8_t> into) {
                if (offset > size || into.size() > size - offset) std::abort();
                std::memcpy(into.data(), data + offset, into.size());
                return true;
            };
            const auto fetched = readBinaryPropertyListKey(size, fetch, key);
            if (fetched && (!*fetched || !(**fetched == held))) std::abort();
        }
    }
    const auto binary = dataFromPropertyList(*value, PropertyListFormat::Binary);
    if (binary) {
        const auto again = propertyListFromData(*binary);
        if (!again || !(*again == *value)) std::abort();
    }
    const auto xml = dataFromPropertyList(*value, PropertyListFormat::Xml);
    if (xml && !propertyListFromData(*xml)) std::abort();
    return 0;
}
