#include "game/GameHandlers.h"

#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <string>
#include <vector>

#include "InProcessServer.h"
#include "game/GameEvents.h"
#include "game/GameState.h"
#include "game/PlayerStore.h"
#include "game/RequestGate.h"
#include "storage/Deal.h"
#include "storage/Election.h"
#include "storage/Game.h"
#include "storage/PlayerInfo.h"
#include "storage/SQLite.h"
#include "transport/Frame.h"

namespace pointlane {
namespace {

using testkit::connectPlayer;
using testkit::InProcessServer;
using testkit::TestPlayer;

Bytes bytes(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

// A loopback port where nothing listens.
int closedPort() {
    auto server = ClientServer::start();
    const int port = server->port();
    server->stop();
    return port;
}

void expectRefusal(const std::optional<Answer>& answer, AnswerMessage message,
                   const std::string& token = "") {
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->code, -1);
    EXPECT_EQ(answer->message, message) << toString(answer->message);
    EXPECT_EQ(answer->token, token);
    EXPECT_FALSE(answer->info);
    EXPECT_FALSE(answer->data);
}

class GameHandlersTest : public ::testing::Test {
  protected:
    void SetUp() override {
        server = InProcessServer::start();
        ASSERT_TRUE(server);
    }
    void TearDown() override { server.reset(); }

    TestPlayer admin() {
        TestPlayer player = connectPlayer(*server);
        auto answer = player.client->loginAdmin("Admin", "Sprint", player.clientServer->port());
        EXPECT_TRUE(answer && answer->code == 0);
        return player;
    }

    std::shared_ptr<InProcessServer> server;
};

TEST_F(GameHandlersTest, LoginsWithoutAnAdministratorAreRefusedInCheckOrderAndKeepTheCount) {
    auto client = server->client();
    const int port = closedPort();
    expectRefusal(client->loginPlayer("P1", port), AnswerMessage::adminNotLoggedIn);
    // Without an administrator, even unreadable data is refused for that first.
    expectRefusal(client->send(RequestCode::loginPlayer, bytes("[]")),
                  AnswerMessage::adminNotLoggedIn);
    // The administrator's data (a port given as text, a port out of range) is read before the
    // connection back is tried.
    expectRefusal(
        client->send(RequestCode::loginAdmin, bytes(R"({"player_name":"A","game_name":"G",)"
                                                    R"("client_server_port":"5000"})")),
        AnswerMessage::invalidData);
    expectRefusal(client->loginAdmin("A", "G", 65536), AnswerMessage::invalidData);
    expectRefusal(client->loginAdmin("A", "G", port), AnswerMessage::cantConnectToClientServer);
    EXPECT_EQ(PlayerStore::shared().count(), 0u);
    // Five refusals after the limit check used up every count: now even the administrator is
    // refused by the limit alone.
    EXPECT_EQ(InProcessServer::loginCount(), 5);
    expectRefusal(client->loginAdmin("Admin", "Game", port), AnswerMessage::limitExceeded);
    expectRefusal(client->loginPlayer("P", port), AnswerMessage::limitExceeded);
    EXPECT_EQ(InProcessServer::loginCount(), 5);
}

TEST_F(GameHandlersTest, PlayerLoginRefusalsComeInCheckOrder) {
    TestPlayer boss = admin();
    auto client = server->client();
    // A second administrator is refused before its (unreadable) data is looked at.
    expectRefusal(client->send(RequestCode::loginAdmin, bytes("[]")),
                  AnswerMessage::adminAlreadyLoggenIn);
    // Unreadable data is found before the name is compared.
    expectRefusal(client->send(RequestCode::loginPlayer, bytes(R"({"player_name":"admin"})")),
                  AnswerMessage::invalidData);
    // The name is compared before the connection back is tried.
    expectRefusal(client->loginPlayer("ADMIN", closedPort()), AnswerMessage::userNameAlreadyInUse);
    EXPECT_EQ(InProcessServer::loginCount(), 4);

    TestPlayer bea = connectPlayer(*server);
    auto answer = bea.client->loginPlayer("Bea", bea.clientServer->port());
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->code, 0);
    EXPECT_EQ(answer->info, std::optional<std::string>("Sprint"));
    expectRefusal(client->loginPlayer("Cy", closedPort()), AnswerMessage::limitExceeded);
    // The administrator's first notification is Bea's arrival: its own login pushed nothing,
    // and refused logins push nothing either.
    ASSERT_TRUE(boss.clientServer->waitForCount(1));
    EXPECT_EQ(boss.clientServer->notifications()[0].request, RequestCode::playerAdded);
}

TEST_F(GameHandlersTest, LoginAnswerLargerThanAnyRequestIsStillSent) {
    // Two long names: each login request fits the incoming frame limit, the list of both in
    // the second answer doesn't.
    const std::string longName(600 * 1024, 'a');
    TestPlayer boss = connectPlayer(*server);
    ASSERT_EQ(boss.client->loginAdmin(longName, "G", boss.clientServer->port())->code, 0);
    TestPlayer bea = connectPlayer(*server);
    Request login;
    login.request = RequestCode::loginPlayer;
    login.data = PokerClient::loginData(longName + "b", std::nullopt, bea.clientServer->port());
    ASSERT_TRUE(bea.client->connection().send(login));
    Socket& socket = bea.client->connection().socket();
    const auto header = socket.readData(4);
    ASSERT_TRUE(header && header->size() == 4u) << "no answer";
    const std::int32_t length = asInt32(*header);
    ASSERT_GT(length, kMaxReceivedBodyLength);
    const auto body = socket.readData(length);
    ASSERT_TRUE(body);
    const auto answer = Answer::fromJson(*body);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->code, 0);
    EXPECT_EQ(answer->data->size(), 2 * longName.size() + 8);  // ["…","…b"]
}

