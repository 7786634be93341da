// The server's life as an operator sees it: how a run ends (signals, the administrator's
// logout) without losing what it answered, one server per data folder, a port that can't be
// served, and logins whose connection back would reach the server itself.
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ClientServer.h"
#include "PokerClient.h"
#include "ServerProcess.h"
#include "StoredRows.h"
#include "TestKit.h"

namespace pointlane {
namespace {

using testkit::ServerProcess;
using testkit::storedRows;
using testkit::TempDir;

struct Client {
    std::unique_ptr<ClientServer> clientServer;
    std::unique_ptr<PokerClient> client;
};

Client connect(int port, const std::string& host = "127.0.0.1") {
    Client c{ClientServer::start(), PokerClient::connect(port, host, 5.0)};
    EXPECT_TRUE(c.clientServer && c.client);
    return c;
}

bool isOk(const std::optional<Answer>& answer) {
    return answer && answer->code == 0;
}

// Records whose requests were answered OK, as they must appear in the stored rows.
struct Answered {
    std::mutex mutex;
    std::set<std::string> deals;      // titles
    std::set<std::string> elections;  // playerName + "/" + symbol
    std::set<std::string> games;      // names

    void add(std::set<std::string> Answered::*which, const std::string& key) {
        std::lock_guard lock(mutex);
        (this->*which).insert(key);
    }
};

std::set<std::string> column(const std::string& db, const std::string& query,
                             const std::function<std::string(testkit::Row&)>& key) {
    std::set<std::string> result;
    auto rows = storedRows(db, query);
    EXPECT_TRUE(rows);
    if (rows) {
        for (auto& row : *rows) {
            result.insert(key(row));
        }
    }
    return result;
}

// Every answered-OK record of the run is among the stored rows.
void expectEveryAnsweredRecordStored(const std::string& db, Answered& answered) {
    const auto deals = column(db, "SELECT name FROM Deal", [](auto& r) { return r["name"]; });
    const auto elections = column(db, "SELECT playerName, symbol FROM Election",
                                  [](auto& r) { return r["playerName"] + "/" + r["symbol"]; });
    const auto games = column(db, "SELECT name FROM Game", [](auto& r) { return r["name"]; });
    std::size_t lost = 0;
    std::string examples;
    for (const auto& [ok, stored] : {std::pair{&answered.deals, &deals},
                                     std::pair{&answered.elections, &elections},
                                     std::pair{&answered.games, &games}}) {
        for (const auto& key : *ok) {
            if (!stored->count(key) && ++lost <= 3) {
                examples += " " + key;
            }
        }
    }
    EXPECT_EQ(lost, 0u) << "of " << answered.deals.size() + answered.elections.size() +
                                        answered.games.size()
                        << " records answered OK, e.g." << examples;
}

// A player that deals and elects at a steady pace until the server stops answering OK. The
// pace keeps the backlog of record writes within what a slow disk stores in a few seconds.
void stream(PokerClient& client, const std::string& name, Answered& answered,
            std::atomic<int>& oks) {
    for (int i = 0;; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(4));
        const std::string title = name + "-deal-" + std::to_string(i);
        if (!isOk(client.initNewDeal(title))) {
            return;
        }
        answered.add(&Answered::deals, title);
        ++oks;
        const std::string symbol = name + "-card-" + std::to_string(i);
        if (!isOk(client.cardElected(name, symbol))) {
            return;
        }
        answered.add(&Answered::elections, name + "/" + symbol);
        ++oks;
    }
}

class LifecycleEndToEndTest : public ::testing::Test {
  protected:
    void SetUp() override {
        server = ServerProcess::start(home.path().string());
        ASSERT_TRUE(server);
    }
    std::string databasePath() const { return home.file(".Pointlane/Pointlane.sqlite"); }

