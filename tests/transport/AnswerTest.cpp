#include "transport/Answer.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "JsonText.h"
#include "transport/AnswerMessage.h"

namespace pointlane {
namespace {

using jsontext::bytesOf;
using jsontext::parsed;

TEST(AnswerTest, UnknownRequestHasExactlyThreeKeys) {
    const auto body = Answer::refusal(AnswerMessage::unknownRequest).json();
    const auto object = parsed(body);
    EXPECT_EQ(object.size(), 3u);
    EXPECT_EQ(object,
              nlohmann::json::parse(R"({"code":-1,"message":"unknownRequest","token":""})"));
    // Compact: no blanks anywhere.
    EXPECT_EQ(std::string(body->begin(), body->end()).find(' '), std::string::npos);
}

TEST(AnswerTest, WireFormCarriesInfoAndBase64Data) {
    Answer answer;
    answer.token = "tok";
    answer.info = "Sprint 1";
    answer.data = bytesOf(R"(["Ann","Bob"])");
    const auto body = answer.json();
    EXPECT_EQ(parsed(body),
              nlohmann::json::parse(R"({"code":0,"message":"OK","token":"tok","info":"Sprint 1",)"
                                    R"("data":"WyJBbm4iLCJCb2IiXQ=="})"));
    // Clients match on the misspelled text.
    const auto refused =
        Answer::fromJson(bytesOf(R"({"code":-1,"message":"adminAlreadyLoggenIn","token":""})"));
    ASSERT_TRUE(refused.has_value());
    EXPECT_EQ(refused->message, AnswerMessage::adminAlreadyLoggenIn);
    EXPECT_FALSE(Answer::fromJson(bytesOf(R"({"code":-1,"message":"nope"})")).has_value());
}

TEST(AnswerTest, DescriptionEndsWithTwoParentheses) {
    Answer answer = Answer::refusal(AnswerMessage::invalidToken, "abc");
    EXPECT_EQ(answer.description(), "(code: -1, token: abc, message: invalidToken, info: nil))");
    answer.info = "x";
    EXPECT_EQ(answer.description(),
              "(code: -1, token: abc, message: invalidToken, info: Optional(\"x\")))");
}

}  // namespace
}  // namespace pointlane
