#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "Common/Foundation/Unicode.h"
#include "Common/Platform/Linux/MessageCatalog.h"

using utilia::platform::MessageCatalog;

namespace {

void require(bool holds) {
    if (!holds) std::abort();
}

}  // namespace

// Whatever a catalogue is taken for, its texts are UTF-8 and lie in its bytes.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto catalog = MessageCatalog::parse(utilia::Data(data, data + size));
    if (!catalog) {
        require(catalog.error().is(utilia::UtiliaErrorCode::Refused));
        return 0;
    }
    require(catalog->size() <= size / 8);
    for (const std::string_view key : {"Quit", "OK", "en", "", "a"}) {
        const auto text = catalog->find(key);
        require(!text || (!text->empty() && text->size() < size && utilia::isValidUtf8(*text)));
        require(!text || !key.empty());
    }
    return 0;
}
