#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <thread>
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

using Clock = std::chrono::steady_clock;

long long millis(Clock::duration d) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(d).count();
}

// Polish letters used below, spelled out as UTF-8.
const std::string kL = "\xC5\x81";       // Ł
const std::string kl = "\xC5\x82";       // ł
const std::string kz = "\xC5\xBC";       // ż
const std::string kzAcute = "\xC5\xBA";  // ź

std::string text(const std::optional<Bytes>& bytes) {
    return bytes ? std::string(bytes->begin(), bytes->end()) : std::string("<none>");
}

Bytes bytes(const std::string& value) {
    return Bytes(value.begin(), value.end());
}

std::set<std::string> names(const std::optional<Bytes>& json) {
    std::set<std::string> result;
    if (json) {
        for (const auto& item : nlohmann::json::parse(json->begin(), json->end())) {
            result.insert(item.get<std::string>());
        }
    }
    return result;
}

// A player's client: its connection to the server and its own client server.
struct Player {
    std::string name;
    std::unique_ptr<ClientServer> clientServer;
    std::unique_ptr<PokerClient> client;

    std::string token() const { return client->token().value_or(""); }
    // Waits for a notification with the code (and, when given, the exact data) addressed to
    // this player's own token.
    bool waitFor(RequestCode code, std::optional<std::string> data = std::nullopt) const {
        const std::string own = token();
        return clientServer->waitFor([&](const std::vector<Request>& received) {
            for (const auto& notification : received) {
                if (notification.request == code && notification.token == own &&
                    (!data || text(notification.data) == *data)) {
                    return true;
                }
            }
            return false;
        });
    }
};

class GameEndToEndTest : public ServerFixture {
  protected:
    Player connect(const std::string& name, ClientServer::Options options = {}) {
        Player player;
        player.name = name;
        player.clientServer = ClientServer::start(options);
        player.client = PokerClient::connect(server->port());
        EXPECT_TRUE(player.clientServer && player.client);
        return player;
    }
    Player admin(const std::string& name, const std::string& game) {
        Player player = connect(name);
        auto answer = player.client->loginAdmin(name, game, player.clientServer->port());
        EXPECT_TRUE(answer && answer->code == 0) << (answer ? answer->description() : "none");
        return player;
    }
    Player join(const std::string& name, ClientServer::Options options = {}) {
        Player player = connect(name, options);
        auto answer = player.client->loginPlayer(name, player.clientServer->port());
        EXPECT_TRUE(answer && answer->code == 0) << (answer ? answer->description() : "none");
        return player;
    }
    int unreachablePort() {
        auto closed = ClientServer::start();
        const int port = closed->port();
        closed->stop();
        return port;
    }
};

