#include "Applications/Agent/Interface/ToolItemModel.h"

#include <algorithm>
#include <cmath>

#include <QApplication>
#include <QPainter>
#include <QPalette>

#include "Applications/Agent/AgentTexts.h"
#include "Applications/Agent/Interface/ToolPictures.h"
#include "Applications/Agent/Interface/ToolRowColors.h"
#include "Applications/Agent/Interface/ToolStates.h"

namespace utilia::agent {
namespace {

constexpr int kPadding = 8;
constexpr int kLineGap = 2;
constexpr int kSmallestPicture = 32;

QString detail(const ToolEntry& tool) {
    switch (tool.condition) {
    case ToolEntry::Condition::Restricted:
        return text(kRestrictedText);
    case ToolEntry::Condition::Damaged:
        return text(kDamagedText);
    case ToolEntry::Condition::Missing:
        return text(kMissingText);
    case ToolEntry::Condition::Ready:
        break;
    }
    return QString::fromStdString(tool.menuText).simplified();
}

// Everything that the row says, of which there may be more than it has room for, or that is not said in words.
QStringList sayings(const ToolEntry& tool) {
    QStringList all{QString::fromStdString(tool.name)};
    if (const QString more = detail(tool); !more.isEmpty()) all.append(more);
    return all + spokenStates(tool);
}

// What is read aloud of the row.
QString spoken(const ToolEntry& tool) { return sayings(tool).join(text(kSeparatorText)); }

// The whole texts, and for an expert why a tool is damaged.
QString toolTip(const ToolEntry& tool) {
    QStringList lines = sayings(tool);
    if (!tool.reason.empty()) lines.append(QString::fromStdString(tool.reason));
    return QStringLiteral("<p style='white-space:pre-wrap'>%1</p>")
        .arg(lines.join(QLatin1Char('\n')).toHtmlEscaped());
}

// A lamp before the text says the same to the eye: none of a tool that does not run, a ring of one that does, filled while
// it has something to show.
enum class Lamp { None, Ring, Disc };

Lamp lampOf(const ToolEntry& tool) {
    if (!tool.isReady() || !tool.isRunning) return Lamp::None;
    return tool.status == kToolStatusInactive ? Lamp::Ring : Lamp::Disc;
}

QFont nameFont(const QFont& font) {
    QFont bold = font;
    bold.setWeight(QFont::DemiBold);
    return bold;
}

int pictureSide(const QFontMetrics& metrics) {
    return std::max(kSmallestPicture, 2 * metrics.height() + kLineGap - 4);
}

// As QPainter takes them: vertically centred.
int flags(Qt::Alignment alignment) {
    return static_cast<int>((alignment | Qt::AlignVCenter).toInt());
}

}  // namespace

ToolItemModel::ToolItemModel(ToolList& tools, QObject* parent)
    : QAbstractListModel(parent), tools_(tools) {
    observation_ = tools_.observe([this](const ToolList::Change& change) { follow(change); });
}

void ToolItemModel::follow(const ToolList::Change& change) {
    if (change.isListChanged) {
        beginResetModel();
        endResetModel();
        return;
    }
    for (const std::string& identifier : change.tools) {
        const int row = rowOf(identifier);
        if (row >= 0) Q_EMIT dataChanged(index(row), index(row));
    }
}

int ToolItemModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(tools_.entries().size());
}

int ToolItemModel::rowOf(const std::string& identifier) const {
    const auto& all = tools_.entries();
    const auto found = std::find_if(all.begin(), all.end(), [&](const ToolEntry& tool) {
        return tool.identifier == identifier;
    });
    return found == all.end() ? -1 : static_cast<int>(found - all.begin());
}

const ToolEntry* ToolItemModel::toolAt(int row) const {
    return row >= 0 && row < rowCount() ? &tools_.entries()[static_cast<std::size_t>(row)]
                                        : nullptr;
}

QVariant ToolItemModel::data(const QModelIndex& index, int role) const {
    if (!index.isValid() || index.row() >= rowCount()) return {};
    const ToolEntry& tool = tools_.entries()[static_cast<std::size_t>(index.row())];
    switch (role) {
    case Qt::DisplayRole:
        return QString::fromStdString(tool.name);
    case Qt::AccessibleTextRole:
        return spoken(tool);
    case Qt::ToolTipRole:
        return toolTip(tool);
    case IdentifierRole:
        return QString::fromStdString(tool.identifier);
    case DetailRole:
        return detail(tool);
    case StatesRole:
        return shownStates(tool);
    case LampRole:
        return static_cast<int>(lampOf(tool));
    case ReadyRole:
        return tool.isReady();
    default:
        return {};
    }
}

// Tools that cannot be used stay selectable: the keyboard and screen readers have to get to the reason.
Qt::ItemFlags ToolItemModel::flags(const QModelIndex& index) const {
    return index.isValid() ? Qt::ItemIsEnabled | Qt::ItemIsSelectable | Qt::ItemNeverHasChildren
                           : Qt::NoItemFlags;
}

