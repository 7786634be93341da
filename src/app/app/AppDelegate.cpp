#include "app/AppDelegate.h"

#include <fcntl.h>
#include <unistd.h>
#include <QApplication>
#include <QClipboard>
#include <QCoreApplication>
#include <QHostInfo>
#include <QNetworkInterface>
#include <QScreen>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <system_error>
#include <thread>

#include "WebServer.h"
#include "app/DataFolderLock.h"
#include "app/HistoryProvider.h"
#include "app/SchemaLocation.h"
#include "app/ServiceAdvertiser.h"
#include "game/GameEvents.h"
#include "game/GameHandlers.h"
#include "game/GameState.h"
#include "game/PlayerStore.h"
#include "game/PokerThread.h"
#include "game/RequestGate.h"
#include "monitor/DataWindowController.h"
#include "monitor/JoinCodeWindow.h"
#include "monitor/StatusItem.h"
#include "storage/Estimate.h"
#include "storage/SQLite.h"
#include "storage/SchemaVersion.h"
#include "support/MainQueue.h"
#include "support/NoDestructor.h"
#include "support/Tracer.h"
#include "table/TableModel.h"

namespace pointlane {

namespace {

constexpr const char* kSubject = "AppDelegate";
// How long launch waits for the listener to report its port.
constexpr auto kListenWait = std::chrono::seconds(5);

[[noreturn]] void fatalError(const std::string& message) {
    std::fputs(message.c_str(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
    std::fflush(stderr);
    std::_Exit(EXIT_FAILURE);
}

std::string homeDirectory() {
    const char* home = std::getenv("HOME");
    return home != nullptr ? home : "";
}

// Why the folder can't take a new file, or nothing. The permission bits are not the whole
// story (root writes past them, a read-only mount refuses everyone), so a file is really
// written and removed.
std::optional<std::string> folderWriteRefusal(const std::filesystem::path& folder) {
    if (::access(folder.c_str(), W_OK) != 0) {
        return std::strerror(errno);
    }
    const std::string probe = (folder / (".write-check-" + std::to_string(::getpid()))).string();
    const int descriptor = ::open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (descriptor == -1) {
        return std::strerror(errno);
    }
    const bool written = ::write(descriptor, "x", 1) == 1;
    const int error = errno;
    ::close(descriptor);
    ::unlink(probe.c_str());
    if (!written) {
        return std::strerror(error);
    }
    return std::nullopt;
}

// Why an existing database file can't be written, or nothing; opening it for writing (and
// writing nothing) is the real test.
std::optional<std::string> fileWriteRefusal(const std::string& path) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error)) {
        return std::nullopt;
    }
    if (::access(path.c_str(), W_OK) != 0) {
        return std::strerror(errno);
    }
    const int descriptor = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (descriptor == -1) {
        return std::strerror(errno);
    }
    ::close(descriptor);
    return std::nullopt;
}

// Feeds the table from the game's events. Done once, before the first listener starts: the
// events are read by connection threads that may outlive any one delegate.
void feedTableFromGame(TableModel& table) {
    static std::once_flag once;
    std::call_once(once, [&table] {
        GameEvents events;
        events.gameOpened = [&table](const std::string& facilitator, const std::string& game) {
            table.gameOpened(facilitator, game);
        };
        events.playerJoined = [&table](const std::string& name) { table.playerJoined(name); };
        events.playerLeft = [&table](const std::string& name) { table.playerLeft(name); };
        events.itemPut = [&table](const std::string& title) { table.itemPut(title); };
        events.played = [&table](const std::string& name) { table.played(name); };
        events.cardsOpened = [&table] { table.cardsOpened(); };
        events.cardElected = [&table](const std::string& name, const std::string& card) {
            table.cardElected(name, card);
        };
        events.dealStored = [&table](const std::string& title, std::int64_t dealId) {
            table.dealStored(title, dealId);
        };
        GameEvents::install(std::move(events));
        // A final estimate the table records is stored with its deal.
        table.setEstimateSink(&Estimate::record);
    });
}

}  // namespace

TableModel& AppDelegate::table() {
    static NoDestructor<TableModel> model;
    return *model;
}