TEST_F(GameEndToEndTest, WholeGameIsRelayedToEveryPlayerStoredAndEndedByTheAdministrator) {
    EXPECT_NE(server->diagnostics().find("Database created (" + databasePath() + ")"),
              std::string::npos)
        << server->diagnostics();

    const std::string game = "  Sprint " + kL + "ódź \n";
    Player boss = connect("Admin");
    auto adminAnswer = boss.client->loginAdmin("Admin", game, boss.clientServer->port());
    ASSERT_TRUE(adminAnswer);
    EXPECT_EQ(adminAnswer->code, 0);
    EXPECT_EQ(adminAnswer->message, AnswerMessage::OK);
    EXPECT_EQ(adminAnswer->token.size(), 32u);
    EXPECT_EQ(adminAnswer->info, std::optional<std::string>(game));  // as sent, untrimmed
    EXPECT_EQ(names(adminAnswer->data), std::set<std::string>{"Admin"});

    // Each arrival reaches everybody registered, the newcomer included.
    Player lucja = connect(kL + "ucja");
    auto lucjaAnswer = lucja.client->loginPlayer(lucja.name, lucja.clientServer->port());
    ASSERT_TRUE(lucjaAnswer && lucjaAnswer->code == 0);
    EXPECT_EQ(lucjaAnswer->info, std::optional<std::string>(game));
    EXPECT_EQ(names(lucjaAnswer->data), (std::set<std::string>{"Admin", lucja.name}));
    Player bob = join("Bob");
    Player cy = join("Cy");
    const std::string lucjaAdded = R"({"player_name":")" + lucja.name + "\"}";
    for (const Player* p : {&boss, &lucja}) {
        EXPECT_TRUE(p->waitFor(RequestCode::playerAdded, lucjaAdded)) << p->name;
    }
    for (const Player* p : {&boss, &lucja, &bob, &cy}) {
        EXPECT_TRUE(p->waitFor(RequestCode::playerAdded, R"({"player_name":"Cy"})")) << p->name;
    }
    ASSERT_TRUE(boss.clientServer->waitForCount(3));

    // Same name in another case: refused, and the count stays taken (five in all now).
    auto twin = connect("twin");
    expectRefusal(twin.client->loginPlayer(kl + "UCJA", twin.clientServer->port()),
                  AnswerMessage::userNameAlreadyInUse);
    expectRefusal(twin.client->loginPlayer("Dee", twin.clientServer->port()),
                  AnswerMessage::limitExceeded);

    // Bob leaves: the others hear of it, Bob hears nothing more and loses his push connection.
    auto bobOut = bob.client->logout();
    ASSERT_TRUE(bobOut);
    EXPECT_EQ(bobOut->code, 0);
    EXPECT_EQ(bobOut->token, bob.token());
    for (const Player* p : {&boss, &lucja, &cy}) {
        EXPECT_TRUE(p->waitFor(RequestCode::playerRemoved, R"({"player_name":"Bob"})")) << p->name;
    }
    EXPECT_TRUE(bob.clientServer->waitForClosed());
    const std::size_t bobReceived = bob.clientServer->notifications().size();
    auto dee = connect("Dee");
    auto deeAnswer = dee.client->loginPlayer("Dee", dee.clientServer->port());
    ASSERT_TRUE(deeAnswer && deeAnswer->code == 0);
    EXPECT_EQ(names(deeAnswer->data), (std::set<std::string>{"Admin", lucja.name, "Cy", "Dee"}));

    // A deal from a player who is not the administrator; extra keys travel along unchanged.
    const std::string deal = R"({"title":"  Zadanie )" + kz + kzAcute + R"( \n","points":[1,2]})";
    auto dealAnswer = cy.client->initNewDeal(bytes(deal));
    ASSERT_TRUE(dealAnswer);
    EXPECT_EQ(dealAnswer->code, 0);
    EXPECT_EQ(dealAnswer->token, cy.token());
    EXPECT_FALSE(dealAnswer->info);
    EXPECT_FALSE(dealAnswer->data);
    ASSERT_EQ(lucja.client->play()->code, 0);
    ASSERT_EQ(dee.client->openCards()->code, 0);
    const std::string election = R"({"player_name":")" + lucja.name + R"(","symbol":" 13 "})";
    ASSERT_EQ(boss.client->send(RequestCode::cardElected, bytes(election))->code, 0);

    for (const Player* p : {&boss, &lucja, &cy, &dee}) {
        EXPECT_TRUE(p->waitFor(RequestCode::initNewDeal, deal)) << p->name;
        EXPECT_TRUE(p->waitFor(RequestCode::play)) << p->name;
        EXPECT_TRUE(p->waitFor(RequestCode::openCards)) << p->name;
        EXPECT_TRUE(p->waitFor(RequestCode::cardElected, election)) << p->name;
        const auto received = p->clientServer->notifications();
        // The four events arrive in the order the requests were answered.
        std::vector<RequestCode> events;
        for (const auto& n : received) {
            if (n.request != RequestCode::playerAdded && n.request != RequestCode::playerRemoved) {
                events.push_back(n.request);
                if (n.request == RequestCode::play || n.request == RequestCode::openCards) {
                    EXPECT_FALSE(n.data);
                }
            }
            EXPECT_EQ(n.token, p->client->token());
            EXPECT_FALSE(n.query);
        }
        EXPECT_EQ(events,
                  (std::vector<RequestCode>{RequestCode::initNewDeal, RequestCode::play,
                                            RequestCode::openCards, RequestCode::cardElected}));
        EXPECT_EQ(p->clientServer->undecodable(), 0);
    }
    EXPECT_EQ(bob.clientServer->notifications().size(), bobReceived);

    // The administrator leaves: its answer first, the others hear of it and lose their push
    // connections, and about a second later the process ends with status 0.
    auto bossOut = boss.client->logout();
    const auto loggedOut = Clock::now();
    ASSERT_TRUE(bossOut);
    EXPECT_EQ(bossOut->code, 0);
    for (const Player* p : {&lucja, &cy, &dee}) {
        EXPECT_TRUE(p->waitFor(RequestCode::playerRemoved, R"({"player_name":"Admin"})"))
            << p->name;
        EXPECT_TRUE(p->clientServer->waitForClosed()) << p->name;
    }
    EXPECT_TRUE(boss.clientServer->waitForClosed());
    const auto status = server->waitForExit(std::chrono::seconds(10));
    const auto lasted = Clock::now() - loggedOut;
    ASSERT_TRUE(status);
    EXPECT_EQ(*status, 0);
    EXPECT_GE(lasted, std::chrono::milliseconds(900));
    EXPECT_LE(lasted, std::chrono::seconds(5));

    // Stored: trimmed texts with Polish letters in their stored form.
    auto games = storedRows(databasePath(), "SELECT * FROM Game");
    ASSERT_TRUE(games);
    ASSERT_EQ(games->size(), 1u);
    EXPECT_EQ((*games)[0]["name"], "Sprint L~o~dx~");
    EXPECT_EQ((*games)[0]["admin"], "Admin");
    EXPECT_EQ((*games)[0]["date"].size(), 19u);
    auto deals = storedRows(databasePath(), "SELECT * FROM Deal");
    ASSERT_TRUE(deals);
    ASSERT_EQ(deals->size(), 1u) << server->output();
    EXPECT_EQ((*deals)[0]["name"], "Zadanie z~x~");
    EXPECT_EQ((*deals)[0]["gameId"], (*games)[0]["id"]);
    auto elections = storedRows(databasePath(), "SELECT * FROM Election");
    ASSERT_TRUE(elections);
    ASSERT_EQ(elections->size(), 1u);
    EXPECT_EQ((*elections)[0]["playerName"], "L~ucja");
    EXPECT_EQ((*elections)[0]["symbol"], "13");
    EXPECT_EQ((*elections)[0]["dealId"], (*deals)[0]["id"]);
    // Known players: those who logged out are gone, those still in at the end remain.
    auto known = storedRows(databasePath(), "SELECT name, address FROM PlayerInfo");
    ASSERT_TRUE(known);
    std::set<std::string> knownNames;
    for (auto& row : *known) {
        knownNames.insert(row["name"]);
        EXPECT_EQ(row["address"], "127.0.0.1");
    }
    EXPECT_EQ(knownNames, (std::set<std::string>{"L~ucja", "Cy", "Dee"}));
}

