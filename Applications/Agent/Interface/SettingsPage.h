#pragma once

#include <functional>

#include <QScrollArea>

class QCheckBox;
class QLabel;
class QVBoxLayout;

namespace utilia::agent {

// The agent's settings, each of which holds as soon as it is changed.
//
// Threads: the main thread.
class SettingsPage final : public QScrollArea {
public:
    // `suggestionsChanged` is called when the user has switched suggestions on or off.
    SettingsPage(std::function<void()> suggestionsChanged, QWidget* parent);

    // Reads again what others may have changed.
    void update();
    void takeFocus();

private:
    void addGeneral(QVBoxLayout& layout);
    void addUsage(QVBoxLayout& layout);
    void addWhatIsNew(QVBoxLayout& layout);

    const std::function<void()> suggestionsChanged_;
    QCheckBox* openAtLogin_ = nullptr;
    QCheckBox* suggestTools_ = nullptr;
    QCheckBox* shareUsage_ = nullptr;
    QLabel* usage_ = nullptr;  // what is recorded and sent
    QLabel* description_ = nullptr;
};

}  // namespace utilia::agent
