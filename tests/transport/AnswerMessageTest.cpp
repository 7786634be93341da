#include "transport/AnswerMessage.h"

#include <gtest/gtest.h>
#include <string>

namespace pointlane {
namespace {

TEST(AnswerMessageTest, TextsAreTheWireSpellings) {
    EXPECT_EQ(toString(AnswerMessage::adminAlreadyLoggenIn), "adminAlreadyLoggenIn");
    EXPECT_EQ(toString(AnswerMessage::OK), "OK");
    EXPECT_EQ(toString(AnswerMessage::initNewGame), "initNewGame");
    EXPECT_EQ(answerMessageFrom("cantConnectToClientServer"),
              AnswerMessage::cantConnectToClientServer);
    EXPECT_EQ(answerMessageFrom("adminAlreadyLoggedIn"), std::nullopt);
    EXPECT_EQ(answerMessageFrom("ok"), std::nullopt);
    EXPECT_EQ(answerMessageFrom(""), std::nullopt);
    for (int i = 0; i <= 10; ++i) {
        const auto message = static_cast<AnswerMessage>(i);
        EXPECT_EQ(answerMessageFrom(toString(message)), message);
    }
}

}  // namespace
}  // namespace pointlane
