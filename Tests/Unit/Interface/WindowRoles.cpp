#include <chrono>
#include <string>

#include <QAbstractButton>
#include <QAbstractSpinBox>
#include <QComboBox>
#include <QGroupBox>
#include <QLabel>
#include <QPainter>
#include <QTabBar>

#include "Applications/Agent/AgentTexts.h"
#include "Applications/Agent/Interface/AgentWindow.h"
#include "Applications/Agent/Interface/ToolItemModel.h"
#include "Applications/Agent/Model/StandingMessages.h"
#include "Applications/Tools/ScreenCapture/CaptureWindow.h"
#include "Applications/Tools/Timer/TimerWindow.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/RunLoop.h"
#include "Common/UtiliaCommon/CEP/CEPLog.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/RecordingPort.h"
#include "Tests/Unit/Interface/OffscreenApplication.h"

// Windows as applications have them: in processes that have the bundle, the language and the size of letters that the test
// gives them.

namespace utilia {
namespace {

using test::ChildRole;

constexpr QSize kSmallScreen(1024, 768);

// An application whose letters are so many times larger than usual.
class LargeApplication final {
public:
    explicit LargeApplication(const ChildRole& self) {
        QFont font = QApplication::font();
        font.setPointSizeF(font.pointSizeF() * std::stod(self.arguments.at(0)));
        QApplication::setFont(font);
    }

private:
    test::OffscreenApplication application_;
};

// What the widget needs, and for a text of several lines what it needs at its width.
QSize neededSize(const QWidget& widget) {
    const auto* const label = qobject_cast<const QLabel*>(&widget);
    if (label && label->wordWrap())
        return {label->minimumSizeHint().width(), label->heightForWidth(label->width())};
    if (const auto* const group = qobject_cast<const QGroupBox*>(&widget))
        return {group->fontMetrics().horizontalAdvance(group->title()), 0};
    return widget.sizeHint();
}

bool hasText(const QWidget& widget) {
    return qobject_cast<const QLabel*>(&widget) || qobject_cast<const QAbstractButton*>(&widget) ||
           qobject_cast<const QTabBar*>(&widget) || qobject_cast<const QComboBox*>(&widget) ||
           qobject_cast<const QAbstractSpinBox*>(&widget) ||
           qobject_cast<const QGroupBox*>(&widget);
}

QString textOf(const QWidget& widget) {
    for (const char* property : {"text", "title", "currentText"}) {
        const QVariant text = widget.property(property);
        if (text.isValid()) return text.toString();
    }
    return {};
}

// Says every visible text that has too little room, and how many there are.
void sayRoom(const ChildRole& self, QWidget& window) {
    // A layout that changes asks the one around it to change.
    for (int i = 0; i < 10; ++i) QApplication::processEvents();
    int texts = 0;
    for (const QWidget* const widget : window.findChildren<QWidget*>()) {
        if (!widget->isVisible() || !hasText(*widget)) continue;
        ++texts;
        const QSize needed = neededSize(*widget);
        if (widget->width() >= needed.width() && widget->height() >= needed.height()) continue;
        self.say(QStringLiteral("%1 \"%2\" has %3x%4 of %5x%6")
                     .arg(QString::fromLatin1(widget->metaObject()->className()), textOf(*widget))
                     .arg(widget->width())
                     .arg(widget->height())
                     .arg(needed.width())
                     .arg(needed.height())
                     .toStdString());
    }
    if (window.width() > kSmallScreen.width() || window.height() > kSmallScreen.height())
        self.say("the window has " + std::to_string(window.width()) + "x" +
                 std::to_string(window.height()));
    self.say(std::to_string(texts) + " texts");
}

UTILIA_CHILD_ROLE(roomInAgentWindow) {
    const LargeApplication application(self);
    agent::ToolList tools;
    tools.reload();
    agent::AgentWindow window(tools);
    window.setMessages({agent::text(agent::kNoTrayText)});
    window.present(agent::AgentWindow::Page::Tools);
    sayRoom(self, window);
    window.present(agent::AgentWindow::Page::Settings);
    sayRoom(self, window);
    // With its longest explanation.
    CEPLog::sharedInstance().disableCEP();
    window.present(agent::AgentWindow::Page::Tools);
    window.present(agent::AgentWindow::Page::Settings);
    sayRoom(self, window);
    return 0;
}

UTILIA_CHILD_ROLE(roomInCaptureWindow) {
    const LargeApplication application(self);
    tools::CaptureWindow window({[] {}, [](std::optional<int>) {}}, "/");
    window.show();
    sayRoom(self, window);
    const auto picture = std::make_shared<QImage>(300, 3000, QImage::Format_RGBA8888);
    picture->fill(Qt::darkGreen);
    window.showPicture({nullptr, *picture});
    sayRoom(self, window);
    window.open(
        QStringLiteral("/a folder/that is not there/nor is this picture of some length.png"));
    sayRoom(self, window);
    return 0;
}

UTILIA_CHILD_ROLE(roomInTimerWindow) {
    const LargeApplication application(self);
    for (const bool isHeld : {false, true}) {
        tools::TimerWindow window(isHeld, 1439, [](const QString&) {});
        window.show();
        sayRoom(self, window);
    }
    return 0;
}

// Paints the first row of the list: PATH, and "mirrored" for a layout from right to left.
UTILIA_CHILD_ROLE(paintToolRow) {
    const test::OffscreenApplication application;
    agent::ToolList tools;
    tools.reload();
    agent::ToolItemModel model(tools, nullptr);
    const agent::ToolItemDelegate delegate;
    QStyleOptionViewItem option;
    option.direction = self.arguments.size() > 1 ? Qt::RightToLeft : Qt::LeftToRight;
    option.palette = QApplication::style()->standardPalette();
    option.state = QStyle::State_Enabled | QStyle::State_Active;
    option.font = QApplication::font();
    option.fontMetrics = QFontMetrics(option.font);
    option.rect = QRect(0, 0, 400, delegate.sizeHint(option, model.index(0)).height());
    QImage image(option.rect.size(), QImage::Format_RGB32);
    image.fill(Qt::white);
    QPainter painter(&image);
    delegate.paint(&painter, option, model.index(0));
    painter.end();
    return image.save(QString::fromStdString(self.arguments[0])) ? 0 : 1;
}

// Says the whole text of the first row, once there is "the end" in it, and what stands at its end.
UTILIA_CHILD_ROLE(sayToolRow) {
    const test::OffscreenApplication application;
    agent::ToolList tools;
    tools.reload();
    const agent::ToolItemModel model(tools, nullptr);
    const auto toolTip = [&] { return model.data(model.index(0), Qt::ToolTipRole).toString(); };
    self.say("ready");
    (void)test::eventually([&] {
        platform::RunLoop::currentRunLoop().runFor(std::chrono::milliseconds(10));
        return toolTip().contains(QStringLiteral("the end"));
    });
    self.say(toolTip().replace(QLatin1Char('\n'), QLatin1Char('|')).toStdString());
    self.say(model.data(model.index(0), agent::ToolItemModel::StatesRole)
                 .toStringList()
                 .join(QLatin1Char('|'))
                 .toStdString());
    return 0;
}

// Says what the window says when something is amiss.
UTILIA_CHILD_ROLE(sayStandingMessages) {
    using Bus = agent::Troubles::Bus;
    for (const agent::Troubles& troubles :
         {agent::Troubles{.isWithoutPanel = true}, agent::Troubles{.bus = Bus::Missing},
          agent::Troubles{.bus = Bus::Lost, .unwritableFolder = "/home/x"}}) {
        for (const auto& [key, name] : agent::standingMessages(troubles))
            self.say(agent::textWithName(key, QString::fromStdString(name)).toStdString());
    }
    return 0;
}

}  // namespace
}  // namespace utilia
