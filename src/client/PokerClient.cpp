#include "PokerClient.h"

#include <nlohmann/json.hpp>

namespace pointlane {

namespace {
Bytes toBytes(const nlohmann::json& value) {
    const std::string text = value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    return Bytes(text.begin(), text.end());
}
}  // namespace

std::unique_ptr<PokerClient> PokerClient::connect(int port, const std::string& host,
                                                  double receiveTimeoutSeconds) {
    auto connection = ClientConnection::connect(port, host, receiveTimeoutSeconds);
    if (!connection) {
        return nullptr;
    }
    return std::unique_ptr<PokerClient>(new PokerClient(std::move(connection)));
}

Bytes PokerClient::loginData(const std::optional<std::string>& playerName,
                             const std::optional<std::string>& gameName,
                             std::optional<int> clientServerPort) {
    nlohmann::json object = nlohmann::json::object();
    if (playerName) {
        object["player_name"] = *playerName;
    }
    if (gameName) {
        object["game_name"] = *gameName;
    }
    if (clientServerPort) {
        object["client_server_port"] = *clientServerPort;
    }
    return toBytes(object);
}

Bytes PokerClient::dealData(const std::string& title) {
    return toBytes(nlohmann::json{{"title", title}});
}

Bytes PokerClient::electionData(const std::string& playerName, const std::string& symbol) {
    return toBytes(nlohmann::json{{"player_name", playerName}, {"symbol", symbol}});
}

std::optional<Answer> PokerClient::login(RequestCode code, Bytes data) {
    Request request;
    request.request = code;
    request.data = std::move(data);
    auto answer = connection_->request(request);
    if (answer && answer->code == 0) {
        token_ = answer->token;
    }
    return answer;
}

std::optional<Answer> PokerClient::loginAdmin(const std::string& name, const std::string& game,
                                              int clientServerPort) {
    return login(RequestCode::loginAdmin, loginData(name, game, clientServerPort));
}

std::optional<Answer> PokerClient::loginPlayer(const std::string& name, int clientServerPort) {
    return login(RequestCode::loginPlayer, loginData(name, std::nullopt, clientServerPort));
}

std::optional<Answer> PokerClient::send(RequestCode code, std::optional<Bytes> data) {
    Request request;
    request.request = code;
    request.token = token_;
    request.data = std::move(data);
    return connection_->request(request);
}

std::optional<Answer> PokerClient::logout() {
    return send(RequestCode::logout);
}

std::optional<Answer> PokerClient::initNewDeal(const std::string& title) {
    return send(RequestCode::initNewDeal, dealData(title));
}

std::optional<Answer> PokerClient::initNewDeal(std::optional<Bytes> data) {
    return send(RequestCode::initNewDeal, std::move(data));
}

std::optional<Answer> PokerClient::play() {
    return send(RequestCode::play);
}

std::optional<Answer> PokerClient::openCards() {
    return send(RequestCode::openCards);
}

std::optional<Answer> PokerClient::cardElected(const std::string& playerName,
                                               const std::string& symbol) {
    return send(RequestCode::cardElected, electionData(playerName, symbol));
}

}  // namespace pointlane
