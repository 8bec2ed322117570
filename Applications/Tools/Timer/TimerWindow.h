#pragma once

#include <functional>

#include <QDialog>

class QPushButton;
class QSpinBox;

namespace utilia::tools {

// Sets Timer: for how long, and what is to become of the time that it counts. Closes with the answer.
//
// Threads: the main thread.
class TimerWindow final : public QDialog {
public:
    // `minutes` is proposed. `tell` gets the words that Timer is to be started with.
    TimerWindow(bool isHeld, int minutes, std::function<void(const QString& words)> tell);

private:
    QPushButton* makeButton(std::string_view key, std::function<QString()> words);

    const std::function<void(const QString&)> tell_;
    QSpinBox* minutes_;
};

}  // namespace utilia::tools
