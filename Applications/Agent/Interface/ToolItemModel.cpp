#include "Applications/Agent/Interface/ToolItemModel.h"

#include <algorithm>
#include <cmath>

#include <QApplication>
#include <QPainter>
#include <QPalette>

#include "Applications/Agent/AgentTexts.h"
#include "Applications/Agent/Interface/ToolPictures.h"
#include "Applications/Agent/Interface/ToolRowColors.h"

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

QString runState(const ToolEntry& tool) {
    if (!tool.isRunning) return text(kOffText);
    return text(tool.isActive() ? kActiveText : kRunningText);
}

QString state(const ToolEntry& tool) {
    if (!tool.isReady()) return {};
    if (tool.isRunning) return runState(tool);
    return tool.isPermanent() ? text(kPermanentText) : QString();
}

// What a screen reader says of the row.
QString spoken(const ToolEntry& tool) {
    QStringList parts{QString::fromStdString(tool.name)};
    if (const QString more = detail(tool); !more.isEmpty()) parts.append(more);
    if (tool.isReady()) parts.append(runState(tool));
    if (tool.isReady() && tool.isPermanent()) parts.append(text(kPermanentText));
    return parts.join(QStringLiteral(", "));
}

// The whole text, which may be too long for its line, and what an expert may want to know.
QString toolTip(const ToolEntry& tool) {
    QStringList lines{QString::fromStdString(tool.isReady() ? tool.path : tool.reason)};
    if (const QString more = detail(tool); !more.isEmpty()) lines.prepend(more);
    return QStringLiteral("<p style='white-space:pre'>%1</p>")
        .arg(lines.join(QLatin1Char('\n')).toHtmlEscaped());
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
    case StateRole:
        return state(tool);
    case RunningRole:
        return tool.isRunning;
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

    const QString stateText = index.data(ToolItemModel::StateRole).toString();
    const int dot = std::max(metrics.ascent() / 2, 6);
    int stateWidth = 0;
    if (!stateText.isEmpty()) {
        stateWidth = metrics.horizontalAdvance(stateText) + dot + 6;
        const QRect place(inner.right() - stateWidth, inner.top(), stateWidth, inner.height());
        painter->setFont(option.font);
        painter->setPen(soft);
        painter->drawText(
            mirrored(place.adjusted(dot + 6, 0, 0, 0)),
            flags(Qt::AlignAbsolute |
                  (option.direction == Qt::RightToLeft ? Qt::AlignLeft : Qt::AlignRight)),
            stateText);
        // Beside the small letters, which lie lower than the middle of the line.
        const int middle = inner.top() + (inner.height() - metrics.height()) / 2 +
                           metrics.ascent() - metrics.xHeight() / 2;
        const QRect mark(place.left(), middle - dot / 2, dot, dot);
        painter->setRenderHint(QPainter::Antialiasing);
        const bool isRunning = index.data(ToolItemModel::RunningRole).toBool();
        // Filled and hollow, so that the mark does not speak by colour alone.
        painter->setPen(QPen(isRunning ? lamp : soft, 1.5));
        painter->setBrush(isRunning ? QBrush(lamp) : QBrush(Qt::NoBrush));
        painter->drawEllipse(mirrored(mark));
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
