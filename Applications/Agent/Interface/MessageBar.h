#pragma once

#include <QFrame>
#include <QStringList>

class QLabel;

namespace utilia::agent {

// What the user should know as long as it lasts, above everything else in the window: one line for each message, and
// nothing at all where there is none. Screen readers say what is new.
//
// Threads: the main thread.
class MessageBar final : public QFrame {
public:
    explicit MessageBar(QWidget* parent);

    void setMessages(const QStringList& messages);

private:
    QLabel* sign_;
    QLabel* text_;
    QStringList messages_;
};

}  // namespace utilia::agent
