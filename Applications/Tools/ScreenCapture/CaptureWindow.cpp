#include "Applications/Tools/ScreenCapture/CaptureWindow.h"

#include <algorithm>
#include <utility>

#include <QAccessible>
#include <QBoxLayout>
#include <QCloseEvent>
#include <QComboBox>
#include <QDateTime>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QScreen>
#include <QSpinBox>
#include <QStackedLayout>

#include "Applications/Tools/Drawing/QtPictures.h"
#include "Applications/Tools/Drawing/ToolText.h"
#include "Applications/Tools/ScreenCapture/PreviewView.h"
#include "Applications/Tools/ScreenCapture/ViewfinderPicture.h"

namespace utilia::tools {
namespace {

using platform::BitmapImageFileType;

QString text(std::string_view key) { return QString::fromStdString(toolText(key)); }
QString text(std::string_view key, const QString& name) {
    return QString::fromStdString(toolText(key, name.toStdString()));
}

struct Format {
    const char* name;
    const char* extension;
    std::optional<BitmapImageFileType> type;
};
const Format kFormats[] = {
    {"PDF", "pdf", std::nullopt},
    {"PNG", "png", BitmapImageFileType::Png},
    {"JPEG", "jpg", BitmapImageFileType::Jpeg},
    {"TIFF", "tiff", BitmapImageFileType::Tiff},
    {"GIF", "gif", BitmapImageFileType::Gif},
    {"BMP", "bmp", BitmapImageFileType::Bmp},
    {"JPEG 2000", "jp2", BitmapImageFileType::Jpeg2000},
};
constexpr int kTallestPage = 1'000'000;
constexpr int kUsualPage = 1000;

}  // namespace

CaptureWindow::CaptureWindow(Actions actions, std::string folder)
    : actions_(std::move(actions)), folder_(std::move(folder)) {
    setWindowTitle(text("Screen Capture"));
    setAcceptDrops(false);
    preview_ = new PreviewView;
    auto* const stage = new QWidget;
    stage_ = new QStackedLayout(stage);
    stage_->addWidget(makeEmptyPage());
    stage_->addWidget(preview_);
    auto* const content = new QWidget;
    auto* const column = new QVBoxLayout(content);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);
    column->addWidget(stage, 1);
    column->addWidget(makePanel());
    setCentralWidget(content);
    setSaving(false);
    updatePages();
    // With large letters a small screen must still show the buttons.
    resize(QSize(fontMetrics().averageCharWidth() * 95, fontMetrics().height() * 33)
               .boundedTo(screen()->availableSize() * 9 / 10));
}

CaptureWindow::~CaptureWindow() = default;

QWidget* CaptureWindow::makeEmptyPage() {
    auto* const page = new QWidget;
    auto* const column = new QVBoxLayout(page);
    column->setContentsMargins(32, 32, 32, 32);
    column->setSpacing(16);
    auto* const sign = new QLabel;
    sign->setPixmap(pixmapOf(viewfinderIcon, 96, devicePixelRatioF()));
    sign->setAlignment(Qt::AlignCenter);
    emptyMessage_ = new QLabel;
    emptyMessage_->setAlignment(Qt::AlignCenter);
    emptyMessage_->setWordWrap(true);
    emptyMessage_->setTextFormat(Qt::PlainText);
    column->addStretch();
    column->addWidget(sign);
    column->addWidget(emptyMessage_);
    column->addStretch();
    return page;
}

