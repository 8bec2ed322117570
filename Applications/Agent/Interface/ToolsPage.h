#pragma once

#include <functional>
#include <string>
#include <string_view>

#include <QWidget>

#include "Applications/Agent/Model/ToolList.h"

class QCheckBox;
class QLabel;
class QListView;
class QPushButton;

namespace utilia::agent {

class ToolItemModel;

// The tools as a list, and what can be done with the one that is selected. Everything works by keyboard: arrows select,
// Return starts or clicks, Tab leads to the buttons, which are also in the menu of the menu key.
//
// Threads: the main thread. The list outlives this object.
class ToolsPage final : public QWidget {
public:
    ToolsPage(ToolList& tools, QWidget* parent);

    // Looks again for a tool to suggest.
    void updateSuggestion();
    // The keyboard goes to the list.
    void takeFocus();
    // Says it where the tool could not be started.
    void reportStart(const std::string& identifier, const Result<void>& started);

private:
    std::string selected() const;
    void updateButtons();
    void activate();
    void showMenu(const QPoint& place);
    void report(const Result<void>& result, const std::string& identifier, std::string_view format);
    void follow(const ToolList::Change& change);
    QWidget* makeSuggestion();
    QWidget* makeButtons();

    ToolList& tools_;
    ToolItemModel* model_;
    QListView* view_;
    QLabel* empty_;
    QLabel* suggestionLabel_ = nullptr;
    QWidget* suggestion_ = nullptr;
    std::string suggested_;
    std::string lastSelected_;
    QPushButton* open_ = nullptr;
    QPushButton* turnOff_ = nullptr;
    QCheckBox* atLogin_ = nullptr;
    Handle observation_;
};

}  // namespace utilia::agent
