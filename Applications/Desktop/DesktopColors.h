#pragma once

#include <functional>

#include <QDBusVariant>
#include <QObject>
#include <QPalette>
#include <QString>

namespace utilia::desktop {

// Dark colours for who prefers them: the toolkit's palette follows the desktop portal's colour scheme, also when it
// changes while the window is open. Without a portal, and for who has no preference, colours stay as they are.
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
    bool ask(std::function<void(uint)> answered);
    void apply(uint scheme);
    QPalette original_;
    int connections_ = 0;
};

}  // namespace utilia::desktop
