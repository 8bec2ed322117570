#pragma once

#include <memory>

#include <QDialog>

class QLabel;
class QListWidget;

namespace utilia::agent {

class DocumentView;

// What the next upload would send, one document at a time; where nothing is sent, what is recorded. Looks once, on a
// thread of its own, as whoever collects at the moment is waited for.
//
// Threads: the main thread.
class PreviewDialog final : public QDialog {
public:
    explicit PreviewDialog(QWidget* parent);
    ~PreviewDialog() override;

private:
    struct Found;
    struct Looking;

    static Found look();
    void show(const Found& found);

    QLabel* const note_;     // what is to be known beside the documents
    QLabel* const message_;  // instead of documents
    QListWidget* const list_;
    DocumentView* const view_;
    const std::shared_ptr<Looking> looking_;
};

}  // namespace utilia::agent
