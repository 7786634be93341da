#include "InProcessServer.h"

#include <gtest/gtest.h>

#include "game/GameHandlers.h"
#include "game/GameState.h"
#include "game/PlayerStore.h"
#include "game/RequestGate.h"
#include "storage/SQLite.h"

namespace pointlane::testkit {

std::shared_ptr<InProcessServer> InProcessServer::start() {
    auto server = std::shared_ptr<InProcessServer>(new InProcessServer());
    sqlm().drain();
    sqlm().close();
    sqlm().setSchemaPath(POINTLANE_SOURCE_DIR "/resources/Schema.sql");
    EXPECT_TRUE(sqlm().create(server->folder_.file("Pointlane.sqlite")));
    PlayerStore::shared().reset();
    PokerThread::counter.reset();
    GameState::reset();
    RequestGate::shared().reset();
    GameState::setProcessEnd([status = server->endStatus_](int code) { status->store(code); });

    server->server_ = Server::create(server->weak_from_this());
    EXPECT_TRUE(server->server_);
    if (!server->server_) {
        return nullptr;
    }
    server->listener_ = std::thread([s = server->server_] { s->runOnPort(0); });
    EXPECT_TRUE(waitUntil([&] { return server->server_->listeningPort() != 0; }));
    return server;
}

InProcessServer::~InProcessServer() {
    if (server_) {
        server_->stop();
    }
    if (listener_.joinable()) {
        listener_.join();
    }
    PlayerStore::shared().reset();
    sqlm().drain();
    sqlm().close();
    GameState::reset();
    RequestGate::shared().reset();
}

std::shared_ptr<ServerThread> InProcessServer::serverThread(std::shared_ptr<Socket> socket) {
    return std::make_shared<PokerThread>(std::move(socket), GameHandlers::handlers());
}

std::unique_ptr<PokerClient> InProcessServer::client() const {
    return PokerClient::connect(port());
}

int InProcessServer::loginCount() {
    return PokerThread::counter.value();
}

std::optional<int> InProcessServer::endStatus() const {
    const int status = endStatus_->load();
    return status < 0 ? std::nullopt : std::optional<int>(status);
}

TestPlayer connectPlayer(const InProcessServer& server) {
    TestPlayer player;
    player.clientServer = ClientServer::start();
    player.client = server.client();
    EXPECT_TRUE(player.clientServer);
    EXPECT_TRUE(player.client);
    return player;
}

}  // namespace pointlane::testkit
