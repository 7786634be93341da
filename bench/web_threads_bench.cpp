// What open pages and web seats cost in threads, counted in /proc/self/task, with the game
// served in this process (as the application does) on loopback.
//
// Part 1, the web table as it is built now: the game and the web server idle; then as many join
// pages (WebSockets that said hello) as one address may open (16); then five of them seated (one
// starts the game, four join).
// Part 2, the seats alone: five SeatConnection seats (the event-loop seat) logged in to a fresh
// game, counted just after their logins and again once their idle game connections have closed.
//
// Usage: web_threads_bench   (exits with status 1 when a page or seat did not get where it should)
#include <dirent.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QWebSocket>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "InProcessServer.h"
#include "SeatConnection.h"
#include "WebServer.h"
#include "game/GameEvents.h"
#include "table/TableModel.h"

namespace {

using namespace pointlane;
using nlohmann::json;

// As many join pages as one address may hold open (the pages all come from 127.0.0.1).
const int kPages = WebListener::Limits{}.pagesPerAddress;
constexpr int kSeats = 5;

int threadCount() {
    DIR* tasks = ::opendir("/proc/self/task");
    if (tasks == nullptr) {
        return -1;
    }
    int count = 0;
    while (const dirent* entry = ::readdir(tasks)) {
        count += entry->d_name[0] != '.' ? 1 : 0;
    }
    ::closedir(tasks);
    return count;
}

bool spinUntil(const std::function<bool()>& condition, int timeoutMs = 10000) {
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() > timeoutMs) {
            return false;
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    return true;
}

// Lets threads that are ending finish, then counts.
int settledCount(int ms = 500) {
    spinUntil([] { return false; }, ms);
    return threadCount();
}

// A join page: a WebSocket that says hello and keeps the types of the messages it gets.
class Page {
  public:
    Page(int port, int number) {
        QObject::connect(&socket_, &QWebSocket::textMessageReceived, [this](const QString& text) {
            const json message = json::parse(text.toStdString(), nullptr, false);
            if (message.is_object()) {
                types.push_back(message.value("type", ""));
                seated = seated ||
                         (types.back() == "table" && message["me"].value("seat", "") == "seated");
            }
        });
        QObject::connect(&socket_, &QWebSocket::connected, [this, number] {
            send({{"type", "hello"},
                  {"seat", "bench-seat-" + std::to_string(number) + "-0123456789"}});
        });
        socket_.open(QUrl(QStringLiteral("ws://127.0.0.1:%1/socket").arg(port)));
    }
    void send(const json& message) {
        socket_.sendTextMessage(QString::fromStdString(message.dump()));
    }
    bool got(const std::string& type) const {
        for (const std::string& seen : types) {
            if (seen == type) {
                return true;
            }
        }
        return false;
    }

    std::vector<std::string> types;
    bool seated = false;

