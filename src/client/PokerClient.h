#pragma once

#include <memory>
#include <optional>
#include <string>

#include "ClientConnection.h"
#include "support/Bytes.h"
#include "transport/Answer.h"
#include "transport/Request.h"
#include "transport/RequestCode.h"

namespace pointlane {

// A game client: one connection to the server and the token of its login. Each operation
// sends one request and waits for its answer; a successful login keeps the token, and later
// requests carry it.
//
// Threading: one thread at a time.
class PokerClient final {
  public:
    static std::unique_ptr<PokerClient> connect(int port, const std::string& host = "127.0.0.1",
                                                double receiveTimeoutSeconds = 10.0);

    std::optional<Answer> loginAdmin(const std::string& name, const std::string& game,
                                     int clientServerPort);
    std::optional<Answer> loginPlayer(const std::string& name, int clientServerPort);
    std::optional<Answer> logout();
    std::optional<Answer> initNewDeal(const std::string& title);
    // A deal whose data bytes are sent exactly as given (or no data at all).
    std::optional<Answer> initNewDeal(std::optional<Bytes> data);
    std::optional<Answer> play();
    std::optional<Answer> openCards();
    std::optional<Answer> cardElected(const std::string& playerName, const std::string& symbol);
    // Any request with the client's token (when it has one) and the given data.
    std::optional<Answer> send(RequestCode code, std::optional<Bytes> data = std::nullopt);

    const std::optional<std::string>& token() const { return token_; }
    void setToken(std::optional<std::string> token) { token_ = std::move(token); }
    ClientConnection& connection() { return *connection_; }

    // The bytes of a JSON object of text values, or with one integer "client_server_port".
    static Bytes loginData(const std::optional<std::string>& playerName,
                           const std::optional<std::string>& gameName,
                           std::optional<int> clientServerPort);
    // The data of a deal with this title, and of an elected card.
    static Bytes dealData(const std::string& title);
    static Bytes electionData(const std::string& playerName, const std::string& symbol);

  private:
    explicit PokerClient(std::unique_ptr<ClientConnection> connection)
        : connection_(std::move(connection)) {}
    std::optional<Answer> login(RequestCode code, Bytes data);

    std::unique_ptr<ClientConnection> connection_;
    std::optional<std::string> token_;
};

}  // namespace pointlane
