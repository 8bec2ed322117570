#pragma once

#include <functional>

#include <QDialog>
#include <QList>

#include "Applications/AlertHelper/Question.h"

class QLabel;
class QLayout;
class QPushButton;

namespace utilia::alert {

// The question. Return chooses the first button, or the one with the focus; Escape, and whatever else closes the
// window, the last one.
class QuestionWindow final : public QDialog {
public:
    using Answer = std::function<void(qsizetype button)>;

    QuestionWindow(const Question& question, Answer answer);

    // Shows the window in front of all others, the first button with the focus.
    void present();

    const QString& message() const { return message_; }

    void reject() override;

private:
    QLabel* makeHeading(const QString& title, int width);
    QWidget* makeMessage(int width);
    QList<QPushButton*> makeButtons(const QStringList& titles, int width);
    QWidget* arrangeButtons(int width);

    QString message_;
    Answer answer_;
    QLabel* messageLabel_ = nullptr;
    QList<QPushButton*> buttons_;
};

}  // namespace utilia::alert
