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

TEST(PlayerStoreTest, NamesCollideCaseInsensitivelyAndByCanonicalEquivalence) {
    PlayerStore store;
    store.add(unconnected("Anna"));
    store.add(unconnected("\xC5\x81ukasz"));  // Łukasz
    store.add(unconnected("Jos\xC3\xA9"));    // José, precomposed é
    store.add(unconnected("Rene\xCC\x81"));   // René, e + combining acute

    EXPECT_TRUE(store.isNameInUse("anna"));
    EXPECT_TRUE(store.isNameInUse("ANNA"));
    EXPECT_TRUE(store.isNameInUse("\xC5\x82UKASZ"));  // łUKASZ
    EXPECT_TRUE(store.isNameInUse("JOSE\xCC\x81"));   // JOSE + combining acute
    EXPECT_TRUE(store.isNameInUse("ren\xC3\xA9"));    // ren + precomposed é
    EXPECT_FALSE(store.isNameInUse(" Anna"));
    EXPECT_FALSE(store.isNameInUse("Anna "));
    EXPECT_FALSE(store.isNameInUse("Jose"));
    EXPECT_FALSE(store.isNameInUse("Lukasz"));
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
    EXPECT_EQ(store.count(), 300u);

    const std::string token = *tokens.begin();
    EXPECT_TRUE(store.contains(token));
    std::string otherCase = token;
    for (char& c : otherCase) {
        if (std::islower(static_cast<unsigned char>(c))) {
            c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        } else if (std::isupper(static_cast<unsigned char>(c))) {
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
    }
    if (otherCase != token) {
        EXPECT_FALSE(store.contains(otherCase));
    }
    EXPECT_FALSE(store.contains(""));
}

TEST(PlayerStoreTest, JsonObjectListsEveryNameAndRemoveAllKeepsTheGameName) {
    PlayerStore store;
    EXPECT_EQ(store.jsonObject(), std::optional<Bytes>(Bytes{'[', ']'}));

    store.setGameName("Sprint 7");
    store.add(unconnected("Admin", true));
    store.add(unconnected("Bea"));
    store.add(unconnected("Zo\xC3\xAB"));  // Zoë
    EXPECT_EQ(names(store.jsonObject()), (std::set<std::string>{"Admin", "Bea", "Zo\xC3\xAB"}));
    EXPECT_TRUE(store.existsAdmin());

    store.removeAll();
    EXPECT_EQ(store.count(), 0u);
    EXPECT_FALSE(store.existsAdmin());
    EXPECT_EQ(store.gameName(), std::optional<std::string>("Sprint 7"));
    EXPECT_EQ(store.jsonObject(), std::optional<Bytes>(Bytes{'[', ']'}));
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
