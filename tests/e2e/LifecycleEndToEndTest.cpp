// The server's life as an operator sees it: how a run ends (signals, the administrator's
// logout) without losing what it answered, one server per data folder, a port that can't be
// served, and logins whose connection back would reach the server itself.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ClientServer.h"
#include "PokerClient.h"
#include "ServerFixture.h"
#include "ServerProcess.h"
#include "StoredRows.h"
#include "TestKit.h"

namespace pointlane {
namespace {

using testkit::expectRefusal;
using testkit::ServerFixture;
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
    for (const auto& [ok, stored] :
         {std::pair{&answered.deals, &deals}, std::pair{&answered.elections, &elections},
          std::pair{&answered.games, &games}}) {
        for (const auto& key : *ok) {
            if (!stored->count(key) && ++lost <= 3) {
                examples += " " + key;
            }
        }
    }
    EXPECT_EQ(lost, 0u) << "of "
                        << answered.deals.size() + answered.elections.size() + answered.games.size()
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

class LifecycleEndToEndTest : public ServerFixture {};

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

TEST_F(LifecycleEndToEndTest, AClientGivesUpOnAServerThatStopsAnsweringAfterItsTimeOut) {
    auto client = PokerClient::connect(server->port(), "127.0.0.1", 0.5);
    ASSERT_TRUE(client);
    server->signal(SIGSTOP);
    auto answer = std::async(std::launch::async, [&] { return client->logout(); });
    const bool gaveUp = answer.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    server->signal(SIGCONT);  // a client without a time-out gets its answer only now
    EXPECT_TRUE(gaveUp);
    EXPECT_FALSE(answer.get().has_value());
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

int dealsReceived(const ClientServer& clientServer) {
    int deals = 0;
    for (const auto& n : clientServer.notifications()) {
        deals += n.request == RequestCode::initNewDeal ? 1 : 0;
    }
    return deals;
}

TEST_F(LifecycleEndToEndTest, LoginsWhoseClientServerIsTheServerItselfAreRefused) {
    // The first run ends with the administrator's logout, the second with SIGTERM.
    for (const bool byLogout : {true, false}) {
        SCOPED_TRACE(byLogout ? "logout" : "SIGTERM");
        const int own = server->port();
        // However the client reaches the server, the connection back would reach the listener.
        auto viaLoopback = PokerClient::connect(own, "127.0.0.1", 5.0);
        auto viaOtherLoopback = PokerClient::connect(own, "127.0.0.2", 5.0);
        auto viaAny = PokerClient::connect(own, "0.0.0.0", 5.0);
        ASSERT_TRUE(viaLoopback && viaOtherLoopback && viaAny);
        expectRefusal(viaLoopback->loginAdmin("Loop", "G", own),
                      AnswerMessage::cantConnectToClientServer);
        Client boss = connect(own);
        ASSERT_TRUE(isOk(boss.client->loginAdmin("Boss", "G", boss.clientServer->port())));
        expectRefusal(viaOtherLoopback->loginPlayer("Loop", own),
                      AnswerMessage::cantConnectToClientServer);
        expectRefusal(viaAny->loginPlayer("Loop", own), AnswerMessage::cantConnectToClientServer);
        // Each refusal kept its count: with the administrator and one player in, all five are
        // taken.
        Client bea = connect(own);
        ASSERT_TRUE(isOk(bea.client->loginPlayer("Bea", bea.clientServer->port())));
        expectRefusal(viaLoopback->loginPlayer("Cy", bea.clientServer->port()),
                      AnswerMessage::limitExceeded);

        ASSERT_TRUE(isOk(boss.client->initNewDeal("Only deal")));
        ASSERT_TRUE(isOk(bea.client->play()));
        for (const Client* c : {&boss, &bea}) {
            ASSERT_TRUE(c->clientServer->waitFor([](const std::vector<Request>& received) {
                return !received.empty() && received.back().request == RequestCode::play;
            }));
            EXPECT_EQ(dealsReceived(*c->clientServer), 1);
        }
        if (byLogout) {
            ASSERT_TRUE(isOk(boss.client->logout()));
        } else {
            server->signal(SIGTERM);
        }
        ASSERT_EQ(server->waitForExit(std::chrono::seconds(10)), std::optional<int>(0));
        EXPECT_EQ(dealsReceived(*bea.clientServer), 1);
        auto deals = storedRows(databasePath(), "SELECT name FROM Deal");
        ASSERT_TRUE(deals);
        EXPECT_EQ(deals->size(), byLogout ? 1u : 2u);
        if (byLogout) {
            server = ServerProcess::start(home.path().string());
            ASSERT_TRUE(server);
        }
    }
}

TEST_F(LifecycleEndToEndTest, SecondServerOnTheSameFolderStopsAndChangesNothing) {
    Client boss = connect(server->port());
    ASSERT_TRUE(isOk(boss.client->loginAdmin("Boss", "G", boss.clientServer->port())));
    Client bea = connect(server->port());
    ASSERT_TRUE(isOk(bea.client->loginPlayer("Bea", bea.clientServer->port())));
    const auto known = [&] {
        auto rows = storedRows(databasePath(), "SELECT name FROM PlayerInfo");
        return rows ? rows->size() : 0u;
    };
    ASSERT_TRUE(testkit::waitUntil([&] { return known() == 2; }));

    std::string output;
    const auto status = ServerProcess::runToExit(
        home.path().string(), {"--headless", "--port", "0"}, &output, std::chrono::seconds(10));
    ASSERT_EQ(status, std::optional<int>(1)) << output;
    EXPECT_NE(output.find("Another Pointlane (process " + std::to_string(server->pid()) + ")"),
              std::string::npos)
        << output;
    EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 1) << output;
    EXPECT_EQ(testkit::fileText(home.file("run.err")), "");  // not even the database was opened

    // The first server goes on as if nothing happened, and still owns its records.
    EXPECT_EQ(known(), 2u);
    ASSERT_TRUE(isOk(bea.client->initNewDeal("After the intruder")));
    ASSERT_TRUE(isOk(boss.client->logout()));
    ASSERT_EQ(server->waitForExit(std::chrono::seconds(10)), std::optional<int>(0));
    auto deals = storedRows(databasePath(), "SELECT name FROM Deal");
    ASSERT_TRUE(deals);
    EXPECT_EQ(deals->size(), 1u);
    // Once it has ended, the folder is free again.
    server = ServerProcess::start(home.path().string());
    ASSERT_TRUE(server);
}

TEST(StartUpTest, PortThatCantBeBoundEndsTheHeadlessRunWithStatusOne) {
    TempDir home;
    auto holder = ClientServer::start();  // listens on the port the server is asked for
    ASSERT_TRUE(holder);
    std::string output;
    const auto status = ServerProcess::runToExit(
        home.path().string(), {"--headless", "--port", std::to_string(holder->port())}, &output,
        std::chrono::seconds(10));
    ASSERT_EQ(status, std::optional<int>(1)) << output;
    const auto bind = output.find("Can't bind server socket to port\n");
    ASSERT_NE(bind, std::string::npos) << output;
    EXPECT_NE(output.find("Pointlane can't listen on port " + std::to_string(holder->port()), bind),
              std::string::npos)
        << output;
    // Nothing was advertised: publishing was never tried.
    const std::string diagnostics = testkit::fileText(home.file("run.err"));
    EXPECT_EQ(diagnostics.find("Listening on port"), std::string::npos) << diagnostics;
    EXPECT_EQ((output + diagnostics).find("DNS-SD"), std::string::npos) << output << diagnostics;
}

}  // namespace
}  // namespace pointlane
