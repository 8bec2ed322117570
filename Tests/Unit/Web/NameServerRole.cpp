#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/ChildScript.h"

// A name server on one address. The test tells it, and waits for "done":
//
//     set NAME ADDRESS      questions for the name's IPv4 address are answered from now on
//     remove NAME           there is no such name, which is what holds for all that are not set
//

using namespace utilia::test;

namespace {

constexpr std::size_t kHeaderSize = 12;
constexpr std::uint16_t kTypeA = 1;

using Packet = std::vector<std::uint8_t>;

void append16(Packet& packet, std::size_t number) {
    packet.push_back(static_cast<std::uint8_t>(number >> 8));
    packet.push_back(static_cast<std::uint8_t>(number));
}

struct Question {
    std::string name;
    std::uint16_t type = 0;
    std::size_t end = 0;  // of the question in its packet
};

Question parse(const Packet& packet) {
    Question question;
    std::size_t at = kHeaderSize;
    while (at < packet.size() && packet[at] != 0) {
        const std::size_t length = packet[at++];
        if (!question.name.empty()) question.name += '.';
        for (std::size_t i = 0; i < length && at < packet.size(); ++i)
            question.name += static_cast<char>(packet[at++]);
    }
    if (at + 5 > packet.size()) return {};
    question.type = static_cast<std::uint16_t>(packet[at + 1] << 8 | packet[at + 2]);
    question.end = at + 5;
    return question;
}

Packet answer(const Packet& asked, const Question& question,
              const std::map<std::string, in_addr>& names) {
    const auto found = names.find(question.name);
    const bool hasAddress = found != names.end() && question.type == kTypeA;
    Packet reply(asked.begin(), asked.begin() + static_cast<std::ptrdiff_t>(question.end));
    reply[2] = 0x85;                                // an answer, with authority
    reply[3] = found == names.end() ? 0x83 : 0x80;  // 3: no such name
    reply[6] = 0;
    reply[7] = hasAddress;
    std::fill(reply.begin() + 8, reply.begin() + kHeaderSize, std::uint8_t{0});
    if (hasAddress) {
        append16(reply, 0xC000 | kHeaderSize);  // the name in the question
        append16(reply, kTypeA);
        append16(reply, 1);
        append16(reply, 0);
        append16(reply, 0);  // not to be kept
        append16(reply, sizeof(in_addr));
        std::array<std::uint8_t, sizeof(in_addr)> address{};
        std::memcpy(address.data(), &found->second, address.size());
        reply.insert(reply.end(), address.begin(), address.end());
    }
    return reply;
}

UTILIA_CHILD_ROLE(nameServer) {
    const int server = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in place{};
    place.sin_family = AF_INET;
    place.sin_port = htons(53);
    inet_pton(AF_INET, self.arguments.at(0).c_str(), &place.sin_addr);
    if (bind(server, reinterpret_cast<sockaddr*>(&place), sizeof place) != 0) return 1;
    self.say("ready");
    std::map<std::string, in_addr> names;
    for (;;) {
        std::array<pollfd, 2> sources{{{server, POLLIN, 0}, {kChildChannel, POLLIN, 0}}};
        poll(sources.data(), sources.size(), -1);
        if (sources[1].revents) {
            const auto words = splitFields(self.waitForLine());
            if (words.empty()) return 0;
            if (words[0] == "set") {
                inet_pton(AF_INET, words.at(2).c_str(), &names[words.at(1)]);
            } else {
                names.erase(words.at(1));
            }
            self.say("done");
        }
        if (!sources[0].revents) continue;
        Packet packet(512);
        sockaddr_in from{};
        socklen_t fromSize = sizeof from;
        const ssize_t size = recvfrom(server, packet.data(), packet.size(), 0,
                                      reinterpret_cast<sockaddr*>(&from), &fromSize);
        if (size < static_cast<ssize_t>(kHeaderSize)) continue;
        packet.resize(static_cast<std::size_t>(size));
        const Question question = parse(packet);
        if (question.end == 0) continue;
        const Packet reply = answer(packet, question, names);
        sendto(server, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr*>(&from), fromSize);
    }
}

}  // namespace
