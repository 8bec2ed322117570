#include "Benchmarks/Messages/MessageMeasures.h"

#include <algorithm>
#include <atomic>
#include <cstring>

// The receiver looks at every cache line of a message, whatever carried it: a mapped payload costs
// its pages only when it is read, and everybody's messages are read.

namespace utilia::bench {
namespace {

constexpr std::uint64_t kEnd = ~std::uint64_t{0};
// Without a message for so long, what is missing is lost; or a sender has died.
constexpr std::uint64_t kSettle = 2'000'000'000;
constexpr std::uint64_t kGiveUp = 20'000'000'000;

// Answers the number that the message begins with.
std::uint64_t look(Bytes message) {
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < message.size(); i += 64) sum += message[i];
    asm volatile("" : : "r"(sum));  // or the compiler would leave the look out
    std::uint64_t number = 0;
    std::memcpy(&number, message.data(), std::min(sizeof number, message.size()));
    return number;
}

class Payload final {
public:
    explicit Payload(std::size_t size) : bytes_(size, 0x5a) {}
    Bytes numbered(std::uint64_t number) {
        std::memcpy(bytes_.data(), &number, sizeof number);
        return bytes_;
    }

private:
    std::vector<std::uint8_t> bytes_;
};

}  // namespace

Figures measureLatency(MessageChannel& channel, std::size_t size, const Settings& settings) {
    pinToOneCore();
    channel.prepare(settings);
    auto* listening = shared<std::atomic<int>>();
    const pid_t echo = inChild([&] {
        const auto receiver = channel.receiver("ping");
        ++*listening;
        waitUntil([listening] { return *listening == 2; });
        const auto sender = channel.sender("pong");
        Payload payload(size);
        receiver->run(
            [&](Bytes message) {
                const std::uint64_t number = look(message);
                sender->send(payload.numbered(number));
                return number != kEnd;
            },
            {});
    });
    const auto receiver = channel.receiver("pong");
    ++*listening;
    waitUntil([listening] { return *listening == 2; });
    const auto sender = channel.sender("ping");

    Payload payload(size);
    std::vector<double> microseconds;
    microseconds.reserve(1 << 20);
    const auto length = static_cast<std::uint64_t>(settings.seconds * 1e9);
    const std::uint64_t warm = nanoseconds() + length / 5;
    const std::uint64_t end = warm + length;
    std::uint64_t number = 0;
    std::uint64_t sent = nanoseconds();
    sender->send(payload.numbered(number));
    receiver->run(
        [&](Bytes message) {
            const std::uint64_t answer = look(message);
            const std::uint64_t now = nanoseconds();
            if (answer == kEnd) return false;
            if (answer != number) fail("messages out of order");
            if (sent > warm) microseconds.push_back(static_cast<double>(now - sent) / 2e3);
            ++number;
            sent = nanoseconds();
            sender->send(payload.numbered(sent > end ? kEnd : number));
            return true;
        },
        {});
    waitFor(echo);
    return {{"p50_us", percentile(microseconds, 50)}, {"p99_us", percentile(microseconds, 99)}};
}

namespace {

struct SenderCount {
    std::atomic<std::uint64_t> sent;
    std::atomic<std::uint64_t> longest;
};

struct FanIn {
    std::atomic<bool> listening;
    std::atomic<int> ready;
    std::atomic<bool> go;
    std::atomic<int> finished;
};

void sendFlood(MessageChannel& channel, std::size_t size, const Settings& settings, FanIn& state,
               SenderCount& count) {
    waitUntil([&] { return state.listening.load(); });
    const auto sender = channel.sender("agent");
    Payload payload(size);
    ++state.ready;
    waitUntil([&] { return state.go.load(); });
    const std::uint64_t end = nanoseconds() + static_cast<std::uint64_t>(settings.seconds * 1e9);
    std::uint64_t sent = 0, longest = 0;
    for (std::uint64_t before = nanoseconds(); before < end; ++sent) {
        sender->send(payload.numbered(sent));
        const std::uint64_t after = nanoseconds();
        longest = std::max(longest, after - before);
        before = after;
    }
    count.sent = sent;
    count.longest = longest;
    ++state.finished;
}

}  // namespace

Figures measureFanIn(MessageChannel& channel, std::size_t size, int senders,
                     const Settings& settings) {
    channel.prepare(settings);
    auto& state = *shared<FanIn>();
    const auto count = static_cast<std::size_t>(senders);
    auto* counts = shared<SenderCount>(count);
    std::vector<pid_t> children;
    for (std::size_t i = 0; i < count; ++i) {
        children.push_back(inChild([&] { sendFlood(channel, size, settings, state, counts[i]); }));
    }
    children.push_back(inChild([&] {
        waitUntil([&] { return state.ready == senders; });
        state.go = true;
    }));

    const auto receiver = channel.receiver("agent");
    state.listening = true;
    const std::uint64_t begun = nanoseconds();
    std::uint64_t received = 0, first = 0, last = 0;
    const auto sent = [&] {
        std::uint64_t sum = 0;
        for (std::size_t i = 0; i < count; ++i) sum += counts[i].sent;
        return sum;
    };
    receiver->run(
        [&](Bytes message) {
            look(message);
            ++received;
            last = nanoseconds();
            if (!first) first = last;
            return true;
        },
        [&] {
            const std::uint64_t idle = nanoseconds() - std::max(last, begun);
            if (idle > kGiveUp) return true;  // a sender died; waiting for it below says so
            return state.finished == senders && (received == sent() || idle > kSettle);
        });
    for (const pid_t child : children) waitFor(child);

    std::uint64_t least = kEnd, most = 0, longest = 0;
    for (std::size_t i = 0; i < count; ++i) {
        least = std::min<std::uint64_t>(least, counts[i].sent);
        most = std::max<std::uint64_t>(most, counts[i].sent);
        longest = std::max<std::uint64_t>(longest, counts[i].longest);
    }
    const double seconds = static_cast<double>(last - first) / 1e9;
    return {{"per_s", static_cast<double>(received) / seconds},
            {"lost", static_cast<double>(sent()) - static_cast<double>(received)},
            {"fairness", most ? static_cast<double>(least) / static_cast<double>(most) : 0},
            {"longest_send_ms", static_cast<double>(longest) / 1e6}};
}

}  // namespace utilia::bench
