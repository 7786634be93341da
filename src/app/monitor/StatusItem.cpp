#include "monitor/StatusItem.h"

#include <QAction>
#include <QCursor>
#include <QFile>
#include <cstdio>

// The resources live in a static library: register them before the first lookup.
static void initPointlaneResources() {
    Q_INIT_RESOURCE(pointlane);
}

namespace pointlane {

StatusItem::StatusItem(std::function<void()> showMonitor, std::function<void()> quit,
                       QObject* parent)
    : QObject(parent),
      trayIcon_(this),
      showAction_(menu_.addAction(QString::fromLatin1(kShowTitle))),
      quitAction_(menu_.addAction(QString::fromLatin1(kQuitTitle))) {
    connect(showAction_, &QAction::triggered, this, [show = std::move(showMonitor)] {
        if (show) {
            show();
        }
    });
    connect(quitAction_, &QAction::triggered, this, [quit = std::move(quit)] {
        if (quit) {
            quit();
        }
    });
    // A left click opens the menu too, as on desktops whose status items have no other use.
    connect(&trayIcon_, &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) {
                if (reason == QSystemTrayIcon::Trigger) {
                    menu_.popup(QCursor::pos());
                }
            });
}

StatusItem::~StatusItem() {
    trayIcon_.hide();
}

QAction* StatusItem::addAction(const QString& title, std::function<void()> action) {
    auto* item = new QAction(title, &menu_);
    menu_.insertAction(quitAction_, item);
    connect(item, &QAction::triggered, this, [action = std::move(action)] {
        if (action) {
            action();
        }
    });
    return item;
}

void StatusItem::setToolTip(const QString& toolTip) {
    trayIcon_.setToolTip(toolTip);
}

QIcon StatusItem::templateIcon() {
    initPointlaneResources();
    const QString path = QStringLiteral(":/topMenuIcon.png");
    if (!QFile::exists(path)) {
        return {};
    }
    QIcon icon(path);
    icon.setIsMask(true);
    return icon;
}

bool StatusItem::show() {
    trayIcon_.setIcon(templateIcon());
    trayIcon_.setContextMenu(&menu_);
    if (!QSystemTrayIcon::isSystemTrayAvailable()) {
        std::fputs("No system tray available: the status item is not shown\n", stdout);
        std::fflush(stdout);
        return false;
    }
    trayIcon_.show();
    return true;
}

}  // namespace pointlane
