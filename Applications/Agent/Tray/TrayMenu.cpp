#include "Applications/Agent/Tray/TrayMenu.h"

#include <algorithm>

#include <QBuffer>
#include <QGuiApplication>
#include <QPalette>

#include "Applications/Agent/AgentTexts.h"
#include "Applications/Agent/Interface/ToolPictures.h"
#include "Applications/Agent/Interface/ToolStates.h"
#include "Common/Logging/Log.h"

namespace utilia::agent {
namespace {

constexpr int kRoot = 0;
constexpr int kEmptyId = 1;
constexpr int kSeparatorId = 2;
constexpr int kWindowId = 3;
constexpr int kSettingsId = 4;
constexpr int kSecondSeparatorId = 5;
constexpr int kQuitId = 6;
constexpr int kFirstToolId = 100;

constexpr int kIconSide = 32;
constexpr qsizetype kLongestText = 60;

// "_" marks a key of the keyboard in these menus.
QString label(const QString& plain) {
    QString text = plain;
    return text.replace(QLatin1Char('_'), QLatin1String("__"));
}

QString onOneLine(const std::string& text) {
    const QString simple = QString::fromStdString(text).simplified();
    return simple.size() <= kLongestText ? simple : simple.left(kLongestText - 1) + QChar(0x2026);
}

// A text of the other direction stays in order by itself (FIRST STRONG ISOLATE … POP DIRECTIONAL ISOLATE).
QString nextTo(const QString& name, const QString& text) {
    if (name.isRightToLeft() == text.isRightToLeft()) return text;
    return QChar(0x2068) + text + QChar(0x2069);
}

QByteArray png(const QImage& image) {
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return bytes;
}

MenuLayout item(int id, const QString& text) {
    return {id, {{QStringLiteral("label"), label(text)}}, {}};
}

MenuLayout separator(int id) {
    return {id, {{QStringLiteral("type"), QStringLiteral("separator")}}, {}};
}

QVariantMap chosen(const QVariantMap& all, const QStringList& names) {
    if (names.isEmpty()) return all;
    QVariantMap some;
    for (const QString& name : names) {
        if (all.contains(name)) some.insert(name, all.value(name));
    }
    return some;
}

MenuLayout chosen(const MenuLayout& layout, int depth, const QStringList& names) {
    MenuLayout copy{layout.id, chosen(layout.properties, names), {}};
    if (depth == 0) return copy;
    for (const MenuLayout& child : layout.children)
        copy.children.append(chosen(child, depth - 1, names));
    return copy;
}

}  // namespace

TrayMenu::TrayMenu(QObject* place, ToolList& tools, Actions actions)
    : QDBusAbstractAdaptor(place), tools_(tools), actions_(std::move(actions)) {
    registerTrayTypes();
    root_ = build();
    observation_ = tools_.observe([this](const ToolList::Change& change) {
        for (const std::string& identifier : change.gone) pictures_.erase(identifier);
        update();
    });
}

QString TrayMenu::textDirection() const {
    return QGuiApplication::isRightToLeft() ? QStringLiteral("rtl") : QStringLiteral("ltr");
}

MenuItem TrayMenu::itemOf(const ToolEntry& tool) {
    auto [place, isNew] =
        ids_.try_emplace(tool.identifier, kFirstToolId + static_cast<int>(ids_.size()));
    QVariantMap properties;
    const QString name = onOneLine(tool.name);
    QString shown = name;
    QString spoken;
    switch (tool.condition) {
    case ToolEntry::Condition::Restricted:
        shown = textWithName(kRestrictedToolText, name);
        break;
    case ToolEntry::Condition::Damaged:
        shown = textWithName(kDamagedToolText, name);
        break;
    case ToolEntry::Condition::Missing:
        shown = textWithName(kMissingToolText, name);
        break;
    case ToolEntry::Condition::Ready:
        if (!tool.menuText.empty())
            shown += QStringLiteral(" \u2013 ") + nextTo(name, onOneLine(tool.menuText));
        spoken = (QStringList(shown) + spokenStates(tool)).join(text(kSeparatorText));
        break;
    }
    properties[QStringLiteral("label")] = label(shown);
    if (!spoken.isEmpty()) properties[QStringLiteral("accessible-desc")] = spoken;
    if (!tool.isReady()) properties[QStringLiteral("enabled")] = false;
    if (tool.isPermanent() || tool.isActive()) {
        properties[QStringLiteral("toggle-type")] = QStringLiteral("checkmark");
        properties[QStringLiteral("toggle-state")] = tool.isRunning ? 1 : 0;
    }
    properties[QStringLiteral("icon-data")] = pictureFor(tool);
    return {place->second, properties};
}

bool TrayMenu::Picture::isOf(const Picture& other) const {
    return toolIcon == other.toolIcon && menuIcon == other.menuIcon && name == other.name &&
           path == other.path && bundleDate == other.bundleDate && ink == other.ink;
}

QByteArray TrayMenu::pictureFor(const ToolEntry& tool) {
    const QColor ink = QGuiApplication::palette().color(
        tool.isReady() ? QPalette::Active : QPalette::Disabled, QPalette::WindowText);
    Picture wanted{tool.toolIcon, tool.menuIcon, tool.name, tool.path};
    // Asked of those only whose picture may be the bundle's.
    if (!tool.toolIcon && !tool.menuIcon) wanted.bundleDate = bundleDate(tool);
    wanted.ink = ink.rgba();
    Picture& known = pictures_[tool.identifier];
    if (known.png.isEmpty() || !known.isOf(wanted)) {
        wanted.png = png(pictureOf(tool, kIconSide, ink));
        known = std::move(wanted);
    }
    return known.png;
}

MenuLayout TrayMenu::build() {
    MenuLayout root{kRoot, {{QStringLiteral("children-display"), QStringLiteral("submenu")}}, {}};
    for (const ToolEntry& tool : tools_.entries()) {
        const MenuItem one = itemOf(tool);
        root.children.append({one.id, one.properties, {}});
    }
    if (root.children.isEmpty()) {
        MenuLayout none = item(kEmptyId, text(kNoToolsText));
        none.properties[QStringLiteral("enabled")] = false;
        root.children.append(none);
    }
    root.children.append(separator(kSeparatorId));
    root.children.append(item(kWindowId, text(kShowWindowText)));
    root.children.append(item(kSettingsId, text(kOpenSettingsText)));
    root.children.append(separator(kSecondSeparatorId));
    root.children.append(item(kQuitId, text(kQuitText)));
    return root;
}

void TrayMenu::update() {
    const MenuLayout before = std::exchange(root_, build());
    const bool isSameLayout =
        std::equal(before.children.begin(), before.children.end(), root_.children.begin(),
                   root_.children.end(), [](const auto& a, const auto& b) { return a.id == b.id; });
    if (!isSameLayout) {
        Q_EMIT LayoutUpdated(++revision_, kRoot);
        return;
    }
    MenuItems updated;
    MenuItemsKeys removed;
    for (qsizetype i = 0; i < root_.children.size(); ++i) {
        const QVariantMap& old = before.children[i].properties;
        const QVariantMap& now = root_.children[i].properties;
        if (old == now) continue;
        MenuItem changed{root_.children[i].id, {}};
        MenuItemKeys gone{root_.children[i].id, {}};
        for (auto entry = now.begin(); entry != now.end(); ++entry) {
            if (old.value(entry.key()) != entry.value())
                changed.properties.insert(entry.key(), entry.value());
        }
        for (auto entry = old.begin(); entry != old.end(); ++entry) {
            if (!now.contains(entry.key())) gone.keys.append(entry.key());
        }
        if (!changed.properties.isEmpty()) updated.append(changed);
        if (!gone.keys.isEmpty()) removed.append(gone);
    }
    if (!updated.isEmpty() || !removed.isEmpty()) Q_EMIT ItemsPropertiesUpdated(updated, removed);
}

const MenuLayout* TrayMenu::find(int id) const {
    if (id == kRoot) return &root_;
    for (const MenuLayout& child : root_.children) {
        if (child.id == id) return &child;
    }
    return nullptr;
}

uint TrayMenu::GetLayout(int parentId, int recursionDepth, const QStringList& propertyNames,
                         MenuLayout& layout) const {
    if (const MenuLayout* const found = find(parentId))
        layout = chosen(*found, recursionDepth, propertyNames);
    return revision_;
}

MenuItems TrayMenu::GetGroupProperties(const QList<int>& ids,
                                       const QStringList& propertyNames) const {
    MenuItems items;
    const auto add = [&](const MenuLayout& one) {
        items.append({one.id, chosen(one.properties, propertyNames)});
    };
    if (ids.isEmpty()) {
        add(root_);
        for (const MenuLayout& child : root_.children) add(child);
    }
    for (const int id : ids) {
        if (const MenuLayout* const found = find(id)) add(*found);
    }
    return items;
}

QDBusVariant TrayMenu::GetProperty(int id, const QString& name) const {
    const MenuLayout* const found = find(id);
    const QVariant value = found ? found->properties.value(name) : QVariant();
    return QDBusVariant(value.isValid() ? value : QVariant(QString()));
}

void TrayMenu::click(int id) {
    switch (id) {
    case kWindowId:
        return actions_.showWindow();
    case kSettingsId:
        return actions_.showSettings();
    case kQuitId:
        return actions_.quit();
    default:
        break;
    }
    const auto tool = std::find_if(ids_.begin(), ids_.end(),
                                   [id](const auto& entry) { return entry.second == id; });
    if (tool != ids_.end()) actions_.activate(tool->first);
}

void TrayMenu::Event(int id, const QString& eventId, const QDBusVariant&, uint) {
    if (eventId != QLatin1String("clicked")) return;
    // After the answer: what is done may take a while, and the panel waits.
    QMetaObject::invokeMethod(
        this, [this, id] { click(id); }, Qt::QueuedConnection);
}

QList<int> TrayMenu::EventGroup(const MenuEvents& events) {
    QList<int> unknown;
    for (const MenuEvent& event : events) {
        if (!find(event.id)) unknown.append(event.id);
        Event(event.id, event.name, event.data, event.time);
    }
    return unknown;
}

// A tool that was replaced where it is has perhaps another icon, and nobody tells of that. What has changed is told by
// signals, so that the answer is no.
bool TrayMenu::AboutToShow(int) {
    update();
    return false;
}

QList<int> TrayMenu::AboutToShowGroup(const QList<int>& ids, QList<int>& idErrors) {
    update();
    for (const int id : ids) {
        if (!find(id)) idErrors.append(id);
    }
    return {};
}

}  // namespace utilia::agent