TEST_F(GameHandlersTest, DealAndCardRequestsCheckTokenThenData) {
    TestPlayer boss = admin();
    const std::string token = *boss.client->token();
    auto stranger = server->client();
    stranger->setToken(std::string(32, 'a'));
    for (auto code : {RequestCode::initNewDeal, RequestCode::play, RequestCode::openCards,
                      RequestCode::cardElected}) {
        expectRefusal(stranger->send(code, bytes(R"({"title":"x"})")), AnswerMessage::invalidToken);
    }
    stranger->setToken(std::nullopt);
    expectRefusal(stranger->play(), AnswerMessage::invalidToken);

    expectRefusal(boss.client->initNewDeal(bytes(R"({"title":7})")), AnswerMessage::invalidData,
                  token);
    expectRefusal(boss.client->initNewDeal(std::nullopt), AnswerMessage::invalidData, token);
    expectRefusal(boss.client->send(RequestCode::cardElected, bytes(R"({"player_name":"A"})")),
                  AnswerMessage::invalidData, token);
    expectRefusal(boss.client->send(RequestCode::cardElected, bytes("not json")),
                  AnswerMessage::invalidData, token);
    // A payload nested past the fixed depth is refused before it is built; one more byte than
    // the value is no payload either.
    expectRefusal(boss.client->initNewDeal(bytes(R"({"title":"t","x":)" + std::string(64, '[') +
                                                 std::string(64, ']') + "}")),
                  AnswerMessage::invalidData, token);
    expectRefusal(boss.client->initNewDeal(bytes(R"({"title":"t"})" + std::string(1, '\0'))),
                  AnswerMessage::invalidData, token);
    // Refused requests relay nothing.
    EXPECT_TRUE(boss.clientServer->notifications().empty());
}

TEST_F(GameHandlersTest, RecordsFollowTheGameAndTheCurrentDeal) {
    TestPlayer boss = admin();
    // An election before any deal is answered and relayed but not stored.
    ASSERT_EQ(boss.client->cardElected("Admin", "3")->code, 0);
    ASSERT_EQ(boss.client->initNewDeal("  Login page \n")->code, 0);
    ASSERT_EQ(boss.client->cardElected(" Admin ", " 5 ")->code, 0);
    ASSERT_EQ(boss.client->initNewDeal("   ")->code, 0);  // stores nothing
    ASSERT_EQ(boss.client->cardElected("Bea", "8")->code, 0);
    ASSERT_TRUE(boss.clientServer->waitForCount(5));
    sqlm().drain();

    const auto games = Game::games();
    ASSERT_TRUE(games && games->size() == 1u);
    EXPECT_EQ(GameState::currentGameID(), (*games)[0]->id);
    const auto deals = Deal::dealsFor((*games)[0]->id);
    ASSERT_TRUE(deals && deals->size() == 1u);
    EXPECT_EQ((*deals)[0]->name, "Login page");
    EXPECT_EQ(GameState::currentDealID(), (*deals)[0]->id);
    const auto elections = Election::electionsFor((*deals)[0]->id);
    ASSERT_TRUE(elections && elections->size() == 2u);  // newest first
    EXPECT_EQ((*elections)[0]->playerName + (*elections)[0]->symbol, "Bea8");
    EXPECT_EQ((*elections)[1]->playerName + (*elections)[1]->symbol, "Admin5");
}

