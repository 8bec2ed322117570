#pragma once

#include <cstddef>
#include <cstdint>

// What the framework and its Icons module say to one another: plain C functions and structures, so
// that neither C++ types nor exceptions cross between two objects that may have been built apart.
//
// Threads: every function may be called on any thread; they share nothing.

extern "C" {

inline constexpr std::uint32_t kUtiliaIconsVersion = 4;
inline constexpr const char* kUtiliaIconsSymbol = "utiliaIconsModule";
inline constexpr std::size_t kUtiliaIconsReasonSize = 256;

// Contract: never renumber. How the pixels of a directory are packed.
enum UtiliaIconsCompression : std::uint32_t {
    UtiliaIconsUncompressed = 0,
    UtiliaIconsPackBits = 1,
    UtiliaIconsLZW = 2,
    UtiliaIconsDeflate = 3,
};

// One TIFF directory that can be read.
struct UtiliaIconsDirectory {
    std::uint32_t number;  // its place in the file
    std::uint32_t pixelsWide;
    std::uint32_t pixelsHigh;
    std::uint32_t compression;  // UtiliaIconsCompression
};

// Pixels to write: 8-bit RGBA rows from the top, not premultiplied, no padding.
struct UtiliaIconsBitmap {
    const std::uint8_t* rgba;
    std::uint32_t pixelsWide;
    std::uint32_t pixelsHigh;
    std::uint32_t compression;          // UtiliaIconsCompression
    const std::uint8_t* colourProfile;  // ICC; null for none
    std::size_t colourProfileSize;
    bool isGrey;  // every pixel is, and the profile describes grey: to be written in grey
};

// Takes the ICC profile of a picture that has one; the bytes are gone afterwards. Answers false to
// give up.
struct UtiliaIconsProfileTaker {
    void* context;
    bool (*take)(void* context, const std::uint8_t* bytes, std::size_t size);
};

// Is told which share of the writing is done, 0 to 1; answers false to give up.
struct UtiliaIconsProgress {
    void* context;
    bool (*goesOn)(void* context, double done);
};

struct UtiliaIconsModule {
    std::uint32_t version;  // kUtiliaIconsVersion; the rest is only read when it matches

    // Fills in those of the first `capacity` directories that are within the limits, and answers how
    // many there are; 0 for bytes that are no image: no TIFF, or a first directory that is beyond the
    // limits or damaged.
    std::size_t (*list)(const std::uint8_t* bytes, std::size_t size,
                        UtiliaIconsDirectory* directories, std::size_t capacity);

    // Decodes one directory into `rgba`, whose size must be that of the directory's pixels. Answers
    // whether it could; else `reason` (kUtiliaIconsReasonSize bytes) says why, and the pixels are
    // not to be used.
    bool (*decode)(const std::uint8_t* bytes, std::size_t size, std::uint32_t number,
                   std::uint8_t* rgba, std::size_t rgbaSize, const UtiliaIconsProfileTaker* profile,
                   char* reason);

    // Writes one directory for each bitmap. Answers null, and why, when it could not; else bytes
    // that the caller gives back to `release`. `progress` may be null.
    std::uint8_t* (*encode)(const UtiliaIconsBitmap* bitmaps, std::size_t count, std::size_t* size,
                            const UtiliaIconsProgress* progress, char* reason);
    void (*release)(std::uint8_t* bytes);
};

}  // extern "C"