std::shared_ptr<AppDelegate> AppDelegate::create(Options options) {
    return std::shared_ptr<AppDelegate>(new AppDelegate(options));
}

AppDelegate::AppDelegate(Options options) : options_(options) {
    const std::filesystem::path directory = homeDirectory() + "/.Pointlane";
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (error) {
        fatalError("Pointlane can't make its data folder " + directory.string() + ": " +
                   error.message() + ".");
    }
    // A server that can't store what it answers must not start: nothing is advertised yet.
    if (const auto why = folderWriteRefusal(directory)) {
        fatalError("Pointlane can't write to its data folder " + directory.string() + ": " + *why +
                   ".");
    }
    // One server per data folder, from before the database is touched until the process ends.
    std::string refusal;
    folderLock_ = DataFolderLock::acquire((directory / "Pointlane.lock").string(), refusal);
    if (!folderLock_) {
        fatalError(refusal);
    }
    databasePath_ = (directory / "Pointlane.sqlite").string();
    if (const auto why = fileWriteRefusal(databasePath_)) {
        fatalError("Pointlane can't write to its database " + databasePath_ + ": " + *why + ".");
    }
    if (!options_.headless) {
        // The menu's actions reach the delegate only while it exists.
        statusItem = std::make_unique<StatusItem>([this] { statusDidCliecked(); },
                                                  [this] { quitDidClicked(); });
    }
}

AppDelegate::~AppDelegate() {
    applicationWillTerminate();
    webServer.reset();
    joinCodeWindow_.reset();
    dataWindowController.reset();
    statusItem.reset();
}

void AppDelegate::applicationWillFinishLaunching() {
    std::error_code error;
    const bool isFile = std::filesystem::exists(databasePath_, error) &&
                        !std::filesystem::is_directory(databasePath_, error);
    if (isFile && sqlm().isValidDatabase(databasePath_)) {
        openDatabase();
    } else {
        createDatabase();
    }
    // Known players are those of the current run only; games and their history stay.
    sqlm().execQuery("DELETE FROM PlayerInfo");
    if (statusItem) {
        statusItem->setToolTip(QString::fromLatin1(StatusItem::kToolTip));
    }
    // Whoever watches the server hears when stores fail and when they succeed again: the
    // table (so every page says so) at once, the tray on the main thread. The standard output
    // line comes from the database itself.
    sqlm().setWriteStatusListener([weak = weak_from_this()](bool failing, const std::string& why) {
        table().setSavingFailed(failing);
        after(0, [weak, failing, why] {
            if (auto self = weak.lock()) {
                self->writeStatusChanged(failing, why);
            }
        });
    });
}

void AppDelegate::writeStatusChanged(bool failing, const std::string& reason) {
    if (!statusItem) {
        return;
    }
    const QString base = QString::fromLatin1(StatusItem::kToolTip);
    if (!failing) {
        statusItem->setToolTip(base);
        statusItem->trayIcon().showMessage(QString::fromLatin1(kServiceName),
                                           QStringLiteral("Saving works again."),
                                           QSystemTrayIcon::Information);
        return;
    }
    const QString line = QStringLiteral("Can't save: ") + QString::fromStdString(reason) +
                         QStringLiteral(". Records are kept and retried.");
    statusItem->setToolTip(base + QStringLiteral(" - ") + line);
    statusItem->trayIcon().showMessage(QString::fromLatin1(kServiceName), line,
                                       QSystemTrayIcon::Warning);
}

void AppDelegate::openDatabase() {
    // A newer layout or a damaged file is refused before anything writes to it.
    if (const auto refusal = SchemaVersion::check(databasePath_)) {
        fatalError(*refusal);
    }
    if (!sqlm().open(databasePath_)) {
        fatalError("Can't open the database.");
    }
    if (const auto why = SchemaVersion::upgrade(sqlm())) {
        fatalError("Pointlane can't upgrade the database " + databasePath_ + ": " + *why + ".");
    }
    pointlane::tr().info(kSubject, "Database opened (" + databasePath_ + ")", "openDatabase()",
                         __LINE__);
}

