#pragma once

#include <optional>

#include <QApplication>

namespace utilia::test {

// What Qt needs for widgets and fonts, without any display.
class OffscreenApplication final {
public:
    OffscreenApplication() {
        qputenv("QT_QPA_PLATFORM", "offscreen");
        application_.emplace(count_, words_);
        QApplication::setStyle(QStringLiteral("fusion"));
    }

private:
    int count_ = 1;
    char name_[5] = "test";
    char* words_[2] = {name_, nullptr};
    std::optional<QApplication> application_;
};

}  // namespace utilia::test
