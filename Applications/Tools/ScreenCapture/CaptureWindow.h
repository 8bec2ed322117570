#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <QMainWindow>

#include "Applications/Tools/ScreenCapture/CapturedPicture.h"
#include "Applications/Tools/ScreenCapture/ExportJob.h"

class QComboBox;
class QLabel;
class QProgressBar;
class QPushButton;
class QSpinBox;
class QStackedLayout;

namespace utilia::tools {

class PreviewView;

// The window of Screen Capture: the picture, and how it is saved.
//
// Threads: the main thread.
class CaptureWindow final : public QMainWindow {
public:
    struct Actions {
        std::function<void()> capture;  // the user wants another picture
        std::function<void(std::optional<int>)>
            progress;  // of saving, in percent; empty when it has ended
    };
    // Proposes names in `folder` for what is saved.
    CaptureWindow(Actions actions, std::string folder);
    ~CaptureWindow() override;

    void showPicture(CapturedPicture picture);
    // In the place of a picture, or below the one that is there.
    void showMessage(const QString& message);
    // Reads a file, and shows it or why it cannot be read.
    void open(const QString& path);

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    QWidget* makeEmptyPage();
    QWidget* makePanel();
    // Below the picture; screen readers say it. Nothing clears it.
    void say(const QString& message);
    void chooseFile();
    void save();
    void saveAs(const QString& path);
    void saved(ExportJob::Outcome outcome, const QString& path, const std::string& reason);
    void setSaving(bool isSaving);
    void updatePages();
    std::optional<platform::BitmapImageFileType> chosenType() const;
    QString proposedName() const;

    const Actions actions_;
    const std::string folder_;
    std::optional<CapturedPicture> picture_;
    std::unique_ptr<ExportJob> job_;

    QStackedLayout* stage_ = nullptr;  // the empty page, or the picture
    PreviewView* preview_ = nullptr;
    QLabel* emptyMessage_ = nullptr;
    QWidget* settings_ = nullptr;
    QComboBox* format_ = nullptr;
    QLabel* pageLabel_ = nullptr;
    QSpinBox* pageHeight_ = nullptr;
    QLabel* facts_ = nullptr;
    QLabel* message_ = nullptr;
    QProgressBar* progress_ = nullptr;
    QPushButton* cancel_ = nullptr;
    QPushButton* capture_ = nullptr;
    QPushButton* open_ = nullptr;
    QPushButton* save_ = nullptr;
};

}  // namespace utilia::tools
