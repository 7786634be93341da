#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

#include "ServerProcess.h"
#include "TestKit.h"
#include "transport/Answer.h"

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

// A refusal as the server sends it: code -1, the message, and nothing else.
inline void expectRefusal(const std::optional<Answer>& answer, AnswerMessage message) {
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->code, -1);
    EXPECT_EQ(answer->message, message) << toString(answer->message);
    EXPECT_EQ(answer->token, "");
    EXPECT_FALSE(answer->info);
    EXPECT_FALSE(answer->data);
}

}  // namespace pointlane::testkit
