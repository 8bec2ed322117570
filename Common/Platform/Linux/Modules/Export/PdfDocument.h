#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Common/Platform/Linux/Modules/Export/ExportModule.h"

namespace utilia::platform::pdf {

// A number as PDF writes them: without an exponent, six places after the point at most.
void appendNumber(std::string& text, double number);
void appendNumber(std::string& text, std::uint64_t number);
// "12 0 R"
void appendReference(std::string& text, std::uint32_t object);

// The file around the objects (ISO 32000-1, 7.5): header, objects one after the other, the table
// of where they begin, trailer. Objects are numbered before they are written, and can be written
// in any order.
//
// Functions answer whether the sink took what they wrote.
//
// Threads: one at a time.
class PdfDocument final {
public:
    explicit PdfDocument(const UtiliaExportSink& sink) : sink_(sink) {}

    std::uint32_t newObject();

    bool writeHeader();
    // A whole object. Throws std::bad_alloc.
    bool writeObject(std::uint32_t object, std::string_view content);
    // The beginning of one, which write() goes on with.
    bool beginObject(std::uint32_t object);
    bool write(std::string_view text);
    bool write(const std::uint8_t* bytes, std::size_t size);
    // Ends the file. Every numbered object has been written.
    bool finish(std::uint32_t catalogue);

private:
    const UtiliaExportSink& sink_;
    std::uint64_t position_ = 0;
    std::vector<std::uint64_t> offsets_;  // of object 1, 2, …
};

}  // namespace utilia::platform::pdf
