#pragma once

#include <memory>
#include <string>

#include <gio/gio.h>

// GIO's objects as values that end by themselves. Tools that speak to services of the desktop link GIO; the framework
// itself does without it.

namespace utilia::tools {

struct ObjectDeleter {
    void operator()(void* object) const { g_object_unref(object); }
};
template <class T>
using ObjectPointer = std::unique_ptr<T, ObjectDeleter>;

struct VariantDeleter {
    void operator()(GVariant* variant) const { g_variant_unref(variant); }
};
using VariantPointer = std::unique_ptr<GVariant, VariantDeleter>;

// What went wrong in a call of GIO's; its address is given to the call.
class GioError final {
public:
    GioError() = default;
    ~GioError() { g_clear_error(&error_); }
    GioError(const GioError&) = delete;
    GioError& operator=(const GioError&) = delete;

    GError** address() { return &error_; }
    explicit operator bool() const { return error_ != nullptr; }
    bool isCancelled() const { return g_error_matches(error_, G_IO_ERROR, G_IO_ERROR_CANCELLED); }
    // Without the bus's own prefix.
    std::string message() {
        if (!error_) return "no error";
        g_dbus_error_strip_remote_error(error_);
        return error_->message;
    }

private:
    GError* error_ = nullptr;
};

}  // namespace utilia::tools
