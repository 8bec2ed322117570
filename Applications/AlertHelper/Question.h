#pragma once

#include <optional>

#include <QByteArray>
#include <QString>
#include <QStringList>

namespace utilia::alert {

enum class Style : int { Warning = 0, Informational = 1, Critical = 2 };

// What is to be asked, as Documentation/Formats/AlertQuestion.md describes it.
struct Question {
    Style style = Style::Warning;
    QString language;
    QString title;
    QString message;
    QStringList buttons;  // at least one

    // Empty for a packet that is no question.
    static std::optional<Question> parse(const QByteArray& packet);
};

}  // namespace utilia::alert
