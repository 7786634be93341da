#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "InProcessServer.h"
#include "game/LoginCounter.h"
#include "game/PlayerStore.h"
#include "storage/SQLite.h"

namespace pointlane {
namespace {

using testkit::connectPlayer;
using testkit::InProcessServer;
using testkit::TestPlayer;

// Runs body(0) .. body(n - 1) on n threads at once and waits for them all.
void together(int n, const std::function<void(int)>& body) {
    std::vector<std::thread> threads;
    for (int i = 0; i < n; ++i) {
        threads.emplace_back(body, i);
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

class GameConcurrencyTest : public ::testing::Test {
  protected:
    void SetUp() override {
        server = InProcessServer::start();
        ASSERT_TRUE(server);
    }
    void TearDown() override { server.reset(); }
    TestPlayer admin() {
        TestPlayer boss = connectPlayer(*server);
        EXPECT_EQ(boss.client->loginAdmin("Admin", "G", boss.clientServer->port())->code, 0);
        return boss;
    }
    std::shared_ptr<InProcessServer> server;
};

TEST_F(GameConcurrencyTest, SimultaneousAdministratorLoginsAdmitExactlyOne) {
    constexpr int kClients = 5;
    std::vector<TestPlayer> players;
    for (int i = 0; i < kClients; ++i) {
        players.push_back(connectPlayer(*server));
    }
    std::atomic<int> admitted{0};
    std::atomic<int> refused{0};
    together(kClients, [&](int i) {
        auto answer = players[i].client->loginAdmin("Admin" + std::to_string(i), "G",
                                                    players[i].clientServer->port());
        if (answer && answer->code == 0) {
            ++admitted;
        } else if (answer && answer->message == AnswerMessage::adminAlreadyLoggenIn) {
            ++refused;
        }
    });
    EXPECT_EQ(admitted.load(), 1);
    EXPECT_EQ(refused.load(), kClients - 1);
    EXPECT_EQ(PlayerStore::shared().count(), 1u);
    EXPECT_EQ(InProcessServer::loginCount(), kClients);
}

TEST_F(GameConcurrencyTest, SameNameLoggingInTwiceAtOnceIsAdmittedOnce) {
    TestPlayer boss = admin();
    for (int round = 0; round < 10; ++round) {
        std::vector<TestPlayer> twins;
        twins.push_back(connectPlayer(*server));
        twins.push_back(connectPlayer(*server));
        std::atomic<int> admitted{0};
        std::string refusals[2];
        together(2, [&](int i) {
            auto answer = twins[i].client->loginPlayer(i == 0 ? "Twin" : "TWIN",
                                                       twins[i].clientServer->port());
            if (answer && answer->code == 0) {
                ++admitted;
            } else {
                refusals[i] = answer ? std::string(toString(answer->message)) : "no answer";
            }
        });
        ASSERT_EQ(admitted.load(), 1)
            << "round " << round << ": " << refusals[0] << ", " << refusals[1];
        for (auto& twin : twins) {
            if (twin.client->token()) {
                ASSERT_EQ(twin.client->logout()->code, 0);
            }
        }
        // A logout is answered before its player leaves the registry: the next round starts
        // once the name is free again.
        ASSERT_TRUE(testkit::waitUntil([] { return PlayerStore::shared().count() == 1u; }))
            << "round " << round;
        // The refused twin's count stays taken; give it back for the next round.
        PokerThread::counter.giveBack();
    }
}

TEST_F(GameConcurrencyTest, PlayersPlayingAtOnceEachGetEveryNotificationWhole) {
    constexpr int kPlayers = 5;
    constexpr int kPlays = 40;
    std::vector<TestPlayer> players;
    players.push_back(connectPlayer(*server));
    ASSERT_EQ(players[0].client->loginAdmin("Admin", "G", players[0].clientServer->port())->code,
              0);
    for (int i = 1; i < kPlayers; ++i) {
        players.push_back(connectPlayer(*server));
        ASSERT_EQ(players[i]
                      .client->loginPlayer("P" + std::to_string(i), players[i].clientServer->port())
                      ->code,
                  0);
    }
    std::atomic<int> answered{0};
    together(kPlayers, [&](int i) {
        for (int n = 0; n < kPlays; ++n) {
            auto answer = n % 2 == 0 ? players[i].client->play()
                                     : players[i].client->cardElected("P", std::to_string(n));
            if (answer && answer->code == 0) {
                ++answered;
            }
        }
    });
    EXPECT_EQ(answered.load(), kPlayers * kPlays);
    // Only the game's notifications are counted: a joiner's arrival is pushed after its login
    // answer, so a player who joined just after it may or may not get it too.
    const auto plays = [](const std::vector<Request>& received) {
        return std::count_if(received.begin(), received.end(), [](const Request& n) {
            return n.request == RequestCode::play || n.request == RequestCode::cardElected;
        });
    };
    for (int i = 0; i < kPlayers; ++i) {
        ASSERT_TRUE(players[i].clientServer->waitFor([&](const std::vector<Request>& received) {
            return plays(received) >= kPlayers * kPlays;
        }));
        const auto received = players[i].clientServer->notifications();
        EXPECT_EQ(plays(received), kPlayers * kPlays);
        EXPECT_EQ(players[i].clientServer->undecodable(), 0);
        for (const auto& notification : received) {
            EXPECT_EQ(notification.token, players[i].client->token());
        }
    }
}

TEST_F(GameConcurrencyTest, LoginsAndLogoutsChurningKeepTheCountRight) {
    TestPlayer boss = admin();
    constexpr int kThreads = 6;
    constexpr int kRounds = 15;
    std::atomic<int> admitted{0};
    std::atomic<int> limited{0};
    together(kThreads, [&](int t) {
        TestPlayer player = connectPlayer(*server);
        for (int round = 0; round < kRounds; ++round) {
            auto answer =
                player.client->loginPlayer("T" + std::to_string(t), player.clientServer->port());
            if (answer && answer->code == 0) {
                ++admitted;
                auto out = player.client->logout();
                EXPECT_TRUE(out && out->code == 0);
            } else if (answer && answer->message == AnswerMessage::limitExceeded) {
                ++limited;
            } else {
                ADD_FAILURE() << "unexpected answer";
            }
        }
    });
    EXPECT_EQ(admitted.load() + limited.load(), kThreads * kRounds);
    EXPECT_GT(admitted.load(), 0);
    EXPECT_EQ(InProcessServer::loginCount(), 1);
    EXPECT_EQ(PlayerStore::shared().count(), 1u);
}

TEST_F(GameConcurrencyTest, GameEndNeverClosesTheDatabaseUnderARunningWrite) {
    TestPlayer boss = admin();
    // Requests still in flight keep handing writes to the database queue: a chain of blocks,
    // each submitting the next, so one is always queued behind what the game's end waits for.
    auto closedUnderWrite = std::make_shared<std::atomic<bool>>(false);
    auto chain = std::make_shared<std::function<void()>>();
    *chain = [chain, closedUnderWrite] {
        if (!sqlm().isOpen()) {
            return;
        }
        testkit::waitUntil([] { return !sqlm().isOpen(); }, std::chrono::milliseconds(20));
        if (!sqlm().isOpen()) {
            closedUnderWrite->store(true);
            return;
        }
        sqlm().async(*chain);
    };
    sqlm().async(*chain);

    ASSERT_EQ(boss.client->logout()->code, 0);
    ASSERT_TRUE(testkit::waitUntil([&] { return server->mainQueue().pending() == 1u; }));
    EXPECT_TRUE(server->mainQueue().runUntil([&] { return server->endStatus().has_value(); },
                                             std::chrono::seconds(3)));
    EXPECT_FALSE(sqlm().isOpen());
    sqlm().drain();
    EXPECT_FALSE(closedUnderWrite->load());
    *chain = nullptr;  // the block held itself
}

// Takes and give-backs from several threads: the count never passes the limit and ends where
// it started.
TEST(LoginCounterConcurrencyTest, ContendedCountsAreNeitherLostNorExceeded) {
    LoginCounter counter;
    std::atomic<int> over{0};
    together(4, [&](int) {
        for (int i = 0; i < 200000; ++i) {
            if (counter.take()) {
                over += counter.value() > LoginCounter::counterLimit ? 1 : 0;
                counter.giveBack();
            }
        }
    });
    EXPECT_EQ(counter.value(), 0);
    EXPECT_EQ(over.load(), 0);
}

}  // namespace
}  // namespace pointlane
