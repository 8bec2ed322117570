#include "Applications/AlertHelper/Question.h"

#include <QList>

namespace utilia::alert {
namespace {

constexpr char kMagic[] = "utilia-alert 1";
constexpr qsizetype kFieldsBeforeButtons = 5;

}  // namespace

std::optional<Question> Question::parse(const QByteArray& packet) {
    if (!packet.endsWith('\0')) return std::nullopt;
    const QList<QByteArray> fields = packet.chopped(1).split('\0');
    if (fields.size() <= kFieldsBeforeButtons || fields[0] != kMagic) return std::nullopt;

    bool isNumber = false;
    const int style = fields[1].toInt(&isNumber);
    if (!isNumber || style < 0 || style > static_cast<int>(Style::Critical)) return std::nullopt;

    Question question;
    question.style = static_cast<Style>(style);
    question.language = QString::fromUtf8(fields[2]);
    question.title = QString::fromUtf8(fields[3]);
    question.message = QString::fromUtf8(fields[4]);
    for (const QByteArray& button : fields.mid(kFieldsBeforeButtons)) {
        question.buttons.append(QString::fromUtf8(button));
    }
    return question;
}

}  // namespace utilia::alert
