#include "Tests/Fuzz/BitmapFuzzer.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const utilia::test::BitmapFuzzer fuzzer(utilia::platform::BitmapImageFileType::Png,
                                                   true);
    fuzzer.run({bytes, size});
    return 0;
}