  private:
    QWebSocket socket_;
};

void printLine(const char* what, int count, int idle) {
    std::printf("  %-44s %3d threads (%+d over idle)\n", what, count, count - idle);
}

// Each part is false (with the reason on standard error) when a step did not happen: its counts
// would then measure something else.
bool failed(const char* what) {
    std::fprintf(stderr, "web_threads_bench: %s\n", what);
    return false;
}

bool currentWebTable() {
    auto server = testkit::InProcessServer::start();
    if (!server) {
        return failed("the game server did not start");
    }
    // The table the pages are drawn from, fed by the game's events as the application feeds it.
    static TableModel table;
    GameEvents events;
    events.gameOpened = [](const std::string& f, const std::string& g) { table.gameOpened(f, g); };
    events.playerJoined = [](const std::string& name) { table.playerJoined(name); };
    events.playerLeft = [](const std::string& name) { table.playerLeft(name); };
    GameEvents::install(std::move(events));
    WebServer::Options options;
    options.address = QHostAddress::LocalHost;
    options.port = 0;
    options.gateway.gamePort = server->port();
    options.table = &table;
    options.limits.pagesPerAddress = kPages;  // every page comes from 127.0.0.1
    auto web = std::make_unique<WebServer>(options);
    const int port = web->start();
    if (port <= 0) {
        return failed("the web server did not start");
    }
    std::printf("Web table as built (its WebGateway and WebSession):\n");
    const int idle = settledCount();
    printLine("game and web server, idle", idle, idle);

    std::vector<std::unique_ptr<Page>> pages;
    for (int i = 0; i < kPages; ++i) {
        pages.push_back(std::make_unique<Page>(port, i));
    }
    int greeted = 0;
    spinUntil([&] {
        greeted = 0;
        for (const auto& page : pages) {
            greeted += page->types.empty() ? 0 : 1;
        }
        return greeted == kPages;
    });
    char label[64];
    std::snprintf(label, sizeof(label), "%d pages open (%d answered)", kPages, greeted);
    printLine(label, settledCount(), idle);

    pages[0]->send(
        {{"type", "start"}, {"name", "Seat 0"}, {"game", "Threads"}, {"deck", "standard"}});
    spinUntil([&] { return pages[0]->seated; });
    for (int i = 1; i < kSeats; ++i) {
        pages[i]->send({{"type", "join"}, {"name", "Seat " + std::to_string(i)}});
    }
    int seated = 0;
    spinUntil([&] {
        seated = 0;
        for (int i = 0; i < kSeats; ++i) {
            seated += pages[i]->seated ? 1 : 0;
        }
        return seated == kSeats;
    });
    std::snprintf(label, sizeof(label), "%d pages, %d of them seated", kPages, seated);
    printLine(label, settledCount(), idle);
    std::snprintf(label, sizeof(label), "the same, %lld s later",
                  static_cast<long long>(SeatConnection::kIdleClose.count() / 1000 + 1));
    printLine(label, settledCount(static_cast<int>(SeatConnection::kIdleClose.count()) + 1000),
              idle);
    pages.clear();
    web.reset();
    QCoreApplication::processEvents();
    if (greeted != kPages || seated != kSeats) {
        return failed("not every page was answered or seated");
    }
    return true;
}

bool seatConnections() {
    auto server = testkit::InProcessServer::start();
    if (!server) {
        return failed("the game server did not start");
    }
    std::printf("SeatConnection seats alone (no pages, no gateway):\n");
    const int idle = settledCount();
    printLine("game server, idle", idle, idle);
    std::vector<std::unique_ptr<SeatConnection>> seats;
    int loggedIn = 0;
    for (int i = 0; i < kSeats; ++i) {
        seats.push_back(std::make_unique<SeatConnection>(server->port()));
        auto done = [&](std::optional<Answer> answer) {
            loggedIn += answer && answer->code == 0 ? 1 : 0;
        };
        const std::string name = "Seat " + std::to_string(i);
        if (i == 0) {
            seats[0]->loginAdmin(name, "Threads", done);
            spinUntil([&] { return loggedIn == 1; });
        } else {
            seats[i]->loginPlayer(name, done);
        }
    }
    spinUntil([&] { return loggedIn == kSeats; });
    char label[64];
    std::snprintf(label, sizeof(label), "%d seats logged in, just now", loggedIn);
    printLine(label, settledCount(), idle);
    std::snprintf(label, sizeof(label), "%d seats logged in, idle for %lld s", loggedIn,
                  static_cast<long long>(SeatConnection::kIdleClose.count() / 1000 + 1));
    printLine(label, settledCount(static_cast<int>(SeatConnection::kIdleClose.count()) + 1000),
              idle);
    seats.clear();
    if (loggedIn != kSeats) {
        return failed("not every seat logged in");
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    std::printf("Threads of this process (/proc/self/task), game served in process on loopback\n");
    const bool table = currentWebTable();
    const bool seats = seatConnections();
    return table && seats ? 0 : 1;
}
