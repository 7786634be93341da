#pragma once

#include <QMenu>
#include <QObject>
#include <QSystemTrayIcon>
#include <functional>

class QAction;

namespace pointlane {

// The application's item in the desktop's status area (system tray): the "topMenuIcon"
// image drawn as a template, the tooltip and a menu with "Show monitor" and "Quit Pointlane".
// Choosing an item calls the callback given for it.
//
// Main thread only.
class StatusItem final : public QObject {
    Q_OBJECT

  public:
    static constexpr const char* kToolTip = "Pointlane Base";
    static constexpr const char* kShowTitle = "Show monitor";
    static constexpr const char* kQuitTitle = "Quit Pointlane";

    StatusItem(std::function<void()> showMonitor, std::function<void()> quit,
               QObject* parent = nullptr);
    ~StatusItem() override;

    void setToolTip(const QString& toolTip);
    // Adds a menu item above "Quit Pointlane" that calls action when chosen.
    QAction* addAction(const QString& title, std::function<void()> action);
    // Sets the icon and the menu and shows the item. Without a status area it prints one
    // line on standard output and the application goes on without it; returns whether shown.
    bool show();

    QSystemTrayIcon& trayIcon() { return trayIcon_; }
    QMenu& menu() { return menu_; }
    QAction* showAction() const { return showAction_; }
    QAction* quitAction() const { return quitAction_; }

    // The "topMenuIcon" image marked as a template (mask) icon; null when it is missing.
    static QIcon templateIcon();

  private:
    QMenu menu_;
    QSystemTrayIcon trayIcon_;
    QAction* showAction_;
    QAction* quitAction_;
};

}  // namespace pointlane