void AppDelegate::createDatabase() {
    sqlm().setSchemaPath(SchemaLocation::find());
    // The script makes the first release's layout, the upgrade steps the rest.
    if (!sqlm().create(databasePath_,
                       [](SQLite& database) { return !SchemaVersion::upgrade(database); })) {
        fatalError("Can't create the database.");
    }
    pointlane::tr().info(kSubject, "Database created (" + databasePath_ + ")", "createDatabase()",
                         __LINE__);
}

void AppDelegate::applicationDidFinishLaunching() {
    // Icon and menu first: the item is in place before anyone can connect.
    if (statusItem) {
        statusItem->show();
    }
    // The administrator's logout ends the process through the event loop, like a quit.
    // By then no request is handled any more; the listener stops before the loop ends.
    GameState::setProcessEnd([weak = weak_from_this()](int status) {
        if (auto self = weak.lock(); self && self->server) {
            self->server->stop();
        }
        terminate(status);
    });
    feedTableFromGame(table());

    server = Server::create(weak_from_this());
    const int port = options_.port;
    std::thread([server = server, port, ended = listenerEnded_] {
        if (server) {
            server->runOnPort(port);
        }
        ended->store(true);
    }).detach();

    // With port 0 the advertised port is known only once the listener has bound.
    const auto deadline = std::chrono::steady_clock::now() + kListenWait;
    while (server && servedPort() == 0 && !listenerEnded_->load() &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    if (servedPort() == 0) {
        cantServe();
        return;
    }
    pointlane::tr().info(kSubject, "Listening on port " + std::to_string(servedPort()),
                         "applicationDidFinishLaunching()", __LINE__);

    startBonjoure();
    startWebTable();

    if (statusItem && options_.monitor) {
        statusDidCliecked();
    }
}

void AppDelegate::cantServe() {
    // A server without its listener would sit there advertising a game nobody can join.
    const std::string line = "Pointlane can't listen on port " + std::to_string(options_.port) +
                             " (in use, or not allowed); it stops.";
    std::fputs((line + "\n").c_str(), stdout);
    std::fflush(stdout);
    quitting_ = true;
    sqlm().closeAfterPendingWork();
    if (statusItem && statusItem->trayIcon().isVisible()) {
        // Long enough to be read before the item goes.
        statusItem->trayIcon().showMessage(QString::fromLatin1(kServiceName),
                                           QString::fromStdString(line), QSystemTrayIcon::Critical);
        after(kCantServeMessageSeconds, [] { terminate(1); });
        return;
    }
    after(0, [] { terminate(1); });
}

int AppDelegate::servedPort() const {
    return server ? server->listeningPort() : 0;
}

void AppDelegate::startBonjoure() {
    // Published on the port actually served: with port 0 it is known only after the bind.
    const int port = servedPort() != 0 ? servedPort() : options_.port;
    bonjoureService = std::make_unique<ServiceAdvertiser>(
        kServiceDomain, kServiceType, kServiceName, static_cast<std::uint16_t>(port));
    bonjoureService->publish();
}

void AppDelegate::startWebTable() {
    if (!options_.web || servedPort() == 0) {
        return;
    }
    WebServer::Options web;
    web.port = options_.webPort;
    web.gateway.gamePort = servedPort();
    web.gateway.graceMs = options_.webGraceMs;
    // The link a page on this machine shows beside the join code: the one the code holds.
    web.gateway.joinLink = [this] { return phoneJoinLink().toStdString(); };
    // The history page reads the database file on its own, read-only connection.
    web.history = historySourceFor(databasePath_);
    web.table = &table();
    // A page opened on this machine (127.0.0.1) shows a code phones can reach.
    web.joinLink = [this] { return phoneJoinLink(); };
    webServer = std::make_unique<WebServer>(std::move(web));
    if (webServer->start() == 0) {
        pointlane::tr().info(
            kSubject, "Can't serve the web table on port " + std::to_string(options_.webPort),
            "startWebTable()", __LINE__);
        webServer.reset();
        return;
    }
    pointlane::tr().info(kSubject,
                         "Web table on port " + std::to_string(webPort()) + ": " +
                             joinLinks().join(QStringLiteral(" ")).toStdString(),
                         "startWebTable()", __LINE__);
    webService = std::make_unique<ServiceAdvertiser>(kServiceDomain, kWebServiceType, kServiceName,
                                                     static_cast<std::uint16_t>(webPort()));
    webService->publish();
    if (statusItem) {
        statusItem->addAction(QString::fromLatin1(kCopyLinkTitle), [this] {
            if (QClipboard* clipboard = QGuiApplication::clipboard()) {
                clipboard->setText(joinLinks().join(QLatin1Char('\n')));
            }
        });
        statusItem->addAction(QString::fromLatin1(kShowJoinCodeTitle), [this] { showJoinCode(); });
    }
}

QString AppDelegate::phoneJoinLink() const {
    const QStringList links = joinLinks();
    return links.isEmpty() ? QString() : links.back();
}

void AppDelegate::showJoinCode() {
    if (options_.headless) {
        return;
    }
    // A window of its own rather than a browser tab: it opens on the facilitator's screen at
    // once, works without a browser, and is what gets shown on the shared screen.
    if (!joinCodeWindow_) {
        joinCodeWindow_ = std::make_unique<JoinCodeWindow>(phoneJoinLink());
    } else {
        joinCodeWindow_->setLink(phoneJoinLink());
    }
    joinCodeWindow_->show();
    joinCodeWindow_->raise();
    joinCodeWindow_->activateWindow();
}

int AppDelegate::webPort() const {
    return webServer ? webServer->port() : 0;
}

QStringList AppDelegate::joinLinks() const {
    QStringList links;
    if (webPort() == 0) {
        return links;
    }
    links << WebServer::joinLink(QHostInfo::localHostName() + QStringLiteral(".local"), webPort());
    for (const QHostAddress& address : QNetworkInterface::allAddresses()) {
        if (address.protocol() == QAbstractSocket::IPv4Protocol && !address.isLoopback()) {
            links << WebServer::joinLink(address.toString(), webPort());
            break;
        }
    }
    return links;
}

void AppDelegate::applicationWillTerminate() {
    if (webService) {
        webService->stop();
        webService.reset();
    }
    if (bonjoureService) {
        bonjoureService->stop();
        bonjoureService.reset();
    }
}

std::shared_ptr<ServerThread> AppDelegate::serverThread(std::shared_ptr<Socket> socket) {
    return std::make_shared<PokerThread>(std::move(socket), GameHandlers::handlers());
}

void AppDelegate::statusDidCliecked() {
    // Without a desktop there is nothing to show; with a window open (or still waiting to be
    // dropped after closing) the choice does nothing, not even bring the window forward.
    if (options_.headless || dataWindowController) {
        return;
    }
    dataWindowController = std::make_unique<DataWindowController>();
    DataWindowController& controller = *dataWindowController;
    controller.loadWindow();
    controller.delegate = this;
    if (const QScreen* screen = QGuiApplication::primaryScreen()) {
        QRect frame = controller.frameGeometry();
        frame.moveCenter(screen->availableGeometry().center());
        controller.move(frame.topLeft());
    }
    controller.show();
    controller.raise();
    controller.activateWindow();
    std::fputs("status\n", stdout);
    std::fflush(stdout);
}

void AppDelegate::quitDidClicked() {
    if (quitting_) {
        return;
    }
    quitting_ = true;
    // Nothing new comes in first: no connection is accepted and no request read from here on
    // is handled; the requests in hand finish, so every record a client was told about is on
    // the database queue. Then those writes are finished and the database is closed, on that
    // queue, never under a write.
    if (server) {
        server->stop();
    }
    RequestGate::shared().close(RequestGate::kQuitWait);
    sqlm().closeAfterPendingWork();
    terminate(0);
}

void AppDelegate::windowClose() {
    after(0.1, [weak = weak_from_this()] {
        if (auto self = weak.lock()) {
            self->dataWindowController.reset();
        }
    });
}

void AppDelegate::terminate(int status) {
    QCoreApplication::exit(status);
}

}  // namespace pointlane
