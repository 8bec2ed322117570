#pragma once

#include <QAbstractListModel>
#include <QStyledItemDelegate>

#include "Applications/Agent/Model/ToolList.h"

namespace utilia::agent {

// The agent's list for a view. Rows are in the order of ToolList::entries().
//
// Threads: the main thread. The list outlives this object.
class ToolItemModel final : public QAbstractListModel {
public:
    enum Role {
        IdentifierRole = Qt::UserRole,
        DetailRole,  // the second line: the tool's text, or why it cannot be used
        StatesRole,  // whether it runs, and whether it is always shown; empty for a tool that is not ready
        LampRole,
        ReadyRole,
    };

    ToolItemModel(ToolList& tools, QObject* parent);

    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    Qt::ItemFlags flags(const QModelIndex& index) const override;
    // Null past the last row; valid until the next change.
    const ToolEntry* toolAt(int row) const;
    // -1 for a tool that is not listed.
    int rowOf(const std::string& identifier) const;

private:
    void follow(const ToolList::Change& change);

    ToolList& tools_;
    Handle observation_;
};

// One tool in a row: its picture, name and text, and on the far side whether it runs. Mirrors itself where the layout runs
// from right to left, and grows with the font.
class ToolItemDelegate final : public QStyledItemDelegate {
public:
    using QStyledItemDelegate::QStyledItemDelegate;

    void paint(QPainter* painter, const QStyleOptionViewItem& option,
               const QModelIndex& index) const override;
    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override;
};

}  // namespace utilia::agent
