#include "Applications/AlertHelper/QuestionWindow.h"

#include <algorithm>
#include <utility>

#include <QAccessible>
#include <QAccessibleWidget>
#include <QGridLayout>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QScreen>
#include <QScrollArea>
#include <QScrollBar>
#include <QVBoxLayout>

#include "Applications/AlertHelper/StyleIcon.h"

// Texts come from tools, translators and file names: none of them is taken for markup, none marks a key of the keyboard,
// and none makes the window larger than the screen. The window has one size, which fits what is in it.

namespace utilia::alert {
namespace {

constexpr int kIconSize = 48;
constexpr int kMargin = 20;
constexpr int kButtonRoom = 16;      // around its text, beyond what the style gives
constexpr int kTextColumns = 56;     // characters of average width
constexpr qsizetype kLongWord = 40;  // characters; longer ones may be broken anywhere
constexpr QChar kBreakHere(0x200B);

// Screen readers speak an alert's text when it appears.
class AccessibleAlert final : public QAccessibleWidget {
public:
    explicit AccessibleAlert(QuestionWindow* window)
        : QAccessibleWidget(window, QAccessible::AlertMessage) {}

    QString text(QAccessible::Text kind) const override {
        if (kind == QAccessible::Description)
            return static_cast<QuestionWindow*>(widget())->message();
        return QAccessibleWidget::text(kind);
    }
};

QAccessibleInterface* makeAccessible(const QString&, QObject* object) {
    auto* const window = dynamic_cast<QuestionWindow*>(object);
    return window ? new AccessibleAlert(window) : nullptr;
}

QString onOneLine(QString text) {
    for (QChar& character : text) {
        if (character.isSpace()) character = QLatin1Char(' ');
    }
    return text;
}

// Without a place to break, one word would make the window as wide as itself.
QString withBreaks(const QString& text) {
    QString broken;
    qsizetype length = 0;
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar character = text[i];
        length = character.isSpace() ? 0 : length + 1;
        if (length > kLongWord && !character.isLowSurrogate() && !character.isMark()) {
            broken += kBreakHere;
            length = 1;
        }
        broken += character;
    }
    return broken;
}

// The side where lines begin in the window's language, whatever a single text is written in.
Qt::Alignment leading() {
    return Qt::AlignAbsolute | (QGuiApplication::isRightToLeft() ? Qt::AlignRight : Qt::AlignLeft);
}

// `content` has its size already; what does not fit into `height` can be scrolled to.
QWidget* withinHeight(QWidget* content, int height) {
    if (content->height() <= height) return content;
    auto* const area = new QScrollArea;
    area->setFrameShape(QFrame::NoFrame);
    area->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    area->setFocusPolicy(Qt::NoFocus);
    area->setWidget(content);
    area->setFixedSize(content->width() + area->verticalScrollBar()->sizeHint().width(), height);
    return area;
}

QSize screenSize() {
    const QScreen* const screen = QGuiApplication::primaryScreen();
    return screen ? screen->availableSize() : QSize(800, 600);
}

}  // namespace

QuestionWindow::QuestionWindow(const Question& question, Answer answer)
    : message_(question.message), answer_(std::move(answer)) {
    QAccessible::installFactory(makeAccessible);
    setWindowTitle(onOneLine(question.title));
    setAccessibleName(windowTitle());
    setWindowIcon(styleIcon(question.style));
    setWindowFlags(Qt::Dialog | Qt::CustomizeWindowHint | Qt::WindowTitleHint |
                   Qt::WindowSystemMenuHint | Qt::WindowCloseButtonHint | Qt::WindowStaysOnTopHint);

    const int width = std::min(fontMetrics().averageCharWidth() * kTextColumns,
                               screenSize().width() - kIconSize - 5 * kMargin);
    auto* const grid = new QGridLayout(this);
    grid->setContentsMargins(kMargin, kMargin, kMargin, kMargin);
    grid->setHorizontalSpacing(kMargin);
    grid->setVerticalSpacing(kMargin / 2);
    grid->setSizeConstraint(QLayout::SetFixedSize);
    grid->addWidget(new StyleIconView(question.style, kIconSize, this), 0, 0, 2, 1, Qt::AlignTop);
    grid->addWidget(makeHeading(question.title, width), 0, 1);
    grid->addWidget(makeMessage(width), 1, 1);
    grid->setRowMinimumHeight(2, kMargin / 2);
    buttons_ = makeButtons(question.buttons, width);
    grid->addWidget(arrangeButtons(width + kIconSize + kMargin), 3, 0, 1, 2);

    for (qsizetype i = 1; i < buttons_.size(); ++i) setTabOrder(buttons_[i - 1], buttons_[i]);
    setTabOrder(buttons_.constLast(), messageLabel_);
}

