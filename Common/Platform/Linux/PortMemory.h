#pragma once

#include <cstdint>
#include <span>
#include <variant>
#include <vector>

#include "Common/Foundation/Result.h"
#include "Common/Platform/Linux/PortPacket.h"
#include "Common/Platform/UniqueFd.h"

namespace utilia::platform {

// Writes the components one after the other into a memory file and seals it. A file that the kernel
// refuses to seal against writing even after fresh copies is sent without that seal; its receiver
// copies it.
Result<UniqueFd> makePortMemory(std::span<const PortMessage::Component> components);

// The contents of a memory file that a peer sent, read-only.
class PortMemory final {
public:
    // Checks that the file is what a sender of ours makes before it is touched: a memory file,
    // sealed, fully allocated, of exactly this size.
    static std::variant<PortMemory, PortRefusal> open(const UniqueFd& descriptor,
                                                      std::uint64_t size);

    PortMemory(PortMemory&& other) noexcept;
    PortMemory& operator=(PortMemory&&) = delete;
    ~PortMemory();

    std::span<const std::uint8_t> bytes() const { return bytes_; }

private:
    PortMemory() = default;
    std::span<const std::uint8_t> bytes_;
    std::vector<std::uint8_t> copy_;  // empty: bytes_ is a mapping
};

}  // namespace utilia::platform
