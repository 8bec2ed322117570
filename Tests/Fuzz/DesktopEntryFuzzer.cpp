// Desktop entries as people and other programs write them: what is accepted can be marked and
// unmarked, the mark is read back as it was set, and the file is afterwards what it was before.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "Common/Platform/Linux/DesktopEntryFile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using utilia::platform::DesktopEntryFile;
    constexpr const char* kMark = "Hidden";
    const std::string text(reinterpret_cast<const char*>(data), size);
    const auto file = DesktopEntryFile::parse("fuzz.desktop", text);
    if (!file) return 0;
    if (file->text() != text) std::abort();
    (void)file->isShownIn("GNOME:KDE:");
    (void)file->string("Exec");

    const auto plain = file->without(kMark);
    const auto marked = file->withBoolean(kMark, true);
    if (plain && plain->has(kMark)) std::abort();
    if (!file->has(kMark) && (!plain || plain->text() != text)) std::abort();
    if (!marked) return 0;  // a file without the group has no place for a mark
    if (!plain || !marked->boolean(kMark, false)) std::abort();
    const auto unmarked = marked->without(kMark);
    if (!unmarked ||
        (unmarked->text() != plain->text() && unmarked->text() != plain->text() + "\n"))
        std::abort();
    if (unmarked->string("Exec") != file->string("Exec")) std::abort();
    return 0;
}