TEST_F(GameEndToEndTest, RefusalsComeInCheckOrderAndUseUpTheLimitUntilALogout) {
    Player early = connect("Early");
    // No administrator yet: said before anything about the data (a port given as text).
    expectRefusal(early.client->send(RequestCode::loginPlayer,
                                     bytes(R"({"player_name":"Early","client_server_port":"1"})")),
                  AnswerMessage::adminNotLoggedIn);
    Player boss = admin("Admin", "G");
    expectRefusal(boss.client->loginAdmin("Other", "G", boss.clientServer->port()),
                  AnswerMessage::adminAlreadyLoggenIn);
    Player bea = join("Bea");
    auto other = connect("x");
    expectRefusal(other.client->send(RequestCode::loginPlayer,
                                     bytes(R"({"player_name":"Cy","client_server_port":65536})")),
                  AnswerMessage::invalidData);  // one past the last port
    // Five counts are taken: two logins and three refusals after the limit check.
    expectRefusal(other.client->loginPlayer("Cy", unreachablePort()), AnswerMessage::limitExceeded);
    expectRefusal(other.client->loginAdmin("Admin2", "G", other.clientServer->port()),
                  AnswerMessage::limitExceeded);

    ASSERT_EQ(bea.client->logout()->code, 0);
    expectRefusal(bea.client->logout(), AnswerMessage::invalidToken);
    expectRefusal(other.client->loginPlayer("Cy", unreachablePort()),
                  AnswerMessage::cantConnectToClientServer);
    expectRefusal(other.client->loginPlayer("Dee", other.clientServer->port()),
                  AnswerMessage::limitExceeded);
    EXPECT_TRUE(server->running());
}

