#include "Applications/Tools/Timer/TimerWindow.h"

#include <utility>

#include <QBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QSpinBox>

#include "Applications/Tools/Drawing/QtPictures.h"
#include "Applications/Tools/Drawing/ToolText.h"
#include "Applications/Tools/Timer/StopwatchPicture.h"
#include "Applications/Tools/Timer/TimerText.h"

namespace utilia::tools {
namespace {

constexpr int kIconSide = 64;

QString text(std::string_view key) { return QString::fromStdString(toolText(key)); }

}  // namespace

TimerWindow::TimerWindow(bool isHeld, int minutes, std::function<void(const QString&)> tell)
    : tell_(std::move(tell)), minutes_(new QSpinBox(this)) {
    setWindowTitle(text("Timer"));
    setWindowFlag(Qt::WindowStaysOnTopHint);
    auto* const sign = new QLabel(this);
    sign->setPixmap(pixmapOf(stopwatchIcon, kIconSide, devicePixelRatioF()));
    auto* const label = new QLabel(text("&Minutes:"), this);
    label->setBuddy(minutes_);
    minutes_->setRange(1, static_cast<int>(kLongestSeconds / 60));
    minutes_->setValue(minutes);
    minutes_->selectAll();

    auto* const time = new QHBoxLayout;
    time->addWidget(sign);
    time->addSpacing(12);
    time->addWidget(label);
    time->addWidget(minutes_, 1);
    auto* const buttons = new QHBoxLayout;
    buttons->setSpacing(8);
    buttons->addWidget(makeButton("S&top", [] { return QString::fromLatin1(kStopWord); }));
    buttons->addWidget(isHeld ? makeButton("&Go On", [] { return QString::fromLatin1(kGoOnWord); })
                              : makeButton("&Hold", [] { return QString::fromLatin1(kHoldWord); }));
    auto* const start = makeButton("&Start", [this] { return QString::number(minutes_->value()); });
    start->setDefault(true);
    buttons->addWidget(start);
    auto* const rows = new QVBoxLayout(this);
    rows->setContentsMargins(20, 20, 20, 20);
    rows->setSpacing(20);
    rows->setSizeConstraint(QLayout::SetFixedSize);
    rows->addLayout(time);
    rows->addLayout(buttons);
}

QPushButton* TimerWindow::makeButton(std::string_view key, std::function<QString()> words) {
    auto* const button = new QPushButton(text(key), this);
    connect(button, &QPushButton::clicked, this, [this, words = std::move(words)] {
        tell_(words());
        accept();
    });
    return button;
}

}  // namespace utilia::tools
