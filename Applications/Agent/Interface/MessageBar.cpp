#include "Applications/Agent/Interface/MessageBar.h"

#include <QAccessible>
#include <QHBoxLayout>
#include <QLabel>
#include <QStyle>

namespace utilia::agent {

MessageBar::MessageBar(QWidget* parent)
    : QFrame(parent), sign_(new QLabel(this)), text_(new QLabel(this)) {
    setFrameShape(QFrame::StyledPanel);
    const int side = style()->pixelMetric(QStyle::PM_LargeIconSize, nullptr, this);
    sign_->setPixmap(
        style()->standardIcon(QStyle::SP_MessageBoxInformation, nullptr, this).pixmap(side, side));
    text_->setTextFormat(Qt::PlainText);
    text_->setWordWrap(true);
    auto* const row = new QHBoxLayout(this);
    row->addWidget(sign_, 0, Qt::AlignTop);
    row->addWidget(text_, 1);
    hide();
}

void MessageBar::setMessages(const QStringList& messages) {
    if (messages == messages_) return;
    messages_ = messages;
    text_->setText(messages.join(QStringLiteral("\n\n")));
    setVisible(!messages.isEmpty());
    if (messages.isEmpty() || !isVisible()) return;
    QAccessibleEvent said(text_, QAccessible::Alert);
    QAccessible::updateAccessibility(&said);
}

}  // namespace utilia::agent
