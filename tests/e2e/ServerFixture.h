#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "ServerProcess.h"
#include "TestKit.h"

namespace pointlane::testkit {

// The real server started headless on free ports with a fresh home folder, for each test.
class ServerFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        server = ServerProcess::start(home.path().string());
        ASSERT_TRUE(server);
    }

    std::string databasePath() const { return home.file(".Pointlane/Pointlane.sqlite"); }

    TempDir home;
    std::unique_ptr<ServerProcess> server;
};

}  // namespace pointlane::testkit