    TempDir home;
    std::unique_ptr<ServerProcess> server;
};

TEST_F(LifecycleEndToEndTest, SignalsEndTheRunWithEveryAnsweredRecordStored) {
    // SIGTERM on the first run, SIGINT on the second (same folder, the database is reopened).
    for (const int signal : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(signal);
        Client boss = connect(server->port());
        ASSERT_TRUE(isOk(boss.client->loginAdmin("Boss", "G" + std::to_string(signal),
                                                 boss.clientServer->port())));
        std::vector<Client> players;
        for (int i = 0; i < 3; ++i) {
            players.push_back(connect(server->port()));
            ASSERT_TRUE(isOk(players.back().client->loginPlayer(
                "P" + std::to_string(i), players.back().clientServer->port())));
        }
        Answered answered;
        std::atomic<int> oks{0};
        std::vector<std::thread> streams;
        for (std::size_t i = 0; i < players.size(); ++i) {
            streams.emplace_back(stream, std::ref(*players[i].client),
                                 "S" + std::to_string(signal) + "P" + std::to_string(i),
                                 std::ref(answered), std::ref(oks));
        }
        ASSERT_TRUE(testkit::waitUntil([&] { return oks.load() >= 300; }));
        server->signal(signal);
        const auto status = server->waitForExit(std::chrono::seconds(60));
        for (auto& t : streams) {
            t.join();
        }
        ASSERT_EQ(status, std::optional<int>(0)) << server->output();
        expectEveryAnsweredRecordStored(databasePath(), answered);
        if (signal == SIGTERM) {
            server = ServerProcess::start(home.path().string());
            ASSERT_TRUE(server);
        }
    }
}

TEST_F(LifecycleEndToEndTest, AdministratorsLogoutEndsTheRunWithEveryAnsweredRecordStored) {
    Client boss = connect(server->port());
    ASSERT_TRUE(isOk(boss.client->loginAdmin("Boss", "First", boss.clientServer->port())));
    std::vector<Client> players;
    for (int i = 0; i < 3; ++i) {
        players.push_back(connect(server->port()));
        ASSERT_TRUE(isOk(players.back().client->loginPlayer("P" + std::to_string(i),
                                                            players.back().clientServer->port())));
    }
    Answered answered;
    answered.add(&Answered::games, "First");
    std::atomic<int> oks{0};
    std::vector<std::thread> streams;
    for (std::size_t i = 0; i < players.size(); ++i) {
        streams.emplace_back(stream, std::ref(*players[i].client), "P" + std::to_string(i),
                             std::ref(answered), std::ref(oks));
    }
    ASSERT_TRUE(testkit::waitUntil([&] { return oks.load() >= 300; }));
    // A deal answered just as the game closes finds no game and is rightly not stored; the
    // players stop first so that only the run's end can lose anything.
    for (auto& player : players) {
        player.client->connection().close();
    }
    for (auto& t : streams) {
        t.join();
    }
    ASSERT_TRUE(isOk(boss.client->logout()));
    // The registry is empty now: the same run takes a new administrator (while counts last)
    // until it ends, each opening a game and streaming deals and cards into it.
    std::vector<std::thread> newcomers;
    for (int n = 0; n < 3; ++n) {
        newcomers.emplace_back([&, n] {
            auto clientServer = ClientServer::start();
            for (int round = 0; round < 500; ++round) {
                auto next = PokerClient::connect(server->port(), "127.0.0.1", 5.0);
                const std::string game = "Next" + std::to_string(n) + "-" + std::to_string(round);
                const auto login =
                    next ? next->loginAdmin("Boss" + std::to_string(n), game, clientServer->port())
                         : std::nullopt;
                if (!login) {
                    return;  // refused or unanswered connection: the run is ending
                }
                if (login->code == 0) {
                    answered.add(&Answered::games, game);
                    stream(*next, game, answered, oks);
                    next->logout();
                }
            }
        });
    }
    const auto status = server->waitForExit(std::chrono::seconds(60));
    for (auto& t : newcomers) {
        t.join();
    }
    ASSERT_EQ(status, std::optional<int>(0)) << server->output();
    expectEveryAnsweredRecordStored(databasePath(), answered);
}

}  // namespace
}  // namespace pointlane
