// Both readers of property lists, and both writers on what was accepted: it can be written, reads back as the same
// from the binary form, and reads back from the XML form whenever that can hold it.

#include <cstdint>
#include <cstdlib>

#include "Common/Platform/PropertyListSerialization.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace utilia::platform;
    const auto value = propertyListFromData({data, size});
    if (!value) return 0;
    const auto binary = dataFromPropertyList(*value, PropertyListFormat::Binary);
    if (binary) {
        const auto again = propertyListFromData(*binary);
        if (!again || !(*again == *value)) std::abort();
    }
    const auto xml = dataFromPropertyList(*value, PropertyListFormat::Xml);
    if (xml && !propertyListFromData(*xml)) std::abort();
    return 0;
}
