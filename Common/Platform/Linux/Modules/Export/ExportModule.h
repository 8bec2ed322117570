#pragma once

#include <cstddef>
#include <cstdint>

// What the framework and its Export module say to one another: plain C functions and structures, so
// that neither C++ types nor exceptions cross between two objects that may have been built apart.
// The module knows the bitmap formats besides TIFF, which the Icons module knows, and PDF.
//
// Threads: every function may be called on any thread; they share nothing. What a function calls
// back, it calls on the thread that called it.

extern "C" {

inline constexpr std::uint32_t kUtiliaExportVersion = 2;
inline constexpr const char* kUtiliaExportSymbol = "utiliaExportModule";
inline constexpr std::size_t kUtiliaExportReasonSize = 256;

// Takes what is made, piece by piece. Each function answers whether the work shall go on; when it
// shall not, the function that was called gives up and answers false, with any reason.
struct UtiliaExportSink {
    void* context;
    // How many bytes there will be at most, where that is known or guessed beforehand. Who does
    // not need so much room may also ask for less, or go on without.
    bool (*expect)(void* context, std::size_t size);
    bool (*write)(void* context, const std::uint8_t* bytes, std::size_t size);
    // The share of the work that is done, 0 to 1. At least every 100 ms or so of work.
    bool (*progress)(void* context, double done);
};

// 8-bit RGBA rows from the top, not premultiplied, no padding, and the ICC profile of their
// colours, null for none.
struct UtiliaExportPixels {
    const std::uint8_t* rgba;
    std::uint32_t pixelsWide;
    std::uint32_t pixelsHigh;
    const std::uint8_t* colourProfile;
    std::size_t colourProfileSize;
    // Every pixel is grey, and the profile describes grey: what can hold that is written in grey,
    // everything else without the profile. False for every other profile, and without one.
    bool isGrey;
};

struct UtiliaExportBitmaps;  // ExportBitmaps.h
struct UtiliaExportPDF;      // ExportPDF.h

struct UtiliaExportModule {
    std::uint32_t version;  // kUtiliaExportVersion; the rest is only read when it matches
    const UtiliaExportBitmaps* bitmaps;
    const UtiliaExportPDF* pdf;
};

}  // extern "C"
