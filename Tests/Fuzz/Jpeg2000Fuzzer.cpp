#include "Tests/Fuzz/BitmapFuzzer.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const utilia::test::BitmapFuzzer fuzzer(utilia::platform::BitmapImageFileType::Jpeg2000,
                                                   true);
    fuzzer.run({bytes, size});
    return 0;
}
