#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <vector>

namespace utilia::test {

// A picture as a PDF document holds it, decoded with zlib and nothing of ours.
struct PdfImage {
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::vector<std::uint8_t> rgba;
    bool isGrey = false;  // one colour component in the file
    bool hasMask = false;
    std::vector<std::uint8_t> profile;
    std::array<double, 6> matrix = {};  // where it is drawn
};

struct PdfPage {
    std::array<double, 4> mediaBox = {};
    std::vector<PdfImage> images;
    bool hasGroup = false;
};

struct PdfReaderError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The pages of a document of the kind that the framework writes. Strict: every object must begin
// where the table says, end where the next one begins, be reached from the catalogue, and have
// streams of exactly their length; dictionaries hold no key that is not known here. Throws
// PdfReaderError, which names what is wrong.
std::vector<PdfPage> readPdf(std::span<const std::uint8_t> document);

}  // namespace utilia::test
