#include "game/GameHandlers.h"

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>

#include "game/GameEvents.h"
#include "game/GameState.h"
#include "game/Player.h"
#include "game/PlayerStore.h"
#include "game/RequestGate.h"
#include "game/SelfConnectionGuard.h"
#include "storage/Deal.h"
#include "storage/Election.h"
#include "storage/Game.h"
#include "storage/PlayerInfo.h"
#include "storage/SQLite.h"
#include "support/Event.h"
#include "support/MainQueue.h"
#include "support/ToolBox.h"
#include "transport/Answer.h"
#include "transport/Frame.h"

namespace pointlane {

namespace {

// The request's data as a JSON object holding only the named members a handler reads; nothing
// when there is no data or it is not an object. Bytes that are not JSON print the serialisation
// line. Only what is read is built, so a hostile payload costs about its own size.
std::optional<nlohmann::json> dataObject(const Request& request,
                                         std::initializer_list<std::string_view> keys) {
    auto value = ToolBox::fromJsonObject(request.data, keys);
    if (!value || !value->is_object()) {
        return std::nullopt;
    }
    return value;
}

std::optional<std::string> text(const nlohmann::json& object, const char* key) {
    auto it = object.find(key);
    if (it == object.end() || !it->is_string()) {
        return std::nullopt;
    }
    return it->get<std::string>();
}

// A TCP port: a JSON integer from 0 to 65535. A port given as text or as a fraction is not one.
std::optional<int> port(const nlohmann::json& object, const char* key) {
    auto it = object.find(key);
    if (it == object.end() || !it->is_number_integer()) {
        return std::nullopt;
    }
    if (it->is_number_unsigned()) {
        const auto value = it->get<std::uint64_t>();
        return value <= 65535 ? std::optional<int>(static_cast<int>(value)) : std::nullopt;
    }
    const auto value = it->get<std::int64_t>();
    return value >= 0 && value <= 65535 ? std::optional<int>(static_cast<int>(value))
                                        : std::nullopt;
}

struct LoginData {
    std::string playerName;
    std::string gameName;  // administrator only
    int clientServerPort = 0;
};

// data(from:): every required value, or nothing.
std::optional<LoginData> loginData(const Request& request, bool needsGameName) {
    const auto object = dataObject(request, {"player_name", "game_name", "client_server_port"});
    if (!object) {
        return std::nullopt;
    }
    LoginData result;
    const auto name = text(*object, "player_name");
    const auto game = needsGameName ? text(*object, "game_name") : std::optional<std::string>("");
    const auto clientPort = port(*object, "client_server_port");
    if (!name || !game || !clientPort) {
        return std::nullopt;
    }
    result.playerName = *name;
    result.gameName = *game;
    result.clientServerPort = *clientPort;
    return result;
}

void send(const std::shared_ptr<Socket>& socket, const Answer& answer) {
    if (const auto body = answer.json()) {
        sendFrame(*socket, *body);
    }
}

void refuse(const std::shared_ptr<Socket>& socket, AnswerMessage message, std::string token = {}) {
    send(socket, Answer::refusal(message, std::move(token)));
}

void accept(const std::shared_ptr<Socket>& socket, const std::string& token,
            std::optional<std::string> info = std::nullopt,
            std::optional<Bytes> data = std::nullopt) {
    Answer answer;
    answer.code = 0;
    answer.message = AnswerMessage::OK;
    answer.token = token;
    answer.info = std::move(info);
    answer.data = std::move(data);
    send(socket, answer);
}

// The connection back to the client's own server, or nothing (the player is dropped).
std::shared_ptr<Player> connectBack(const std::shared_ptr<Socket>& socket, const LoginData& data,
                                    bool isAdmin, std::string& address) {
    const auto peer = socket->address();
    if (!peer) {
        return nullptr;
    }
    auto clientSocket = Socket::create(-1);
    if (!clientSocket) {
        return nullptr;
    }
    auto player = std::make_shared<Player>(data.playerName, isAdmin, std::move(clientSocket));
    if (!player->connectBack(*peer, data.clientServerPort)) {
        return nullptr;
    }
    SelfConnectionGuard::filePush(player->clientSocket);
    // A client server "port" that is our own game port would feed every notification back to
    // us as a request: that connection back can't be made, as far as the game is concerned.
    if (SelfConnectionGuard::reachesOwnListener(*player->clientSocket, *socket)) {
        return nullptr;
    }
    address = *peer;
    return player;
}

void storeKnownPlayer(const std::string& name, const std::string& address) {
    auto info = PlayerInfo::make(name, address);
    if (info && info->save()) {
        post(Event::playerTableDidChange);
    }
}

bool hasValidToken(const Request& request) {
    return request.token && PlayerStore::shared().contains(*request.token);
}

// Runs on the main queue a moment after the administrator's logout. No request is handled
// from here on and those in hand finish first, so every record a client was told about is on
// the database queue; then those writes are finished, the database is closed and the process
// ends.
void endGame() {
    RequestGate::shared().close(RequestGate::kQuitWait);
    sqlm().closeAfterPendingWork();
    GameState::endProcess(0);
}

}  // namespace

PokerThread::Handlers GameHandlers::handlers() {
    PokerThread::Handlers h;
    h.loginAdmin = &GameHandlers::loginAdmin;
    h.loginPlayer = &GameHandlers::loginPlayer;
    h.logout = &GameHandlers::logout;
    h.initNewDeal = &GameHandlers::initNewDeal;
    h.play = &GameHandlers::play;
    h.openCards = &GameHandlers::openCards;
    h.cardElected = &GameHandlers::cardElected;
    return h;
}

void GameHandlers::loginAdmin(const Request& request, const std::shared_ptr<Socket>& socket) {
    if (!PokerThread::counter.take()) {
        refuse(socket, AnswerMessage::limitExceeded);
        return;
    }
    auto& store = PlayerStore::shared();
    if (store.existsAdmin()) {
        refuse(socket, AnswerMessage::adminAlreadyLoggenIn);
        return;
    }
    const auto data = loginData(request, /*needsGameName=*/true);
    if (!data) {
        refuse(socket, AnswerMessage::invalidData);
        return;
    }
    std::string address;
    auto player = connectBack(socket, *data, /*isAdmin=*/true, address);
    if (!player) {
        refuse(socket, AnswerMessage::cantConnectToClientServer);
        return;
    }
    // The game opens for the rest of the process in the same step, before any player can join.
    const auto added = store.tryAdd(std::move(player), [&] {
        if (const auto& opened = GameEvents::current().gameOpened) {
            opened(data->playerName, data->gameName);
        }
    });
    if (added.refusal != PlayerStore::AddRefusal::none) {
        // Another administrator got in while this one was connecting back.
        refuse(socket, AnswerMessage::adminAlreadyLoggenIn);
        return;
    }
    store.setGameName(data->gameName);
    const auto players = store.jsonObject();

    sqlm().async([gameName = data->gameName, adminName = data->playerName, address] {
        if (auto game = Game::make(gameName, adminName); game && game->save()) {
            post(Event::gameTableDidChange);
            GameState::setCurrentGameID(game->id);
        }
        storeKnownPlayer(adminName, address);
    });

    accept(socket, added.token, store.gameName(), players);
}

void GameHandlers::loginPlayer(const Request& request, const std::shared_ptr<Socket>& socket) {
    if (!PokerThread::counter.take()) {
        refuse(socket, AnswerMessage::limitExceeded);
        return;
    }
    auto& store = PlayerStore::shared();
    if (!store.existsAdmin()) {
        refuse(socket, AnswerMessage::adminNotLoggedIn);
        return;
    }
    const auto data = loginData(request, /*needsGameName=*/false);
    if (!data) {
        refuse(socket, AnswerMessage::invalidData);
        return;
    }
    if (store.isNameInUse(data->playerName)) {
        refuse(socket, AnswerMessage::userNameAlreadyInUse);
        return;
    }
    std::string address;
    auto player = connectBack(socket, *data, /*isAdmin=*/false, address);
    if (!player) {
        refuse(socket, AnswerMessage::cantConnectToClientServer);
        return;
    }
    // The checks above are repeated under the registry's lock: a login with the same name, or
    // the administrator's logout, may have happened while this one was connecting back.
    const auto added = store.tryAdd(std::move(player));
    switch (added.refusal) {
        case PlayerStore::AddRefusal::none:
            break;
        case PlayerStore::AddRefusal::nameInUse:
            refuse(socket, AnswerMessage::userNameAlreadyInUse);
            return;
        case PlayerStore::AddRefusal::adminNotRegistered:
        case PlayerStore::AddRefusal::adminAlreadyRegistered:
            refuse(socket, AnswerMessage::adminNotLoggedIn);
            return;
    }
    const auto players = store.jsonObject();

    sqlm().async([name = data->playerName, address] { storeKnownPlayer(name, address); });

    accept(socket, added.token, store.gameName(), players);
    store.addedPlayerBroadcast(data->playerName, [&] {
        if (const auto& joined = GameEvents::current().playerJoined) {
            joined(data->playerName);
        }
    });
}

void GameHandlers::logout(const Request& request, const std::shared_ptr<Socket>& socket) {
    if (!hasValidToken(request)) {
        refuse(socket, AnswerMessage::invalidToken);
        return;
    }
    const std::string token = *request.token;
    accept(socket, token);

    auto& store = PlayerStore::shared();
    auto player = store.remove(token);
    if (!player) {
        return;  // another request removed it meanwhile
    }
    PokerThread::counter.giveBack();

    sqlm().async([name = player->name] {
        if (auto known = PlayerInfo::player(name)) {
            known->remove();
        }
    });

    store.removedPlayerBroadcast(player->name, [&] {
        if (const auto& left = GameEvents::current().playerLeft) {
            left(player->name);
        }
    });

    if (player->isAdmin) {
        // The game is closed in line with the record writes: deals and elections submitted
        // before this logout may not have run yet and must still find their game.
        sqlm().async([] { GameState::setCurrentGameID(std::nullopt); });
        store.removeAll();
        after(kGameEndDelaySeconds, endGame);
    }
}

void GameHandlers::initNewDeal(const Request& request, const std::shared_ptr<Socket>& socket) {
    if (!hasValidToken(request)) {
        refuse(socket, AnswerMessage::invalidToken);
        return;
    }
    const std::string& token = *request.token;
    const auto object = dataObject(request, {"title"});
    const auto title = object ? text(*object, "title") : std::nullopt;
    if (!title) {
        refuse(socket, AnswerMessage::invalidData, token);
        return;
    }

    sqlm().async([title = *title] {
        const auto gameID = GameState::currentGameID();
        if (!gameID) {
            return;
        }
        auto deal = Deal::make(gameID, title);
        if (deal && deal->save()) {
            post(Event::dealTableDidChange);
            GameState::setCurrentDealID(deal->id);
            if (const auto& stored = GameEvents::current().dealStored) {
                stored(title, deal->id);
            }
        }
    });

    PlayerStore::shared().newDealBroadcast(request.data, [&] {
        if (const auto& put = GameEvents::current().itemPut) {
            put(*title);
        }
    });
    accept(socket, token);
}

void GameHandlers::play(const Request& request, const std::shared_ptr<Socket>& socket) {
    if (!hasValidToken(request)) {
        refuse(socket, AnswerMessage::invalidToken);
        return;
    }
    auto& store = PlayerStore::shared();
    const auto name = store.nameOf(*request.token);
    store.playBroadcast([&] {
        const auto& played = GameEvents::current().played;
        if (played && name) {
            played(*name);
        }
    });
    accept(socket, *request.token);
}

void GameHandlers::openCards(const Request& request, const std::shared_ptr<Socket>& socket) {
    if (!hasValidToken(request)) {
        refuse(socket, AnswerMessage::invalidToken);
        return;
    }
    PlayerStore::shared().openCardsBroadcast([] {
        if (const auto& opened = GameEvents::current().cardsOpened) {
            opened();
        }
    });
    accept(socket, *request.token);
}

void GameHandlers::cardElected(const Request& request, const std::shared_ptr<Socket>& socket) {
    if (!hasValidToken(request)) {
        refuse(socket, AnswerMessage::invalidToken);
        return;
    }
    const std::string& token = *request.token;
    const auto object = dataObject(request, {"player_name", "symbol"});
    const auto playerName = object ? text(*object, "player_name") : std::nullopt;
    const auto symbol = object ? text(*object, "symbol") : std::nullopt;
    if (!playerName || !symbol) {
        refuse(socket, AnswerMessage::invalidData, token);
        return;
    }

    sqlm().async([playerName = *playerName, symbol = *symbol] {
        auto election = Election::make(GameState::currentDealID(), playerName, symbol);
        if (election && election->save()) {
            post(Event::electionTableDidChange);
        }
    });

    PlayerStore::shared().cardElectedBroadcast(request.data, [&] {
        if (const auto& elected = GameEvents::current().cardElected) {
            elected(*playerName, *symbol);
        }
    });
    accept(socket, token);
}

}  // namespace pointlane