QSize ToolItemDelegate::sizeHint(const QStyleOptionViewItem& option, const QModelIndex&) const {
    const QFontMetrics metrics(nameFont(option.font));
    const int lines = 2 * metrics.height() + kLineGap;
    return {pictureSide(metrics) * 6, std::max(lines, pictureSide(metrics)) + 2 * kPadding};
}

void ToolItemDelegate::paint(QPainter* painter, const QStyleOptionViewItem& plain,
                             const QModelIndex& index) const {
    QStyleOptionViewItem option = plain;
    initStyleOption(&option, index);
    option.text.clear();
    QStyle* const style = option.widget ? option.widget->style() : QApplication::style();
    style->drawControl(QStyle::CE_ItemViewItem, &option, painter, option.widget);

    const auto* const model = static_cast<const ToolItemModel*>(index.model());
    const bool isReady = index.data(ToolItemModel::ReadyRole).toBool();
    const bool isSelected = option.state & QStyle::State_Selected;
    const auto group = option.state & QStyle::State_Active ? QPalette::Active : QPalette::Inactive;
    const auto [ground, strong, soft, lamp] = rowColors(option.palette, group, isSelected);

    const QFont bold = nameFont(option.font);
    const QFontMetrics nameMetrics(bold);
    const QFontMetrics metrics(option.font);
    const int side = pictureSide(nameMetrics);
    const QRect inner = option.rect.adjusted(kPadding + 2, kPadding, -kPadding - 4, -kPadding);
    const auto mirrored = [&](const QRect& rect) {
        return QStyle::visualRect(option.direction, option.rect, rect);
    };
    painter->save();

    const QRect picture(inner.left(), inner.top() + (inner.height() - side) / 2, side, side);
    if (const ToolEntry* const tool = model->toolAt(index.row())) {
        const double scale = painter->device()->devicePixelRatioF();
        const int pixels = static_cast<int>(std::lround(side * scale));
        if (!isReady) painter->setOpacity(0.5);
        painter->setRenderHint(QPainter::SmoothPixmapTransform);
        painter->drawImage(mirrored(picture), pictureOf(*tool, pixels, strong));
        painter->setOpacity(1);
    }

    const QStringList stateTexts = index.data(ToolItemModel::StatesRole).toStringList();
    const int dot = std::max(metrics.ascent() / 2, 6);
    int stateWidth = 0;
    for (const QString& line : stateTexts)
        stateWidth = std::max(stateWidth, metrics.horizontalAdvance(line) + dot + 6);
    const int linesHeight =
        static_cast<int>(stateTexts.size()) * (metrics.height() + kLineGap) - kLineGap;
    int stateTop = inner.top() + (inner.height() - linesHeight) / 2;
    for (const QString& line : stateTexts) {
        const QRect place(inner.right() - stateWidth, stateTop, stateWidth, metrics.height());
        painter->setFont(option.font);
        painter->setPen(soft);
        painter->drawText(
            mirrored(place),
            flags(Qt::AlignAbsolute |
                  (option.direction == Qt::RightToLeft ? Qt::AlignLeft : Qt::AlignRight)),
            line);
        stateTop += metrics.height() + kLineGap;
    }
    const Lamp mark = static_cast<Lamp>(index.data(ToolItemModel::LampRole).toInt());
    if (mark != Lamp::None) {
        const int textLeft = inner.right() - metrics.horizontalAdvance(stateTexts.front());
        // Beside the small letters, which lie lower than the middle of the line.
        const int middle = inner.top() + (inner.height() - linesHeight) / 2 + metrics.ascent() -
                           metrics.xHeight() / 2;
        painter->setRenderHint(QPainter::Antialiasing);
        painter->setPen(QPen(lamp, 1.5));
        painter->setBrush(mark == Lamp::Disc ? QBrush(lamp) : QBrush(Qt::NoBrush));
        painter->drawEllipse(mirrored({textLeft - 6 - dot, middle - dot / 2, dot, dot}));
    }

    const int left = picture.right() + kPadding + 4;
    const int width = inner.right() - left - (stateWidth ? stateWidth + kPadding : 0);
    const QString more = index.data(ToolItemModel::DetailRole).toString();
    const int lines = nameMetrics.height() + (more.isEmpty() ? 0 : kLineGap + metrics.height());
    int top = inner.top() + (inner.height() - lines) / 2;
    const Qt::Alignment leading =
        Qt::AlignAbsolute | (option.direction == Qt::RightToLeft ? Qt::AlignRight : Qt::AlignLeft);
    painter->setFont(bold);
    painter->setPen(isReady ? strong : soft);
    painter->drawText(
        mirrored({left, top, width, nameMetrics.height()}), flags(leading),
        nameMetrics.elidedText(index.data(Qt::DisplayRole).toString(), Qt::ElideRight, width));
    top += nameMetrics.height() + kLineGap;
    painter->setFont(option.font);
    painter->setPen(soft);
    painter->drawText(mirrored({left, top, width, metrics.height()}), flags(leading),
                      metrics.elidedText(more, Qt::ElideRight, width));
    painter->restore();
}

}  // namespace utilia::agent
