#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <QFileSystemWatcher>
#include <QTimer>
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
// A suggestion is looked for whenever one may come or go while the page is shown: as tools come, go, start and end, and when
// the store that tools share has changed, in which they have suggestions paused.
//
// Threads: the main thread. The list outlives this object.
class ToolsPage final : public QWidget {
public:
    ToolsPage(ToolList& tools, QWidget* parent);

    // Looks again for a tool to suggest, if the page is shown.
    void updateSuggestion();
    // The keyboard goes to the list.
    void takeFocus();
    // Says it where the tool could not be started.
    void reportStart(const std::string& identifier, const Result<void>& started);

protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

private:
    // What there is to say of a tool when one is chosen to be suggested.
    struct Use {
        std::string identifier;
        std::string name;
        bool isReady;
        bool isRunning;
        std::uint64_t status;

        friend bool operator==(const Use&, const Use&) = default;
    };

    std::string selected() const;
    void updateButtons();
    void activate();
    void showMenu(const QPoint& place);
    void report(const Result<void>& result, const std::string& identifier, std::string_view format);
    void follow(const ToolList::Change& change);
    std::vector<Use> uses() const;
    QWidget* makeSuggestion();
    QWidget* makeButtons();

    ToolList& tools_;
    ToolItemModel* model_;
    QListView* view_;
    QLabel* empty_;
    QLabel* suggestionLabel_ = nullptr;
    QWidget* suggestion_ = nullptr;
    std::string suggested_;
    std::vector<Use> uses_;  // at the last look for a suggestion
    QFileSystemWatcher store_;
    QTimer storeChanged_;
    std::string lastSelected_;
    QPushButton* open_ = nullptr;
    QPushButton* turnOff_ = nullptr;
    QCheckBox* atLogin_ = nullptr;
    Handle observation_;
};

}  // namespace utilia::agent