TEST_F(GameHandlersTest, RecordsQueuedBeforeTheAdministratorsLogoutKeepTheirGame) {
    TestPlayer boss = admin();
    // Hold the database queue so that the deal is still waiting when the game ends.
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    sqlm().async([released] { released.wait(); });
    ASSERT_EQ(boss.client->initNewDeal("Queued deal")->code, 0);
    ASSERT_EQ(boss.client->cardElected("Admin", "8")->code, 0);
    ASSERT_EQ(boss.client->logout()->code, 0);
    ASSERT_TRUE(testkit::waitUntil([&] { return server->mainQueue().pending() == 1u; }));
    release.set_value();
    sqlm().drain();

    const auto games = Game::games();
    ASSERT_TRUE(games);
    const auto deals = Deal::dealsFor((*games)[0]->id);
    ASSERT_TRUE(deals);
    EXPECT_EQ((*deals)[0]->name, "Queued deal");
    EXPECT_TRUE(Election::electionsFor((*deals)[0]->id));
    EXPECT_FALSE(GameState::currentGameID());
}

// Once the quit closed the gate, a request read gets no handler and no answer.
TEST_F(GameHandlersTest, ARequestReadAfterTheGateClosedIsDroppedUnanswered) {
    auto client = server->client();
    ASSERT_TRUE(RequestGate::shared().close(std::chrono::milliseconds(100)));
    EXPECT_FALSE(client->loginAdmin("Admin", "G", closedPort()));
    EXPECT_EQ(InProcessServer::loginCount(), 0);
}

// The game's events come one at a time in the order of the notifications, and only for
// requests that were carried out.
TEST_F(GameHandlersTest, GameEventsComeInNotificationOrder) {
    std::mutex mutex;
    std::vector<std::string> log;            // guarded by mutex
    std::optional<std::int64_t> storedDeal;  // guarded by mutex
    const auto record = [&](const std::string& line) {
        std::lock_guard lock(mutex);
        log.push_back(line);
    };
    using Name = const std::string&;
    GameEvents events;
    events.gameOpened = [&](Name facilitator, Name game) {
        record(facilitator + " opens " + game);
    };
    events.playerJoined = [&](Name name) { record(name + " joins"); };
    events.playerLeft = [&](Name name) { record(name + " leaves"); };
    events.itemPut = [&](Name title) { record("item " + title); };
    events.played = [&](Name name) { record(name + " plays"); };
    events.cardsOpened = [&] { record("cards open"); };
    events.cardElected = [&](Name name, Name card) { record(name + " elects " + card); };
    events.dealStored = [&](Name, std::int64_t dealId) {
        std::lock_guard lock(mutex);
        storedDeal = dealId;
    };
    GameEvents::install(std::move(events));
    struct Uninstall {
        ~Uninstall() { GameEvents::install({}); }
    } uninstall;

    TestPlayer boss = admin();
    TestPlayer bea = connectPlayer(*server);
    ASSERT_EQ(bea.client->loginPlayer("Bea", bea.clientServer->port())->code, 0);
    expectRefusal(server->client()->send(RequestCode::play), AnswerMessage::invalidToken);
    expectRefusal(bea.client->send(RequestCode::initNewDeal, bytes("{}")),
                  AnswerMessage::invalidData, *bea.client->token());
    ASSERT_EQ(bea.client->initNewDeal(" Login page ")->code, 0);
    ASSERT_EQ(bea.client->play()->code, 0);
    ASSERT_EQ(boss.client->openCards()->code, 0);
    ASSERT_EQ(boss.client->cardElected("Bea", "5")->code, 0);
    ASSERT_EQ(bea.client->logout()->code, 0);
    // Bea's leaving went out (and so did its event) before the administrator leaves.
    ASSERT_TRUE(boss.clientServer->waitFor([](const std::vector<Request>& received) {
        return !received.empty() && received.back().request == RequestCode::playerRemoved;
    }));
    sqlm().drain();
    const auto deals = Deal::dealsFor(*GameState::currentGameID());
    ASSERT_TRUE(deals);
    ASSERT_EQ(boss.client->logout()->code, 0);
    ASSERT_TRUE(testkit::waitUntil([&] {
        std::lock_guard lock(mutex);
        return log.size() == 8u;
    }));
    std::lock_guard lock(mutex);
    EXPECT_EQ(storedDeal, (*deals)[0]->id);
    EXPECT_EQ(log, (std::vector<std::string>{"Admin opens Sprint", "Bea joins", "item  Login page ",
                                             "Bea plays", "cards open", "Bea elects 5",
                                             "Bea leaves", "Admin leaves"}));
}

}  // namespace
}  // namespace pointlane
