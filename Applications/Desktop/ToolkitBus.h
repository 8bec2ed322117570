#pragma once

#include <chrono>
#include <optional>

#include <QByteArray>

namespace utilia::desktop {

// How long a bus may take for its first answer before it counts as one that does not answer.
inline constexpr std::chrono::milliseconds kBusPatience(3000);

// Keeps the toolkit from waiting for a session bus that takes connections and never answers: it would do so without limit,
// on the main thread. The toolkit connects with the bus once in a process, in whatever needs it first, and stays with what
// came of that; so it happens here, and where the bus does not answer within kBusPatience the toolkit gets none.
//
//     desktop::ToolkitBus bus;  // asks the bus
//     QApplication application(argc, argv);
//     bus.settle();
//
// Between the two lines the environment names no bus if the one that it names does not answer; from settle() on it is as
// it was.
//
// Threads: the main thread.
class ToolkitBus final {
public:
    ToolkitBus();
    ToolkitBus(const ToolkitBus&) = delete;
    ToolkitBus& operator=(const ToolkitBus&) = delete;

    void settle();

private:
    struct Named {
        bool isNamed = false;
        QByteArray address;
    };
    std::optional<Named> hidden_;  // what the environment names, while it is hidden
};

}  // namespace utilia::desktop
