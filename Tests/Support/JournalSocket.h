#pragma once

#include <string>
#include <vector>

#include "Common/Platform/UniqueFd.h"

namespace utilia::test {

// The journal's end of a socket of one's own, in place of the system's journal.
class JournalSocket final {
public:
    // Takes the path over from a socket that was left behind there.
    explicit JournalSocket(const std::string& path);

    struct Entry {
        std::string bytes;
        platform::UniqueFd file;
    };
    // The next datagram; its text is empty when there is none.
    Entry receive() const;
    void drain() const;

    // The text of every entry that has come in, also of those that came as a file.
    std::vector<std::string> receiveLines() const;

private:
    platform::UniqueFd socket_;
};

// The content of a file that is open.
std::string readWhole(int descriptor);

}  // namespace utilia::test
