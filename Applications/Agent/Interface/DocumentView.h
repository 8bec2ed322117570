#pragma once

#include <string>

#include <QPlainTextEdit>

namespace utilia::agent {

// Shows a report as it stands, or a sentence why there is none to be seen.
//
// Threads: the main thread.
class DocumentView final : public QPlainTextEdit {
public:
    explicit DocumentView(QWidget* parent);

    // Bytes that are no UTF-8 are shown as U+FFFD.
    void showDocument(const std::string& document);
    void showSentence(const QString& sentence);
};

}  // namespace utilia::agent
