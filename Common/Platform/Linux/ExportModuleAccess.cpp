#include "Common/Platform/Linux/ExportModuleAccess.h"

#include <algorithm>
#include <new>
#include <utility>

#include "Common/Platform/Linux/ModuleLoader.h"

namespace utilia::platform {

Result<const UtiliaExportModule*> exportModule() {
    static const Result<const UtiliaExportModule*> module =
        moduleTable<UtiliaExportModule>("Export", kUtiliaExportSymbol, kUtiliaExportVersion);
    return module;
}

Error ExportSink::error(std::string_view doing) const {
    const auto refused = [doing](std::string_view why) {
        return Error::utilia(UtiliaErrorCode::Refused,
                             std::string(doing) + ": " + std::string(why));
    };
    if (isCancelled_)
        return Error::utilia(UtiliaErrorCode::Cancelled, std::string(doing) + ": cancelled");
    if (isOutOfMemory_) return refused("not enough memory");
    return refused(reason_[0] ? reason_.data() : "unknown reason");
}

Result<Data> ExportSink::finish(std::string_view doing) {
    if (!goesOn(1)) return error(doing);
    return std::move(data_);
}

bool ExportSink::expect(void* context, std::size_t size) noexcept {
    auto& self = *static_cast<ExportSink*>(context);
    try {
        self.data_.reserve(size);
        return true;
    } catch (...) {
        // Whoever goes on all the same learns from write() whether there is too little.
        self.isOutOfMemory_ = true;
        return false;
    }
}

bool ExportSink::write(void* context, const std::uint8_t* bytes, std::size_t size) noexcept {
    auto& self = *static_cast<ExportSink*>(context);
    try {
        self.data_.insert(self.data_.end(), bytes, bytes + size);
        self.isOutOfMemory_ = false;
        return true;
    } catch (...) {
        self.isOutOfMemory_ = true;
        return false;
    }
}

bool ExportSink::progress(void* context, double done) noexcept {
    return static_cast<ExportSink*>(context)->goesOn(done);
}

bool ExportSink::goesOn(double done) noexcept {
    if (isCancelled_ || !progress_) return !isCancelled_;
    done = std::clamp(done, 0.0, 1.0);
    if (done <= told_) return true;
    told_ = done;
    try {
        isCancelled_ = !progress_(done);
    } catch (...) {
        isCancelled_ = true;
    }
    return !isCancelled_;
}

}  // namespace utilia::platform