QLabel* QuestionWindow::makeHeading(const QString& title, int width) {
    auto* const heading = new QLabel;
    QFont font = heading->font();
    font.setBold(true);
    font.setPointSizeF(font.pointSizeF() * 1.15);
    heading->setFont(font);
    heading->setTextFormat(Qt::PlainText);
    heading->setAlignment(leading() | Qt::AlignVCenter);
    heading->setText(QFontMetrics(font).elidedText(onOneLine(title), Qt::ElideMiddle, width));
    heading->setAccessibleName(onOneLine(title));
    return heading;
}

QWidget* QuestionWindow::makeMessage(int width) {
    messageLabel_ = new QLabel;
    messageLabel_->setTextFormat(Qt::PlainText);
    messageLabel_->setText(withBreaks(message_));
    messageLabel_->setAccessibleName(message_);
    messageLabel_->setWordWrap(true);
    messageLabel_->setAlignment(leading() | Qt::AlignTop);
    messageLabel_->setTextInteractionFlags(Qt::TextSelectableByMouse |
                                           Qt::TextSelectableByKeyboard);
    // Selecting with the keyboard begins with getting there.
    messageLabel_->setFocusPolicy(Qt::StrongFocus);
    messageLabel_->setFixedSize(width, messageLabel_->heightForWidth(width));
    return withinHeight(messageLabel_, screenSize().height() / 2);
}

QList<QPushButton*> QuestionWindow::makeButtons(const QStringList& titles, int width) {
    QList<QPushButton*> buttons;
    for (const QString& title : titles) {
        auto* const button = new QPushButton;
        const QString line = onOneLine(title);
        QString shown =
            button->fontMetrics().elidedText(line, Qt::ElideMiddle, width - 2 * kButtonRoom);
        if (shown != line) button->setToolTip(line.toHtmlEscaped());
        // An ampersand would mark a key of the keyboard.
        button->setText(shown.replace(QLatin1Char('&'), QLatin1String("&&")));
        button->setAccessibleName(line);
        button->setMinimumSize(button->sizeHint() + QSize(kButtonRoom, kButtonRoom / 4));
        const qsizetype index = buttons.size();
        connect(button, &QPushButton::clicked, this, [this, index] { answer_(index); });
        buttons.append(button);
    }
    // Scripts differ in the height of their letters.
    int height = 0;
    for (const QPushButton* button : std::as_const(buttons))
        height = std::max(height, button->minimumHeight());
    for (QPushButton* button : std::as_const(buttons)) button->setMinimumHeight(height);
    buttons.constFirst()->setDefault(true);
    return buttons;
}

// In one row, the first at its end, where the eye arrives; below one another when they do not fit.
QWidget* QuestionWindow::arrangeButtons(int width) {
    auto* const box = new QWidget;
    int needed = 0;
    for (const QPushButton* button : std::as_const(buttons_))
        needed += button->minimumWidth() + kMargin / 2;
    if (needed <= width) {
        auto* const row = new QHBoxLayout(box);
        row->setContentsMargins(0, 0, 0, 0);
        row->setSpacing(kMargin / 2);
        row->addStretch();
        for (auto button = buttons_.crbegin(); button != buttons_.crend(); ++button)
            row->addWidget(*button);
        return box;
    }
    auto* const column = new QVBoxLayout(box);
    column->setContentsMargins(0, 0, 0, 0);
    for (QPushButton* button : std::as_const(buttons_)) column->addWidget(button);
    box->setFixedSize(width, column->sizeHint().height());
    return withinHeight(box, screenSize().height() / 4);
}

void QuestionWindow::present() {
    buttons_.constFirst()->setFocus();
    show();
    raise();
    activateWindow();
}

void QuestionWindow::reject() { answer_(buttons_.size() - 1); }

}  // namespace utilia::alert
