#include "Applications/Agent/Interface/SentReportsDialog.h"

#include <QDateTime>
#include <QLabel>
#include <QListWidget>
#include <QLocale>
#include <QPushButton>
#include <QVBoxLayout>

#include "Applications/Agent/AgentTexts.h"
#include "Applications/Agent/Interface/DocumentView.h"
#include "Applications/Agent/Interface/UsageTexts.h"
#include "Applications/Reporting/SentReports.h"

namespace utilia::agent {
namespace {

using reporting::SentReport;
using reporting::SentReports;

constexpr double kReferenceDate = 978'307'200;  // 2001-01-01, in seconds since 1970

QString outcome(const SentReport& report) {
    switch (report.outcome) {
    case SentReport::Outcome::UnderWay:
        return text(kSentUnderWayText);
    case SentReport::Outcome::Accepted:
        return text(kSentAcceptedText);
    case SentReport::Outcome::Refused:
        return text(isReportingOn() ? kSentRefusedText : kSentLeftText);
    }
    return {};
}

// Date, file, size and what became of it, as one line for eyes and ears.
QString line(const SentReport& report) {
    const QLocale locale(QString::fromStdString(textLanguage()));
    const QDateTime date = QDateTime::fromSecsSinceEpoch(
        static_cast<qint64>(report.date.secondsSinceReferenceDate + kReferenceDate));
    return QStringList{locale.toString(date, QLocale::ShortFormat), outcome(report),
                       QString::fromStdString(report.name),
                       locale.formattedDataSize(static_cast<qint64>(report.bytes), 0)}
        .join(QStringLiteral(" · "));
}

}  // namespace

SentReportsDialog::SentReportsDialog(QWidget* parent) : QDialog(parent) {
    setWindowTitle(text(kSentTitleText));
    const SentReports kept;
    kept.settle();
    auto* const list = new QListWidget(this);
    list->setAccessibleName(windowTitle());
    list->setWordWrap(true);
    list->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    auto* const view = new DocumentView(this);
    auto* const none = new QLabel(text(kNothingSentText), this);
    none->setAlignment(Qt::AlignCenter);
    auto* const close = new QPushButton(text(kCloseText), this);
    close->setDefault(true);

    auto* const column = new QVBoxLayout(this);
    column->addWidget(none, 1);
    column->addWidget(list, 1);
    column->addWidget(view, 2);
    column->addWidget(close, 0, Qt::AlignTrailing);

    const auto reports = kept.all();
    connect(list, &QListWidget::currentRowChanged, this, [reports, view](int row) {
        if (row < 0) return;
        const auto document = SentReports::documentOf(reports[static_cast<std::size_t>(row)]);
        if (document) {
            view->showDocument(*document);
        } else {
            view->showSentence(text(kNoCopyText));
        }
    });
    connect(close, &QPushButton::clicked, this, &QDialog::accept);
    for (const SentReport& report : reports) list->addItem(line(report));
    list->setCurrentRow(0);
    none->setVisible(reports.empty());
    list->setVisible(!reports.empty());
    view->setVisible(!reports.empty());
    if (!reports.empty()) list->setFocus();
}

}  // namespace utilia::agent
