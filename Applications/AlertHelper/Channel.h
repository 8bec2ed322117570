#pragma once

#include <QByteArray>
#include <QString>

namespace utilia::alert {

// The socket to the tool that asks: standard input, for both directions, one packet each.
class Channel final {
public:
    static constexpr int kDescriptor = 0;

    // Keeps the socket from programs that this one starts.
    Channel();

    // Waits for the question; empty when the tool is gone or the packet is too large.
    QByteArray receiveQuestion();
    // Both end the process, with status 0.
    [[noreturn]] void answerButton(qsizetype index);
    [[noreturn]] void answerNoDisplay(const QString& why);

private:
    [[noreturn]] void answer(const QByteArray& packet);
};

}  // namespace utilia::alert
