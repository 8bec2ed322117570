#include "Common/Platform/Linux/Modules/Export/PdfDocument.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>

namespace utilia::platform::pdf {
namespace {

// The first version that takes colour profiles of version 4. The bytes of the second line tell
// programs that the file is not text (7.5.2).
constexpr std::string_view kHeader = "%PDF-1.7\n%\xE2\xE3\xCF\xD3\n";
constexpr int kDecimalPlaces = 6;
// What a float holds exactly, and more than any page can have.
constexpr double kWholeNumbers = 16'777'216;

}  // namespace

void appendNumber(std::string& text, double number) {
    std::array<char, 400> digits;
    const bool isWhole = std::abs(number) <= kWholeNumbers && std::trunc(number) == number;
    const auto [end, error] = std::to_chars(digits.data(), digits.data() + digits.size(), number,
                                            std::chars_format::fixed, isWhole ? 0 : kDecimalPlaces);
    text.append(digits.data(), end);
    if (isWhole) return;
    while (text.ends_with('0')) text.pop_back();
    if (text.ends_with('.')) text.pop_back();
}

void appendNumber(std::string& text, std::uint64_t number) {
    std::array<char, 20> digits;
    const auto [end, error] = std::to_chars(digits.data(), digits.data() + digits.size(), number);
    text.append(digits.data(), end);
}

void appendReference(std::string& text, std::uint32_t object) {
    appendNumber(text, std::uint64_t{object});
    text += " 0 R";
}

std::uint32_t PdfDocument::newObject() {
    offsets_.push_back(0);
    return static_cast<std::uint32_t>(offsets_.size());
}

bool PdfDocument::writeHeader() { return write(kHeader); }

bool PdfDocument::writeObject(std::uint32_t object, std::string_view content) {
    return beginObject(object) && write(content) && write("\nendobj\n");
}

bool PdfDocument::beginObject(std::uint32_t object) {
    offsets_[object - 1] = position_;
    std::string text;
    appendNumber(text, std::uint64_t{object});
    text += " 0 obj\n";
    return write(text);
}

bool PdfDocument::write(std::string_view text) {
    return write(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
}

bool PdfDocument::write(const std::uint8_t* bytes, std::size_t size) {
    position_ += size;
    return sink_.write(sink_.context, bytes, size);
}

// Entries of the table have 20 bytes each (7.5.4).
bool PdfDocument::finish(std::uint32_t catalogue) {
    const std::uint64_t start = position_;
    std::string text = "xref\n0 ";
    appendNumber(text, offsets_.size() + 1);
    text += "\n0000000000 65535 f \n";
    std::array<char, 32> entry;
    for (const std::uint64_t offset : offsets_) {
        std::snprintf(entry.data(), entry.size(), "%010llu 00000 n \n",
                      static_cast<unsigned long long>(offset));
        text += entry.data();
        if (text.size() < 64 * 1024) continue;
        if (!write(text)) return false;
        text.clear();
    }
    text += "trailer\n<< /Size ";
    appendNumber(text, offsets_.size() + 1);
    text += " /Root ";
    appendReference(text, catalogue);
    text += " >>\nstartxref\n";
    appendNumber(text, start);
    text += "\n%%EOF\n";
    return write(text);
}

}  // namespace utilia::platform::pdf
