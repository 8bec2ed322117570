#include "Applications/Agent/Interface/DocumentView.h"

#include <QApplication>
#include <QFontDatabase>

#include "Applications/Agent/AgentTexts.h"

namespace utilia::agent {

DocumentView::DocumentView(QWidget* parent) : QPlainTextEdit(parent) {
    setReadOnly(true);
    setAccessibleName(text(kSentDocumentText));
}

void DocumentView::showDocument(const std::string& document) {
    setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    setTabStopDistance(4 * fontMetrics().horizontalAdvance(QLatin1Char(' ')));
    setLineWrapMode(QPlainTextEdit::NoWrap);
    // The documents are in English markup, whatever the layout's direction.
    setLayoutDirection(Qt::LeftToRight);
    setPlainText(QString::fromStdString(document));
}

void DocumentView::showSentence(const QString& sentence) {
    setFont(QApplication::font());
    setLineWrapMode(QPlainTextEdit::WidgetWidth);
    setLayoutDirection(parentWidget()->layoutDirection());
    setPlainText(sentence);
}

}  // namespace utilia::agent
