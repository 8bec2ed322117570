#include "Applications/Agent/Interface/PreviewDialog.h"

#include <cerrno>
#include <cstddef>
#include <functional>
#include <new>
#include <utility>
#include <vector>

#include <QLabel>
#include <QListWidget>
#include <QLocale>
#include <QPushButton>
#include <QVBoxLayout>

#include "Applications/Agent/AgentTexts.h"
#include "Applications/Agent/Interface/DocumentView.h"
#include "Applications/Agent/Interface/UsageTexts.h"
#include "Applications/Desktop/BusThread.h"
#include "Applications/Reporting/NextUpload.h"
#include "Common/Logging/Log.h"
#include "Common/Platform/RunLoop.h"
#include "Common/UtiliaCommon/CEP/ReportFolder.h"

namespace utilia::agent {
namespace {

using reporting::NextReport;

constexpr std::size_t kMaximumShown = 16u << 20;

// The key of the sentence that says why a document is not shown.
std::string_view troubleWith(const Error& error) {
    if (error.isPosix(ENOENT)) return kReportGoneText;
    return error.is(UtiliaErrorCode::Refused) ? kTooLargeText : kCannotReadText;
}

QString nameOf(const NextReport& report) {
    return report.path.empty() ? text(kRecordedSoFarText) : QString::fromStdString(report.name);
}

}  // namespace

struct PreviewDialog::Found {
    Result<reporting::NextUpload> next;
    std::vector<std::string_view> troubles = {};  // of each report; empty when it can be shown
};

// Shared with the thread, and with its call that waits in the main loop's queue.
struct PreviewDialog::Looking {
    std::function<void(const Found&)>
        found;  // main thread; empty when nobody wants to know any more
};

PreviewDialog::PreviewDialog(QWidget* parent)
    : QDialog(parent), note_(new QLabel(this)), message_(new QLabel(text(kOneMomentText), this)),
      list_(new QListWidget(this)), view_(new DocumentView(this)),
      looking_(std::make_shared<Looking>()) {
    setWindowTitle(text(isReportingOn() ? kPreviewTitleText : kRecordedTitleText));
    for (QLabel* const label : {note_, message_}) {
        label->setTextFormat(Qt::PlainText);
        label->setWordWrap(true);
    }
    note_->setText(text(usageExplanation()));
    note_->setVisible(!isReportingOn());
    message_->setAlignment(Qt::AlignCenter);
    list_->setAccessibleName(windowTitle());
    list_->setWordWrap(true);
    list_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    list_->hide();
    view_->hide();
    auto* const close = new QPushButton(text(kCloseText), this);
    close->setDefault(true);
    auto* const column = new QVBoxLayout(this);
    column->addWidget(note_);
    column->addWidget(message_, 1);
    column->addWidget(list_, 1);
    column->addWidget(view_, 2);
    column->addWidget(close, 0, Qt::AlignTrailing);
    connect(close, &QPushButton::clicked, this, &QDialog::accept);

    looking_->found = [this](const Found& found) { show(found); };
    const bool isLooking = desktop::startBusThread([looking = looking_] {
        auto found = std::make_shared<const Found>(look());
        platform::MainQueue::async([looking, found] {
            if (looking->found) looking->found(*found);
        });
    });
    if (!isLooking) show(look());
}

PreviewDialog::~PreviewDialog() { looking_->found = nullptr; }

PreviewDialog::Found PreviewDialog::look() try {
    Found found{.next = reporting::nextUpload()};
    if (!found.next) KULogVariadic("Usage reporting: %@", found.next.error());
    if (!found.next) return found;
    for (const NextReport& report : found.next->reports) {
        const auto document = report.read(kMaximumShown);
        if (!document) KULogVariadic("Usage reporting: %@", document.error());
        found.troubles.push_back(document ? std::string_view() : troubleWith(document.error()));
    }
    return found;
} catch (const std::bad_alloc&) {
    return {.next = Error::utilia(UtiliaErrorCode::Unavailable, "out of memory"), .troubles = {}};
}

void PreviewDialog::show(const Found& found) {
    if (!found.next) {
        message_->setText(textWithName(kCannotReadText, QString::fromStdString(reportFolder())));
        return;
    }
    if (found.next->isFull) {
        note_->setText(text(kTooManyReportsText));
        note_->show();
    }
    const std::vector<NextReport>& reports = found.next->reports;
    if (reports.empty()) {
        message_->setText(text(kNothingToSendText));
        return;
    }
    const QLocale locale(QString::fromStdString(textLanguage()));
    for (std::size_t i = 0; i < reports.size(); ++i) {
        const QString name = nameOf(reports[i]);
        list_->addItem(found.troubles[i].empty()
                           ? name + QStringLiteral(" · ") +
                                 locale.formattedDataSize(static_cast<qint64>(reports[i].bytes), 0)
                           : textWithName(found.troubles[i], name));
    }
    connect(list_, &QListWidget::currentRowChanged, this, [this, reports](int row) {
        if (row < 0) return;
        const NextReport& report = reports[static_cast<std::size_t>(row)];
        if (const auto document = report.read(kMaximumShown)) {
            view_->showDocument(*document);
        } else {
            view_->showSentence(textWithName(
                troubleWith(document.error()),
                report.path.empty() ? nameOf(report) : QString::fromStdString(report.path)));
        }
    });
    message_->hide();
    list_->show();
    view_->show();
    list_->setCurrentRow(0);
    list_->setFocus();
}

}  // namespace utilia::agent
