#include "game/PlayerStore.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <set>
#include <string>

#include "ClientServer.h"
#include "TestKit.h"

namespace pointlane {
namespace {

const std::string kAlphabet = "abcdefghijklmnopqrstuvwxyz%@ABCDEFGHIJKLMNOPQRSTUVWXZY&$0123456789?";

std::shared_ptr<Player> unconnected(const std::string& name, bool isAdmin = false) {
    return std::make_shared<Player>(name, isAdmin, Socket::create(-1));
}

std::shared_ptr<Player> connectedTo(const ClientServer& server, const std::string& name,
                                    bool isAdmin = false) {
    auto player = std::make_shared<Player>(name, isAdmin, Socket::create(-1));
    EXPECT_TRUE(player->connectBack("127.0.0.1", server.port()));
    return player;
}

std::set<std::string> names(const std::optional<Bytes>& json) {
    std::set<std::string> result;
    if (!json) {
        return result;
    }
    auto value = nlohmann::json::parse(json->begin(), json->end());
    for (const auto& item : value) {
        result.insert(item.get<std::string>());
    }
    return result;
}

TEST(PlayerStoreTest, OneAdministratorNamesCollideByCaseAndCanonicalEquivalence) {
    PlayerStore store;
    EXPECT_EQ(store.jsonObject(), std::optional<Bytes>(Bytes{'[', ']'}));
    EXPECT_EQ(store.tryAdd(unconnected("Bea")).refusal,
              PlayerStore::AddRefusal::adminNotRegistered);
    EXPECT_EQ(store.tryAdd(unconnected("Admin", true)).refusal, PlayerStore::AddRefusal::none);
    EXPECT_EQ(store.tryAdd(unconnected("Other", true)).refusal,
              PlayerStore::AddRefusal::adminAlreadyRegistered);
    store.setGameName("Sprint 7");
    for (const char* name : {"\xC5\x81ukasz", "Jos\xC3\xA9", "Rene\xCC\x81"}) {  // Ł, é, e + ´
        EXPECT_EQ(store.tryAdd(unconnected(name)).refusal, PlayerStore::AddRefusal::none);
    }
    const auto again = store.tryAdd(unconnected("ADMIN"));
    EXPECT_EQ(again.refusal, PlayerStore::AddRefusal::nameInUse);
    EXPECT_TRUE(again.token.empty());
    EXPECT_EQ(names(store.jsonObject()),
              (std::set<std::string>{"Admin", "\xC5\x81ukasz", "Jos\xC3\xA9", "Rene\xCC\x81"}));
    // łUKASZ, JOSE + combining acute, ren + precomposed é
    for (const char* taken : {"admin", "\xC5\x82UKASZ", "JOSE\xCC\x81", "ren\xC3\xA9"}) {
        EXPECT_TRUE(store.isNameInUse(taken)) << taken;
    }
    for (const char* free : {" Admin", "Admin ", "Jose", "Lukasz"}) {
        EXPECT_FALSE(store.isNameInUse(free)) << free;
    }

    store.removeAll();
    EXPECT_EQ(store.count(), 0u);
    EXPECT_FALSE(store.existsAdmin());
    EXPECT_EQ(store.gameName(), std::optional<std::string>("Sprint 7"));
}

TEST(PlayerStoreTest, TokensAreUniqueAlphabetTextsAndExact) {
    PlayerStore store;
    std::set<std::string> tokens;
    for (int i = 0; i < 300; ++i) {
        const std::string token = store.add(unconnected("p" + std::to_string(i)));
        ASSERT_EQ(token.size(), 32u);
        EXPECT_EQ(token.find_first_not_of(kAlphabet), std::string::npos) << token;
        tokens.insert(token);
    }
    EXPECT_EQ(tokens.size(), 300u);
    std::string otherCase = *tokens.begin();
    EXPECT_TRUE(store.contains(otherCase));
    for (char& c : otherCase) {
        c = static_cast<char>(std::isupper(c) ? std::tolower(c) : std::toupper(c));
    }
    EXPECT_FALSE(otherCase != *tokens.begin() && store.contains(otherCase));
    EXPECT_FALSE(store.contains(""));
}

TEST(PlayerStoreTest, RemovedPlayerLosesItsPushConnectionOnceReleased) {
    auto client = ClientServer::start();
    ASSERT_TRUE(client);
    PlayerStore store;
    const std::string token = store.add(connectedTo(*client, "Bea"));

    auto removed = store.remove(token);
    ASSERT_TRUE(removed);
    EXPECT_EQ(removed->name, "Bea");
    EXPECT_FALSE(store.remove(token));
    EXPECT_FALSE(store.contains(token));

    EXPECT_EQ(client->closed(), 0);
    removed.reset();
    EXPECT_TRUE(client->waitForClosed());
}

TEST(PlayerStoreTest, TryAddKeepsOneAdministratorAndUniqueNames) {
    PlayerStore store;
    EXPECT_EQ(store.tryAdd(unconnected("Bea")).refusal,
              PlayerStore::AddRefusal::adminNotRegistered);
    EXPECT_EQ(store.tryAdd(unconnected("Admin", true)).refusal, PlayerStore::AddRefusal::none);
    EXPECT_EQ(store.tryAdd(unconnected("Other", true)).refusal,
              PlayerStore::AddRefusal::adminAlreadyRegistered);
    EXPECT_EQ(store.tryAdd(unconnected("Bea")).refusal, PlayerStore::AddRefusal::none);
    const auto again = store.tryAdd(unconnected("BEA"));
    EXPECT_EQ(again.refusal, PlayerStore::AddRefusal::nameInUse);
    EXPECT_TRUE(again.token.empty());
    EXPECT_EQ(store.count(), 2u);
}

TEST(PlayerStoreTest, NotificationsCarryEachRecipientsTokenAndSkipBrokenConnections) {
    auto adminServer = ClientServer::start();
    auto beaServer = ClientServer::start();
    auto goneServer = ClientServer::start();
    ASSERT_TRUE(adminServer && beaServer && goneServer);
    PlayerStore store;
    const std::string adminToken = store.add(connectedTo(*adminServer, "Admin", true));
    const std::string beaToken = store.add(connectedTo(*beaServer, "Bea"));
    store.add(connectedTo(*goneServer, "Gone"));
    ASSERT_TRUE(testkit::waitUntil([&] { return goneServer->accepted() == 1; }));
    goneServer->stop();

    store.playBroadcast();
    store.addedPlayerBroadcast("Cy");

    for (auto [server, token] :
         {std::pair{adminServer.get(), adminToken}, std::pair{beaServer.get(), beaToken}}) {
        ASSERT_TRUE(server->waitForCount(2));
        // On the wire: the code as a number, the recipient's own token, and base64 data only
        // where there is some.
        const auto bodies = server->bodies();
        ASSERT_EQ(bodies.size(), 2u);
        EXPECT_EQ(nlohmann::json::parse(bodies[0].begin(), bodies[0].end()),
                  (nlohmann::json{{"request", 4}, {"token", token}}));
        EXPECT_EQ(
            nlohmann::json::parse(bodies[1].begin(), bodies[1].end()),
            (nlohmann::json{{"request", 6},
                            {"token", token},
                            {"data", "eyJwbGF5ZXJfbmFtZSI6IkN5In0="}}));  // {"player_name":"Cy"}
        EXPECT_EQ(server->undecodable(), 0);
    }
    EXPECT_EQ(store.count(), 3u);  // the unreachable player stays registered
}

}  // namespace
}  // namespace pointlane