TEST_F(GameEndToEndTest, ClientServerThatNeverReadsDoesNotHoldUpTheOthers) {
    Player boss = admin("Admin", "G");
    ClientServer::Options stalling;
    stalling.reads = false;
    stalling.receiveBufferSize = 4096;
    Player staller = join("Staller", stalling);
    Player reader = join("Reader");
    ASSERT_TRUE(testkit::waitUntil([&] { return staller.clientServer->accepted() == 1; }));

    // About twice what the kernel buffers of the stalled connection can hold.
    constexpr int kDeals = 100;
    const std::string title(64 * 1024, 'x');
    const std::string deal = R"({"title":")" + title + "\"}";
    auto slowest = Clock::duration::zero();
    for (int i = 0; i < kDeals; ++i) {
        const auto sent = Clock::now();
        // A request held up for good would run into the client's receive time-out here.
        auto answer = boss.client->initNewDeal(bytes(deal));
        slowest = std::max(slowest, Clock::now() - sent);
        ASSERT_TRUE(answer) << "deal " << i << " was not answered";
        ASSERT_EQ(answer->code, 0);
    }
    // The stalled client costs one bounded wait (the send time-out), not one per notification.
    EXPECT_LT(slowest, std::chrono::seconds(8));
    EXPECT_TRUE(reader.clientServer->waitFor([&](const std::vector<Request>& received) {
        int deals = 0;
        for (const auto& n : received) {
            deals += n.request == RequestCode::initNewDeal ? 1 : 0;
        }
        return deals == kDeals;
    }));
    EXPECT_EQ(reader.clientServer->undecodable(), 0);

    // The stalled player stays registered and its requests are still served.
    auto answer = staller.client->play();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->code, 0);
    EXPECT_TRUE(reader.waitFor(RequestCode::play));
}

TEST_F(GameEndToEndTest, StalledClientServersAreCutAfterTheBoundAndGetWholeFramesOnly) {
    // How long the server lets one notification wait for client servers that stopped reading.
    // That one wait covers all stalled recipients together is timed without other traffic in
    // FrameTest; here the point is that the whole server keeps answering through the stalls.
    constexpr auto kBound = std::chrono::seconds(2);
    Player boss = admin("Admin", "G");
    ClientServer::Options stalling;
    stalling.reads = false;
    stalling.receiveBufferSize = 4096;
    Player first = join("Stalled1", stalling);
    Player second = join("Stalled2", stalling);
    Player reader = join("Reader");
    Player asker = join("Asker");
    ASSERT_TRUE(testkit::waitUntil([&] {
        return first.clientServer->accepted() == 1 && second.clientServer->accepted() == 1;
    }));

    // Requests on another connection go on while the stalls happen, a few hundred a second.
    std::atomic<bool> flooding{true};
    auto slowestPlay = Clock::duration::zero();
    int plays = 0;
    std::thread asking([&] {
        while (flooding) {
            const auto sent = Clock::now();
            auto answer = asker.client->play();
            slowestPlay = std::max(slowestPlay, Clock::now() - sent);
            if (!answer || answer->code != 0) {
                ADD_FAILURE() << "play " << plays << " was not answered";
                return;
            }
            ++plays;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    });
    // Deals big enough that a few of them fill what a stalled connection buffers. Each is
    // answered, and the healthy reader gets it before the next one is put up.
    constexpr int kDeals = 8;
    const std::string deal = R"({"title":")" + std::string(512 * 1024, 'x') + "\"}";
    auto slowestDeal = Clock::duration::zero();
    for (int i = 0; i < kDeals; ++i) {
        const auto sent = Clock::now();
        auto answer = boss.client->initNewDeal(bytes(deal));
        slowestDeal = std::max(slowestDeal, Clock::now() - sent);
        ASSERT_TRUE(answer && answer->code == 0) << "deal " << i;
        ASSERT_TRUE(reader.clientServer->waitFor([&](const std::vector<Request>& received) {
            return std::count_if(received.begin(), received.end(), [](const Request& n) {
                       return n.request == RequestCode::initNewDeal;
                   }) == i + 1;
        })) << "deal "
            << i;
    }
    flooding = false;
    asking.join();
    // Each stalled connection costs at most one bound before it is cut, and a request may
    // wait behind the notification that cuts it, so no answer waits more than two bounds plus
    // scheduling. A server that waited a bound per stalled connection per notification, or
    // wrote to a stalled connection again, would hold answers up for several bounds each.
    const auto limit = 3 * kBound;
    EXPECT_LT(slowestDeal, limit) << millis(slowestDeal) << " ms";
    EXPECT_LT(slowestPlay, limit) << millis(slowestPlay) << " ms";
    EXPECT_GT(plays, 0);
    EXPECT_EQ(reader.clientServer->undecodable(), 0);

    // The stalled connections were shut down: read again, they hold whole notifications for
    // their own player, then the end of the stream, at most the last frame cut short by it.
    ::testing::internal::CaptureStdout();  // the cut frame's decoding error
    std::vector<std::size_t> counts;
    for (const Player* stalled : {&first, &second}) {
        stalled->clientServer->resume();
        EXPECT_TRUE(stalled->clientServer->waitForClosed()) << stalled->name;
        const auto received = stalled->clientServer->notifications();
        EXPECT_GE(received.size(), 4u) << stalled->name;
        for (const auto& n : received) {
            EXPECT_EQ(n.token, stalled->client->token()) << stalled->name;
        }
        EXPECT_LE(stalled->clientServer->undecodable(), 1) << stalled->name;
        counts.push_back(received.size());
    }
    ::testing::internal::GetCapturedStdout();
    // Later notifications to them fail at once, and the healthy players get theirs.
    const auto sent = Clock::now();
    ASSERT_EQ(boss.client->initNewDeal("After")->code, 0);
    EXPECT_LT(Clock::now() - sent, kBound) << "a cut connection was waited for again";
    EXPECT_TRUE(reader.waitFor(RequestCode::initNewDeal, R"({"title":"After"})"));
    EXPECT_EQ(first.clientServer->notifications().size(), counts[0]);
    EXPECT_EQ(second.clientServer->notifications().size(), counts[1]);
}