QWidget* CaptureWindow::makePanel() {
    format_ = new QComboBox;
    for (const Format& format : kFormats) format_->addItem(QLatin1String(format.name));
    auto* const formatLabel = new QLabel(text("&Format:"));
    formatLabel->setBuddy(format_);
    pageHeight_ = new QSpinBox;
    pageHeight_->setRange(0, kTallestPage);
    pageHeight_->setSingleStep(100);
    pageHeight_->setValue(kUsualPage);
    pageHeight_->setSuffix(QStringLiteral(" px"));
    pageHeight_->setSpecialValueText(text("One page"));
    pageLabel_ = new QLabel(text("Page &height:"));
    pageLabel_->setBuddy(pageHeight_);
    facts_ = new QLabel;
    message_ = new QLabel;
    message_->hide();
    message_->setWordWrap(true);
    message_->setTextFormat(Qt::PlainText);
    progress_ = new QProgressBar;
    progress_->setAccessibleName(text("Saving"));
    cancel_ = new QPushButton(text("&Cancel"));
    capture_ = new QPushButton(text("&New Capture"));
    open_ = new QPushButton(text("&Open…"));
    save_ = new QPushButton(text("&Save…"));
    for (QPushButton* const button : {cancel_, capture_, open_, save_}) {
        button->setMinimumWidth(
            std::max(button->sizeHint().width(), fontMetrics().averageCharWidth() * 13));
        button->setAutoDefault(true);  // Return presses the one that has the keyboard
    }

    settings_ = new QWidget;
    auto* const settings = new QHBoxLayout(settings_);
    settings->setContentsMargins(0, 0, 0, 0);
    settings->setSpacing(8);
    settings->addWidget(formatLabel);
    settings->addWidget(format_);
    settings->addSpacing(12);
    settings->addWidget(pageLabel_);
    settings->addWidget(pageHeight_);
    settings->addStretch();
    auto* const buttons = new QHBoxLayout;
    buttons->setSpacing(8);
    buttons->addWidget(facts_);
    buttons->addWidget(progress_, 1);
    buttons->addStretch();
    buttons->addWidget(cancel_);
    buttons->addWidget(capture_);
    buttons->addWidget(open_);
    buttons->addWidget(save_);
    auto* const panel = new QWidget;
    auto* const rows = new QVBoxLayout(panel);
    rows->setContentsMargins(20, 16, 20, 16);
    rows->setSpacing(12);
    rows->addWidget(settings_);
    rows->addWidget(message_);
    rows->addLayout(buttons);

    connect(format_, &QComboBox::currentIndexChanged, this, [this] { updatePages(); });
    connect(pageHeight_, &QSpinBox::valueChanged, this, [this] { updatePages(); });
    connect(cancel_, &QPushButton::clicked, this, [this] {
        if (job_) job_->cancel();
    });
    connect(capture_, &QPushButton::clicked, this, [this] { actions_.capture(); });
    connect(open_, &QPushButton::clicked, this, [this] { chooseFile(); });
    connect(save_, &QPushButton::clicked, this, [this] { save(); });
    return panel;
}

void CaptureWindow::showPicture(CapturedPicture picture) {
    picture_ = std::move(picture);
    preview_->setPicture(picture_->shown);
    preview_->setAccessibleName(text("Picture"));
    stage_->setCurrentWidget(preview_);
    say({});
    setSaving(job_ != nullptr);
    updatePages();
}

void CaptureWindow::showMessage(const QString& message) {
    emptyMessage_->setText(message);
    say(picture_ ? message : QString());
}

void CaptureWindow::say(const QString& message) {
    message_->setText(message);
    message_->setVisible(!message.isEmpty());
    if (message.isEmpty() || !isVisible()) return;
    QAccessibleEvent said(message_, QAccessible::Alert);
    QAccessible::updateAccessibility(&said);
}

void CaptureWindow::open(const QString& path) {
    auto read = readPicture(QFile::encodeName(path).toStdString());
    if (!read) {
        showMessage(
            text("This file cannot be read as a picture: %@", QDir::toNativeSeparators(path)));
        return;
    }
    showPicture(*std::move(read));
}

void CaptureWindow::chooseFile() {
    const QString path = QFileDialog::getOpenFileName(this, text("Open a picture"));
    if (!path.isEmpty()) open(path);
}

