#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

#include "Common/Foundation/Result.h"
#include "Common/Foundation/Value.h"
#include "Common/Platform/ExportProgress.h"
#include "Common/Platform/Linux/Modules/Export/ExportModule.h"

namespace utilia::platform {

// The Export module, loaded on the first ask. Fails with UtiliaErrorCode::Unavailable.
Result<const UtiliaExportModule*> exportModule();

// Gathers what the Export module makes, and passes its progress on.
//
//     ExportSink sink(progress);
//     if (!module->make(…, sink.table(), sink.reason())) return sink.error("make a picture");
//     return sink.finish("make a picture");
class ExportSink final {
public:
    // `progress` may be empty, and must stay.
    explicit ExportSink(const ExportProgress& progress) : progress_(progress) {}
    ExportSink(const ExportSink&) = delete;
    ExportSink& operator=(const ExportSink&) = delete;

    const UtiliaExportSink* table() const { return &table_; }
    // A buffer of kUtiliaExportReasonSize bytes.
    char* reason() { return reason_.data(); }

    // Tells progress that nothing is done yet. Answers false when that cancels.
    bool begin() { return goesOn(0); }

    bool isCancelled() const { return isCancelled_; }

    // Why the module gave up: UtiliaErrorCode::Cancelled when progress wanted that, else Refused
    // with the module's reason or for want of memory.
    Error error(std::string_view doing) const;
    // Tells progress that all is done, unless it was told. Fails when that cancels.
    Result<Data> finish(std::string_view doing);

private:
    static bool expect(void* context, std::size_t size) noexcept;
    static bool write(void* context, const std::uint8_t* bytes, std::size_t size) noexcept;
    static bool progress(void* context, double done) noexcept;
    bool goesOn(double done) noexcept;

    const ExportProgress& progress_;
    UtiliaExportSink table_{this, expect, write, progress};
    std::array<char, kUtiliaExportReasonSize> reason_{};
    Data data_;
    double told_ = -1;
    bool isCancelled_ = false;
    bool isOutOfMemory_ = false;
};

}  // namespace utilia::platform