TEST_F(GameEndToEndTest, SigtermFinishesTheStoredWorkAndExitsWithZero) {
    Player boss = admin("Admin", "Quick game");
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(boss.client->initNewDeal("Deal " + std::to_string(i))->code, 0);
    }
    server->signal(SIGTERM);
    const auto status = server->waitForExit(std::chrono::seconds(10));
    ASSERT_TRUE(status);
    EXPECT_EQ(*status, 0);
    auto deals = storedRows(databasePath(), "SELECT name FROM Deal");
    ASSERT_TRUE(deals);
    EXPECT_EQ(deals->size(), 20u);
}

TEST_F(GameEndToEndTest, NextStartOpensTheDatabaseWithGamesKeptAndKnownPlayersWiped) {
    Player boss = admin("Admin", "First");
    Player bea = join("Bea");
    ASSERT_EQ(boss.client->logout()->code, 0);
    ASSERT_EQ(server->waitForExit(std::chrono::seconds(10)), std::optional<int>(0));
    auto before = storedRows(databasePath(), "SELECT name FROM PlayerInfo");
    ASSERT_TRUE(before);
    ASSERT_EQ(before->size(), 1u);  // Bea was still in when the game ended

    server = ServerProcess::start(home.path().string());
    ASSERT_TRUE(server);
    EXPECT_NE(server->diagnostics().find("Database opened (" + databasePath() + ")"),
              std::string::npos)
        << server->diagnostics();
    server->signal(SIGINT);
    ASSERT_EQ(server->waitForExit(std::chrono::seconds(10)), std::optional<int>(0));
    auto after = storedRows(databasePath(), "SELECT name FROM PlayerInfo");
    ASSERT_TRUE(after);
    EXPECT_TRUE(after->empty());
    auto games = storedRows(databasePath(), "SELECT name FROM Game");
    ASSERT_TRUE(games);
    ASSERT_EQ(games->size(), 1u);
    EXPECT_EQ((*games)[0]["name"], "First");
}

TEST(StartUpTest, DirectoryOrFileThatIsNotADatabaseStopsTheServer) {
    for (const bool directory : {true, false}) {
        TempDir home;
        std::filesystem::create_directories(home.path() / ".Pointlane");
        if (directory) {
            std::filesystem::create_directories(home.path() / ".Pointlane" / "Pointlane.sqlite");
        } else {
            std::ofstream(home.file(".Pointlane/Pointlane.sqlite"))
                << "these are not the bytes of a database, not even close to it";
        }
        std::string output;
        const auto status =
            ServerProcess::runToExit(home.path().string(), {"--headless", "--port", "0"}, &output);
        ASSERT_TRUE(status);
        EXPECT_NE(*status, 0);
        EXPECT_NE(output.find("Can't create the database."), std::string::npos) << output;
    }
}

}  // namespace
}  // namespace pointlane