void CaptureWindow::save() {
    if (!picture_ || job_) return;
    const QLatin1String extension(kFormats[format_->currentIndex()].extension);
    QFileDialog dialog(this, text("Save the picture"), QString::fromStdString(folder_));
    dialog.setAcceptMode(QFileDialog::AcceptSave);
    dialog.setDefaultSuffix(extension);
    dialog.setNameFilter(QLatin1String(kFormats[format_->currentIndex()].name) +
                         QStringLiteral(" (*.") + extension + QStringLiteral(")"));
    dialog.selectFile(proposedName() + QLatin1Char('.') + extension);
    if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty()) return;
    saveAs(dialog.selectedFiles().constFirst());
}

void CaptureWindow::saveAs(const QString& path) {
    const int pageHeight = chosenType() ? 0 : pageHeight_->value();
    setSaving(true);
    actions_.progress(0);
    job_ = std::make_unique<ExportJob>(
        ExportJob::Request{picture_->image, QFile::encodeName(path).toStdString(), chosenType(),
                           static_cast<std::uint64_t>(pageHeight)},
        [this](int percent) {
            progress_->setValue(percent);
            actions_.progress(percent);
        },
        [this, path](ExportJob::Outcome outcome, const std::string& reason) {
            saved(outcome, path, reason);
        });
}

void CaptureWindow::saved(ExportJob::Outcome outcome, const QString& path,
                          const std::string& reason) {
    job_.reset();
    setSaving(false);
    actions_.progress(std::nullopt);
    const QString name = QFileInfo(path).fileName();
    switch (outcome) {
    case ExportJob::Outcome::Saved:
        say(text("Saved as %@", name));
        break;
    case ExportJob::Outcome::Cancelled:
        say(text("%@ was not saved.", name));
        break;
    case ExportJob::Outcome::Failed:
        say(text("%@ cannot be saved.", name) + QLatin1Char(' ') + QString::fromStdString(reason));
        break;
    }
    message_->setToolTip(QDir::toNativeSeparators(path));
}

void CaptureWindow::setSaving(bool isSaving) {
    progress_->setVisible(isSaving);
    cancel_->setVisible(isSaving);
    if (isSaving) say({});
    facts_->setVisible(!isSaving);
    for (QPushButton* const button : {capture_, open_, save_}) button->setVisible(!isSaving);
    // Without a picture there is nothing to be said of how it is saved.
    settings_->setVisible(picture_.has_value());
    save_->setEnabled(picture_.has_value());
    format_->setEnabled(!isSaving);
    pageHeight_->setEnabled(!isSaving);
    progress_->setValue(0);
    (isSaving ? cancel_ : picture_ ? save_ : open_)->setFocus();
}

void CaptureWindow::updatePages() {
    const bool isDocument = !chosenType();
    pageLabel_->setVisible(isDocument);
    pageHeight_->setVisible(isDocument);
    const int page = isDocument ? pageHeight_->value() : 0;
    preview_->setPageHeight(page);
    if (!picture_) return;
    const QSize size = picture_->shown.size();
    QString facts = QStringLiteral("%1 × %2 px").arg(size.width()).arg(size.height());
    if (isDocument) {
        const int pages = page > 0 && page < size.height() ? (size.height() - 1) / page + 1 : 1;
        facts += QStringLiteral(" · ") + text("Pages: %@", QString::number(pages));
    }
    facts_->setText(facts);
    preview_->setAccessibleDescription(facts);
}

std::optional<BitmapImageFileType> CaptureWindow::chosenType() const {
    return kFormats[format_->currentIndex()].type;
}

QString CaptureWindow::proposedName() const {
    return text("Screen Capture") + QLatin1Char(' ') +
           QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd HH.mm.ss"));
}

void CaptureWindow::closeEvent(QCloseEvent* event) {
    job_.reset();
    event->accept();
}

}  // namespace utilia::tools
