#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "ClientServer.h"
#include "PokerClient.h"
#include "ServerProcess.h"
#include "StoredRows.h"
#include "TestKit.h"

namespace pointlane {
namespace {

using testkit::ServerProcess;
using testkit::TempDir;

// The program as a package installs it, named by POINTLANE_INSTALLED_BINARY (the package test
// sets it after installing the package): it must create its database from the schema it finds
// under its own prefix, play a short game and end it as the build tree's program does.
TEST(InstalledProgramTest, CreatesItsDatabaseFromTheInstalledSchemaAndServesAGame) {
    const char* binary = std::getenv("POINTLANE_INSTALLED_BINARY");
    if (binary == nullptr || *binary == '\0') {
        GTEST_SKIP() << "POINTLANE_INSTALLED_BINARY is not set: no installed program to try";
    }
    TempDir home;
    auto server = ServerProcess::start(home.path().string(), {}, binary);
    ASSERT_TRUE(server);
    const std::string database = home.file(".Pointlane/Pointlane.sqlite");
    EXPECT_NE(server->diagnostics().find("Database created (" + database + ")"), std::string::npos)
        << server->diagnostics();

    auto stranger = PokerClient::connect(server->port());
    ASSERT_TRUE(stranger);
    stranger->setToken("00000000000000000000000000000000");
    auto refused = stranger->logout();
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->code, -1);
    EXPECT_EQ(refused->message, AnswerMessage::invalidToken);

    auto own = ClientServer::start({});
    auto admin = PokerClient::connect(server->port());
    ASSERT_TRUE(own && admin);
    auto login = admin->loginAdmin("Ola", "Installed", own->port());
    ASSERT_TRUE(login);
    ASSERT_EQ(login->code, 0) << login->description();
    auto logout = admin->logout();
    ASSERT_TRUE(logout);
    EXPECT_EQ(logout->code, 0);
    EXPECT_EQ(server->waitForExit(), 0);

    auto games = testkit::storedRows(database, "SELECT name FROM Game");
    ASSERT_TRUE(games);
    ASSERT_EQ(games->size(), 1u);
    EXPECT_EQ((*games)[0]["name"], "Installed");
}

}  // namespace
}  // namespace pointlane
