#pragma once

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QWebSocket>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "InProcessServer.h"
#include "WebServer.h"
#include "game/GameEvents.h"
#include "table/TableModel.h"

namespace pointlane::testkit {

using nlohmann::json;

// Runs the Qt event loop until condition holds or the time-out passes.
inline bool spinUntil(const std::function<bool()>& condition,
                      std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() > timeout.count()) {
            return false;
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    return true;
}

// The table model of this test program, fed by the game's events as the app feeds its own.
inline TableModel& testTable() {
    static TableModel* table = new TableModel;
    static std::once_flag once;
    std::call_once(once, [] {
        GameEvents events;
        events.gameOpened = [](const std::string& f, const std::string& g) {
            table->gameOpened(f, g);
        };
        events.playerJoined = [](const std::string& name) { table->playerJoined(name); };
        events.playerLeft = [](const std::string& name) { table->playerLeft(name); };
        events.itemPut = [](const std::string& title) { table->itemPut(title); };
        events.played = [](const std::string& name) { table->played(name); };
        events.cardsOpened = [] { table->cardsOpened(); };
        events.cardElected = [](const std::string& name, const std::string& card) {
            table->cardElected(name, card);
        };
        events.dealStored = [](const std::string& title, std::int64_t id) {
            table->dealStored(title, id);
        };
        GameEvents::install(std::move(events));
    });
    return *table;
}

inline std::string seatOf(const std::string& who) {
    return "seat-" + who + "-0123456789abcdef";
}

// A table message's seat of that name, or null.
inline json seatNamed(const json& message, const std::string& name) {
    for (const auto& seat : message["table"]["seats"]) {
        if (seat["name"] == name) {
            return seat;
        }
    }
    return nullptr;
}

inline bool hasPlayer(const json& message, const std::string& name) {
    return !seatNamed(message, name).is_null();
}

// A browser page as the gateway sees it: a WebSocket that sends JSON messages and keeps every
// message it receives.
class Page {
  public:
    Page(int port, std::string seat) : seat_(std::move(seat)) {
        QObject::connect(&socket_, &QWebSocket::textMessageReceived, [this](const QString& text) {
            received.push_back(json::parse(text.toStdString()));
        });
        QObject::connect(&socket_, &QWebSocket::disconnected, [this] {
            closed = true;
            closeCode = socket_.closeCode();
        });
        socket_.open(QUrl(QStringLiteral("ws://127.0.0.1:%1/socket").arg(port)));
        EXPECT_TRUE(
            spinUntil([this] { return socket_.state() == QAbstractSocket::ConnectedState; }));
    }
    void sendText(const std::string& text) {
        socket_.sendTextMessage(QString::fromStdString(text));
    }
    void send(const json& message) { sendText(message.dump()); }
    void hello() { send({{"type", "hello"}, {"seat", seat_}}); }
    void close() {
        socket_.close();
        spinUntil([this] { return closed; });
    }
    QWebSocket& socket() { return socket_; }

    // Waits for a received message that satisfies predicate (looking at the messages that
    // arrived after the last wait) and returns it.
    json waitFor(const std::function<bool(const json&)>& predicate,
                 std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        json found;
        spinUntil(
            [&] {
                for (; seen_ < received.size(); ++seen_) {
                    if (predicate(received[seen_])) {
                        found = received[seen_++];
                        return true;
                    }
                }
                return false;
            },
            timeout);
        if (found.is_null()) {
            std::string all;
            for (std::size_t i = received.size() > 4 ? received.size() - 4 : 0; i < received.size();
                 ++i) {
                all += received[i].dump().substr(0, 1500) + "\n";
            }
            ADD_FAILURE() << "no such message (page closed: " << closed << ", code " << closeCode
                          << "); last received:\n"
                          << all;
            return json::object();
        }
        return found;
    }
    json waitForType(const std::string& type) {
        return waitFor([&](const json& m) { return m.value("type", "") == type; });
    }
    std::string waitForError() { return waitForType("error").value("text", ""); }
    // The next table message for which check holds.
    json waitForTable(const std::function<bool(const json&)>& check) {
        return waitFor([&](const json& m) { return m.value("type", "") == "table" && check(m); });
    }
    // The newest table message.
    json lastTable() const {
        for (auto m = received.rbegin(); m != received.rend(); ++m) {
            if (m->value("type", "") == "table") {
                return *m;
            }
        }
        return json::object();
    }

    std::vector<json> received;
    bool closed = false;
    int closeCode = 0;

  private:
    std::string seat_;
    QWebSocket socket_;
    std::size_t seen_ = 0;
};

// The game server in process and the web table in front of it, on loopback ports.
class WebFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        testTable().reset();
        server = InProcessServer::start();
        ASSERT_TRUE(server);
        WebServer::Options options;
        options.address = QHostAddress::LocalHost;
        options.port = 0;
        options.gateway.gamePort = server->port();
        options.gateway.graceMs = 400;
        options.table = &testTable();
        options.limits.pagesPerAddress = 64;  // every page of these tests comes from 127.0.0.1
        adjust(options);
        web = std::make_unique<WebServer>(options);
        port = web->start();
        ASSERT_NE(port, 0);
    }
    void TearDown() override {
        pages.clear();
        web.reset();
        QCoreApplication::processEvents();
        server.reset();
    }
    virtual void adjust(WebServer::Options&) {}

    Page& page(const std::string& who) {
        pages.push_back(std::make_unique<Page>(port, seatOf(who)));
        return *pages.back();
    }
    // A page that said hello and got the table.
    Page& lobbyPage(const std::string& who) {
        Page& p = page(who);
        p.hello();
        p.waitForTable([](const json& m) { return m["me"]["seat"] == "none"; });
        return p;
    }
    // A seated page: the facilitator's when game is given.
    Page& seated(const std::string& who, const std::string& game = {}) {
        Page& p = lobbyPage(who);
        if (game.empty()) {
            p.send({{"type", "join"}, {"name", who}});
        } else {
            p.send({{"type", "start"}, {"name", who}, {"game", game}, {"deck", "standard"}});
        }
        EXPECT_EQ(
            p.waitForTable([](const json& m) { return m["me"]["seat"] == "seated"; })["me"].value(
                "name", ""),
            who);
        return p;
    }

    std::shared_ptr<InProcessServer> server;
    std::unique_ptr<WebServer> web;
    int port = 0;
    std::vector<std::unique_ptr<Page>> pages;
};

}  // namespace pointlane::testkit
