#pragma once

#include <functional>
#include <optional>

#include <QDBusVariant>
#include <QObject>
#include <QPalette>
#include <QString>

namespace utilia::desktop {

// Dark colours for who prefers them, and high contrast: the toolkit's palette, and with high contrast its style, follow
// the desktop portal's colour scheme and contrast, also when they change while the window is open. Without a portal, for
// who has no preference, and as long as there is no answer, colours stay as they are, but for selected texts, which are
// made legible.
//
// Lives until the end of main, which asks endedMain() (BusThread.h).
//
// Threads: the main thread.
class DesktopColors final : public QObject {
    Q_OBJECT
public:
    DesktopColors();

    // Asks the portal, and waits for a moment for its answer, so that the window appears in the right colours. A later
    // answer is taken when it comes.
    void follow();
    // For a bus that was lost and is back: the same on a new connection, without waiting.
    void followAgain();

private Q_SLOTS:
    void settingChanged(const QString& group, const QString& key, const QDBusVariant& value);

private:
    // As the portal numbers them; 0 is none.
    struct Preferences {
        uint scheme = 0;
        uint contrast = 0;
    };
    // Empty is what the portal did not answer.
    struct Answers {
        std::optional<uint> scheme;
        std::optional<uint> contrast;
    };
    bool ask(std::function<void(Answers)> answered);
    void take(int number, Answers answers);
    void apply(Preferences preferences);

    const QPalette original_;
    const QString originalStyle_;
    Preferences preferences_;
    int connections_ = 0;  // and questions, one on each
    int taken_ = 0;        // the question whose answers have been taken
    Answers told_;         // of changes since it was asked, which are newer than its answers
};

}  // namespace utilia::desktop
