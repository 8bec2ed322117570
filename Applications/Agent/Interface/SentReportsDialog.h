#pragma once

#include <QDialog>

namespace utilia::agent {

// The usage reports that were sent last: a list, and the document of the one that is selected, word by word.
//
// Threads: the main thread.
class SentReportsDialog final : public QDialog {
public:
    explicit SentReportsDialog(QWidget* parent);
};

}  // namespace utilia::agent
