#pragma once

#include <QObject>
#include <QPointer>
#include <atomic>
#include <memory>
#include <string>

#include "monitor/DataWindowControllerDelegate.h"
#include "transport/Server.h"
#include "transport/ServerThread.h"
#include "transport/Socket.h"

namespace pointlane {

class DataFolderLock;
class DataWindowController;
class JoinCodeWindow;
class ServiceAdvertiser;
class StatusItem;
class TableModel;
class WebServer;

// Owns everything that lives as long as the process: the database location, the listener,
// the service advertisement and (with a desktop) the tray item and the monitor window.
//
// Desktop mode: the tray item is made at construction, gets its tooltip before launch
// completes and its icon and menu ("Show monitor" -> statusDidCliecked(), "Quit Pointlane" ->
// quitDidClicked()) when launch has completed; --monitor then opens the window at once. With
// the web table the menu also has "Copy join link" and "Show join code" (showJoinCode()).
//
// Start: create() (database folder, its lock, database path), applicationWillFinishLaunching()
// (database opened or created, known players emptied), applicationDidFinishLaunching() (tray
// icon and menu, listener thread, advertisement, in that order; a listener that can't start
// ends the run with status 1 instead). Stop: quitDidClicked() or the administrator's logout
// stop taking connections and requests, let those in hand finish, store the pending records,
// close the database and end the event loop; applicationWillTerminate() then withdraws the
// advertisement. The folder's lock goes with the process.
//
// Threading: main thread only, except serverThread(), which the listener thread calls and
// which touches nothing but the new connection object.
class AppDelegate final : public QObject,
                          public ServerDelegate,
                          public DataWindowControllerDelegate,
                          public std::enable_shared_from_this<AppDelegate> {
    Q_OBJECT

  public:
    static constexpr int kDefaultPort = 50000;
    static constexpr int kDefaultWebPort = 50080;
    static constexpr const char* kWebServiceType = "_http._tcp";
    static constexpr const char* kCopyLinkTitle = "Copy join link";
    static constexpr const char* kShowJoinCodeTitle = "Show join code";
    static constexpr const char* kServiceDomain = "local.";
    static constexpr const char* kServiceType = "_pointlane._tcp";
    static constexpr const char* kServiceName = "Pointlane";
    // How long the tray shows why the server stops before it does.
    static constexpr double kCantServeMessageSeconds = 5.0;

    struct Options {
        int port = kDefaultPort;        // 0: any free port
        bool headless = true;           // no tray item, no windows
        bool monitor = false;           // open the monitor window at start (desktop mode)
        bool web = true;                // serve the web table
        int webPort = kDefaultWebPort;  // 0: any free port
        int webGraceMs = 60000;         // how long a player's web seat waits for its page
    };

    // Makes the database folder ($HOME/.Pointlane), locks it and fixes the database path; a
    // folder that can't be made, written or locked (another server uses it), or a database file
    // that can't be written, stops the process with status 1 and one line naming the path and
    // saying why.
    static std::shared_ptr<AppDelegate> create(Options options);
    ~AppDelegate() override;

    // Opens the database (upgrading an older layout in place), or creates it when the file is
    // missing or not a database, and empties the known players. A database of a newer layout,
    // a damaged one, or one that can't be opened, upgraded or created stops the process with
    // one line ("Can't open the database." / "Can't create the database." / the reason).
    void applicationWillFinishLaunching();
    // Shows the tray item's icon and menu, then starts the listener on its own thread, waits
    // until it listens (or gave up), reports the port and publishes the advertisement.
    void applicationDidFinishLaunching();
    // Withdraws the advertisement. Listener and connection threads end with the process.
    void applicationWillTerminate();

    // ServerDelegate: the connection object of each accepted connection.
    std::shared_ptr<ServerThread> serverThread(std::shared_ptr<Socket> socket) override;

    const std::string& databasePath() const { return databasePath_; }
    // The port actually listened on; 0 until listening started (or when it failed).
    int servedPort() const;
    // The web table's port; 0 when it is off or could not start.
    int webPort() const;
    // The links players open: http://<host name>.local:<port>/ and the IPv4 address form.
    QStringList joinLinks() const;
    // The running game's table, one for the process, fed by the game's events from the first
    // launch on; the web table draws every page from it. Thread safe.
    static TableModel& table();
    // The one link for a phone: the IPv4 address form (phones don't all resolve .local names),
    // else the host name form; empty without a web table.
    QString phoneJoinLink() const;

  public slots:
    // Tray menu: show the monitor window. While one is open (or closed less than 0.1 s ago)
    // nothing happens; otherwise a new window is built, centred, brought to the front, and
    // "status" is written on standard output.
    void statusDidCliecked();
    // Tray menu quit, and SIGINT/SIGTERM: stops accepting and handling requests (those in hand
    // finish), finishes the pending record writes, closes the database and ends the event loop
    // with status 0.
    void quitDidClicked();
    // The monitor window was closed; its controller is dropped 0.1 s later, outside the
    // window's own close handling.
    void windowClose() override;
    // Tray menu "Show join code": a window with the join link's QR code and the link, brought
    // to the front (made once, then shown again with the current link).
    void showJoinCode();

  public:
    // The join code window once it was asked for; nullptr before.
    JoinCodeWindow* joinCodeWindow() const { return joinCodeWindow_.get(); }
    // The open monitor window's controller, nullptr when there is none.
    DataWindowController* monitorWindow() const { return dataWindowController.get(); }
    // The tray item; nullptr in headless mode.
    StatusItem* trayItem() const { return statusItem.get(); }

  private:
    explicit AppDelegate(Options options);
    void openDatabase();
    void createDatabase();
    void startBonjoure();
    // The listener couldn't start: says so (on standard output, and in the tray when there is
    // one), closes the database and ends the event loop with status 1; nothing is advertised.
    void cantServe();
    void startWebTable();
    // Stores started failing, or work again: the tray says so (main thread).
    void writeStatusChanged(bool failing, const std::string& reason);
    // Ends the event loop with status; main() then withdraws the advertisement and exits.
    static void terminate(int status);

    Options options_;
    std::unique_ptr<DataFolderLock> folderLock_;
    std::string databasePath_;
    std::shared_ptr<Server> server;
    std::unique_ptr<ServiceAdvertiser> bonjoureService;
    // The web table and its advertisement (unless turned off).
    std::unique_ptr<WebServer> webServer;
    std::unique_ptr<ServiceAdvertiser> webService;
    // Desktop mode only.
    std::unique_ptr<StatusItem> statusItem;
    // The monitor window's controller while the window is open (desktop mode).
    std::unique_ptr<DataWindowController> dataWindowController;
    std::unique_ptr<JoinCodeWindow> joinCodeWindow_;
    std::shared_ptr<std::atomic<bool>> listenerEnded_ = std::make_shared<std::atomic<bool>>(false);
    bool quitting_ = false;
};

}  // namespace pointlane
