#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>

#include "Common/Foundation/Result.h"
#include "Common/Platform/Linux/ForkGuardedFd.h"
#include "Common/Platform/Linux/PortPacket.h"
#include "Common/Platform/UniqueFd.h"

namespace utilia::platform {

// How long the memory file of a message is: whole steps of 64 KiB, so that messages of about the
// same size can use one file after the other.
constexpr std::uint64_t portMemoryFileSize(std::uint64_t payloadSize) {
    constexpr std::uint64_t kStep = 64 * 1024;
    return (payloadSize + kStep - 1) / kStep * kStep;
}

// The memory files of one sender. It keeps the last one and writes the next message into it when
// every receiver of the message before has let go of it.
//
// Threads: as its sender's.
class PortMemoryWriter final {
public:
    PortMemoryWriter() = default;
    PortMemoryWriter(const PortMemoryWriter&) = delete;
    PortMemoryWriter& operator=(const PortMemoryWriter&) = delete;
    ~PortMemoryWriter() { forget(); }

    // Puts the components one after the other into a memory file whose size is fixed for good, and
    // answers the descriptor to send. The file belongs to the message until that descriptor and all
    // copies of it are closed, wherever they are.
    Result<UniqueFd> write(std::span<const PortMessage::Component> components);
    // Gives the kept file up. What is under way is not touched.
    void forget();
    bool keepsFile() const { return static_cast<bool>(kept_); }

private:
    Result<UniqueFd> writeAnew(std::span<const PortMessage::Component> components,
                               std::uint64_t payloadSize);
    Result<void> writeAgain(std::span<const PortMessage::Component> components,
                            std::uint64_t payloadSize);

    ForkGuardedFd kept_;
    std::uint64_t keptSize_ = 0;
    std::uint64_t writtenSize_ = 0;   // so many bytes of it have their pages
    std::uint8_t* mapped_ = nullptr;  // the kept file, from the second message on
};

// Where a receiver reads memory files into: used again for one message after the other, and given
// back after a message that was larger than what it is worth to keep.
class PortMemoryBuffer final {
public:
    // Checks that the file is what a sender of ours makes (a memory file of exactly the size for
    // this payload that nobody can change, and no holes in the payload), then reads the payload.
    // Empty when bytes() are the payload.
    std::optional<PortRefusal> read(const UniqueFd& descriptor, std::uint64_t payloadSize);
    std::span<const std::uint8_t> bytes() const { return {bytes_.get(), size_}; }
    // The payload is not used any more.
    void release();

private:
    std::unique_ptr<std::uint8_t[]> bytes_;
    std::size_t capacity_ = 0;
    std::size_t size_ = 0;
};

}  // namespace utilia::platform
