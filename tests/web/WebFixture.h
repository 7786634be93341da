#pragma once

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QWebSocket>
#include <chrono>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "InProcessServer.h"
#include "WebServer.h"
#include "game/PlayerStore.h"

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

// A browser page as the gateway sees it: a WebSocket that sends JSON messages and keeps every
// message it receives.
class Page {
  public:
    Page(int port, std::string tab) : tab_(std::move(tab)) {
        QObject::connect(&socket_, &QWebSocket::textMessageReceived, [this](const QString& text) {
            received.push_back(nlohmann::json::parse(text.toStdString()));
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
    void send(const nlohmann::json& message) { sendText(message.dump()); }
    void hello() { send({{"type", "hello"}, {"tab", tab_}}); }
    void close() {
        socket_.close();
        spinUntil([this] { return closed; });
    }
    QWebSocket& socket() { return socket_; }

    // Waits for a received message that satisfies predicate (looking at the messages that
    // arrived after the last wait) and returns it.
    nlohmann::json waitFor(const std::function<bool(const nlohmann::json&)>& predicate,
                           std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        nlohmann::json found;
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
            for (const auto& m : received) {
                all += m.dump() + "\n";
            }
            ADD_FAILURE() << "no such message (page closed: " << closed << ", code " << closeCode
                          << "); received:\n"
                          << all;
            return json::object();
        }
        return found;
    }
    nlohmann::json waitForType(const std::string& type) {
        return waitFor([&](const nlohmann::json& m) { return m.value("type", "") == type; });
    }
    std::string waitForError() { return waitForType("error").value("text", ""); }
    // The next table for which check holds.
    nlohmann::json waitForTable(const std::function<bool(const nlohmann::json&)>& check) {
        return waitFor(
            [&](const nlohmann::json& m) { return m.value("type", "") == "table" && check(m); });
    }

    std::vector<nlohmann::json> received;
    bool closed = false;
    int closeCode = 0;

  private:
    std::string tab_;
    QWebSocket socket_;
    std::size_t seen_ = 0;
};

inline std::string tabOf(const std::string& who) {
    return "tab-" + who + "-0123456789abcdef";
}

inline bool hasPlayer(const nlohmann::json& table, const std::string& name) {
    for (const auto& player : table["players"]) {
        if (player == name) {
            return true;
        }
    }
    return false;
}

// The game server in process and the web table in front of it, on loopback ports.
class WebFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        server = InProcessServer::start();
        ASSERT_TRUE(server);
        WebServer::Options options;
        options.address = QHostAddress::LocalHost;
        options.port = 0;
        options.gateway.gamePort = server->port();
        options.gateway.graceMs = 400;
        options.gateway.currentGame = [] {
            auto& store = PlayerStore::shared();
            return store.existsAdmin() ? std::optional<std::string>(store.gameName().value_or(""))
                                       : std::nullopt;
        };
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
        pages.push_back(std::make_unique<Page>(port, tabOf(who)));
        return *pages.back();
    }
    // A page that said hello and got the lobby.
    Page& lobbyPage(const std::string& who) {
        Page& p = page(who);
        p.hello();
        EXPECT_EQ(p.waitForType("lobby").value("type", ""), "lobby");
        return p;
    }
    // A seated page: the administrator's when game is given.
    Page& seated(const std::string& who, const std::string& game = {}) {
        Page& p = lobbyPage(who);
        if (game.empty()) {
            p.send({{"type", "join"}, {"name", who}});
        } else {
            p.send({{"type", "start"}, {"name", who}, {"game", game}});
        }
        EXPECT_EQ(p.waitForTable([](const nlohmann::json&) { return true; }).value("you", ""), who);
        return p;
    }

    std::shared_ptr<InProcessServer> server;
    std::unique_ptr<WebServer> web;
    int port = 0;
    std::vector<std::unique_ptr<Page>> pages;
};

}  // namespace pointlane::testkit
