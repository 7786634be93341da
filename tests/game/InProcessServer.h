#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <thread>

#include "ClientServer.h"
#include "PokerClient.h"
#include "TestKit.h"
#include "game/PokerThread.h"
#include "transport/Server.h"

namespace pointlane::testkit {

// The game served in this process on an ephemeral loopback port, over a fresh database in a
// temporary folder, with an empty registry, a zero login count, no game state and a manual
// main queue. The process end after the administrator's logout is recorded, not carried out.
class InProcessServer final : public ServerDelegate,
                              public std::enable_shared_from_this<InProcessServer> {
  public:
    static std::shared_ptr<InProcessServer> start();
    ~InProcessServer();

    std::shared_ptr<ServerThread> serverThread(std::shared_ptr<Socket> socket) override;

    int port() const { return server_->listeningPort(); }
    std::unique_ptr<PokerClient> client() const;
    static int loginCount();
    // The status the game's end asked for, once it did.
    std::optional<int> endStatus() const;
    ManualMainQueue& mainQueue() { return *mainQueue_; }
    const TempDir& folder() const { return folder_; }

  private:
    InProcessServer() = default;
    TempDir folder_;
    ScopedManualMainQueue mainQueue_;
    std::shared_ptr<Server> server_;
    std::thread listener_;
    std::shared_ptr<std::atomic<int>> endStatus_ = std::make_shared<std::atomic<int>>(-1);
};

// A client with its own client server, logged in or not.
struct TestPlayer {
    std::unique_ptr<ClientServer> clientServer;
    std::unique_ptr<PokerClient> client;
};

TestPlayer connectPlayer(const InProcessServer& server);

}  // namespace pointlane::testkit
