#include "Common/Platform/PropertyListSerialization.h"

#include <cstring>

#include "Common/Platform/Linux/BinaryPropertyListReader.h"
#include "Common/Platform/Linux/BinaryPropertyListWriter.h"
#include "Common/Platform/Linux/OutOfMemory.h"
#include "Common/Platform/Linux/PropertyListRules.h"
#include "Common/Platform/Linux/XmlPropertyListReader.h"
#include "Common/Platform/Linux/XmlPropertyListWriter.h"

namespace utilia::platform {

Result<Value> propertyListFromData(std::span<const std::uint8_t> bytes) {
    return orOutOfMemory("read", "property list", [&]() -> Result<Value> {
        if (bytes.empty())
            return Error::cocoa(CocoaErrorCode::PropertyListReadCorrupt, "property list: empty");
        if (bytes.size() > kPropertyListMaximumSize) {
            return Error::cocoa(CocoaErrorCode::PropertyListReadCorrupt,
                                "property list: too large");
        }
        const bool isBinary = bytes.size() >= kBinaryPropertyListMagic.size() &&
                              std::memcmp(bytes.data(), kBinaryPropertyListMagic.data(),
                                          kBinaryPropertyListMagic.size()) == 0;
        return isBinary ? readBinaryPropertyList(bytes) : readXmlPropertyList(bytes);
    });
}

Result<Data> dataFromPropertyList(const Value& value, PropertyListFormat format) {
    return orOutOfMemory("write", "property list", [&]() -> Result<Data> {
        if (auto checked = checkPropertyList(value); !checked) return std::move(checked).error();
        auto bytes = format == PropertyListFormat::Binary
                         ? Result<Data>(writeBinaryPropertyList(value))
                         : writeXmlPropertyList(value);
        if (bytes && bytes->size() > kPropertyListMaximumSize) {
            return Error::cocoa(CocoaErrorCode::PropertyListWriteInvalid,
                                "property list: too large");
        }
        return bytes;
    });
}

}  // namespace utilia::platform
