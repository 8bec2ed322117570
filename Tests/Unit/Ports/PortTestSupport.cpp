#include "Tests/Unit/Ports/PortTestSupport.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "Common/Platform/RunLoop.h"

namespace utilia::test {

using platform::PortMessage;

std::string textOf(PortMessage::Component component) {
    return {reinterpret_cast<const char*>(component.data()), component.size()};
}

PortMessage::Component bytesOf(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

void RecordingDelegate::handlePortMessage(const PortMessage& message) {
    if (beforeRecording) beforeRecording();
    ++count;
    if (message.componentCount() > 0) ++withComponents;
    if (!keepsMessages) return;
    Received received{message.msgid(), {}};
    for (const auto component : message.components())
        received.components.push_back(textOf(component));
    messages.push_back(std::move(received));
}

PortUnderTest::PortUnderTest(std::string_view name) {
    isRegistered = platform::PortNameServer::systemDefaultPortNameServer().registerPort(port, name);
    port->setDelegate(&delegate);
    port->scheduleInRunLoop();
}

bool runUntil(const std::function<bool()>& condition) {
    const Handle tick = platform::Timer::scheduledTimer(std::chrono::milliseconds(3), true, [] {});
    return platform::RunLoop::currentRunLoop().runUntil(condition, std::chrono::seconds(60));
}

std::string runUntilLine(ChildProcess& child) {
    std::optional<std::string> line;
    runUntil([&] {
        line = child.waitForLine(std::chrono::milliseconds(0));
        return line || !child.isRunning();
    });
    if (!line) line = child.waitForLine(std::chrono::milliseconds(0));
    return line.value_or("");
}

testing::AssertionResult runUntilSaid(ChildProcess& child, const std::string& line) {
    const std::string said = runUntilLine(child);
    if (said == line) return testing::AssertionSuccess();
    return testing::AssertionFailure()
           << "the child said \"" << said << "\" instead of \"" << line << "\"";
}

void sendText(const std::shared_ptr<platform::Port>& port, std::uint32_t msgid,
              std::string_view text) {
    PortMessage message(port, {bytesOf(text)});
    message.setMsgid(msgid);
    message.sendBeforeDate(std::chrono::steady_clock::now() + std::chrono::seconds(60));
}

std::string portsFolder() {
    return std::string(std::getenv("XDG_RUNTIME_DIR")) + "/com.korvane.utilia/ports";
}

platform::UniqueFd connectRaw(const std::string& name) {
    const platform::UniqueFd folder(open(portsFolder().c_str(), O_PATH | O_CLOEXEC));
    platform::UniqueFd connection(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/%s", folder.get(),
                  name.c_str());
    if (connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
        0) {
        connection.reset();
    }
    return connection;
}

NoDescriptorsLeft::NoDescriptorsLeft() {
    // A new descriptor would get the lowest free number, which is where the limit is put.
    const platform::UniqueFd lowest(dup(0));
    getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit low{static_cast<rlim_t>(lowest.get()), before_.rlim_max};
    setrlimit(RLIMIT_NOFILE, &low);
}

std::size_t openDescriptorCount() {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        ++count;
    return count - 1;  // the listing's own
}

std::size_t residentBytes() {
    std::ifstream file("/proc/self/statm");
    std::size_t size = 0;
    std::size_t resident = 0;
    file >> size >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

std::size_t residentTolerance() {
#ifdef UTILIA_MEMORY_IS_SANITIZED
    return std::size_t{512} << 20;
#else
    return std::size_t{2} << 20;
#endif
}

}  // namespace utilia::test
