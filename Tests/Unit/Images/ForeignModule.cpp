#include <cstdint>

// A module as a later framework might bring it: only its version can be relied on. Without the
// definition, it lacks even the table.
#ifdef UTILIA_FOREIGN_VERSION
extern "C" __attribute__((visibility("default"))) const std::uint32_t utiliaIconsModule[];
alignas(void*) const std::uint32_t utiliaIconsModule[] = {UTILIA_FOREIGN_VERSION};
extern "C" __attribute__((visibility("default"))) const std::uint32_t utiliaExportModule[];
alignas(void*) const std::uint32_t utiliaExportModule[] = {UTILIA_FOREIGN_VERSION};
#else
extern "C" __attribute__((visibility("default"))) int utiliaNothing();
int utiliaNothing() { return 0; }
#endif
