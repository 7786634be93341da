#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "support/ToolBox.h"
#include "transport/Answer.h"
#include "transport/AnswerMessage.h"
#include "transport/Request.h"
#include "transport/RequestCode.h"

namespace pointlane {
namespace {

Bytes bytesOf(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

nlohmann::json parsed(const std::optional<Bytes>& bytes) {
    EXPECT_TRUE(bytes.has_value());
    return bytes ? nlohmann::json::parse(bytes->begin(), bytes->end(), nullptr, false)
                 : nlohmann::json();
}

TEST(RequestCodeTest, ConvertsExactlyZeroToEight) {
    EXPECT_EQ(requestCodeFrom(0), RequestCode::loginAdmin);
    EXPECT_EQ(requestCodeFrom(7), RequestCode::playerRemoved);
    EXPECT_EQ(requestCodeFrom(8), RequestCode::cardElected);
    EXPECT_EQ(requestCodeFrom(9), std::nullopt);
    EXPECT_EQ(requestCodeFrom(-1), std::nullopt);
    EXPECT_EQ(requestCodeFrom(1LL << 32), std::nullopt);
    EXPECT_EQ(toString(RequestCode::initNewDeal), "initNewDeal");
}

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

TEST(RequestTest, DecodesTokenQueryAndDataByType) {
    const auto logout = Request::fromJson(bytesOf(R"({"request":2,"token":"abc"})"));
    ASSERT_TRUE(logout.has_value());
    EXPECT_EQ(logout->request, RequestCode::logout);
    EXPECT_EQ(logout->token, "abc");
    EXPECT_FALSE(logout->query.has_value());
    EXPECT_FALSE(logout->data.has_value());

    const auto wrongTypes = Request::fromJson(
        bytesOf(R"({"request":4,"token":7,"query":["q"],"data":{"a":1},"extra":true})"));
    ASSERT_TRUE(wrongTypes.has_value());
    EXPECT_FALSE(wrongTypes->token.has_value());
    EXPECT_FALSE(wrongTypes->query.has_value());
    EXPECT_FALSE(wrongTypes->data.has_value());

    const auto withData = Request::fromJson(
        bytesOf(R"({"request":1,"query":"q","data":")" +
                ToolBox::encodeBase64(bytesOf(R"({"player_name":"Zoë"})")) + "\"}"));
    ASSERT_TRUE(withData.has_value());
    EXPECT_EQ(withData->query, "q");
    EXPECT_EQ(withData->data, bytesOf(R"({"player_name":"Zoë"})"));

    // A payload that isn't base64 of UTF-8 is dropped, the request stays.
    for (const std::string data : {"!!!", "e30=\\n", "wyg=" /* C3 28 */, "e30"}) {
        const auto request = Request::fromJson(bytesOf(R"({"request":0,"data":")" + data + "\"}"));
        ASSERT_TRUE(request.has_value()) << data;
        EXPECT_FALSE(request->data.has_value()) << data;
    }
}

TEST(RequestTest, RequiresAnObjectWithACodeFromZeroToEight) {
    ::testing::internal::CaptureStdout();
    for (const std::string body :
         {R"({"request":9})", R"({"request":-1})", R"({"request":"2"})", R"({"request":true})",
          R"({"request":2.5})", R"({"token":"abc"})", "[2]", R"([{"request":2}])",
          R"({"request":18446744073709551615})"}) {
        EXPECT_FALSE(Request::fromJson(bytesOf(body)).has_value()) << body;
    }
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");  // valid JSON: no line

    for (const std::string body :
         {"", "{", "2", "\"x\"", "{\"request\":2,\"token\":\"\xC3\x28\"}"}) {
        ::testing::internal::CaptureStdout();
        EXPECT_FALSE(Request::fromJson(bytesOf(body)).has_value()) << body;
        const std::string printed = ::testing::internal::GetCapturedStdout();
        EXPECT_EQ(printed.rfind("init(usingJson:)(41): Serialization error: ", 0), 0u) << body;
        EXPECT_EQ(printed.back(), '\n');
        EXPECT_EQ(printed.find('\n'), printed.size() - 1);
    }
}

TEST(RequestTest, WireFormLeavesAbsentFieldsOutAndRoundTrips) {
    Request bare;
    bare.request = RequestCode::openCards;
    EXPECT_EQ(bare.json(), bytesOf(R"({"request":5})"));

    Request full{RequestCode::loginPlayer, "tok", "what", bytesOf(R"({"a":"ą"})")};
    const auto body = full.json();
    EXPECT_EQ(parsed(body), nlohmann::json::parse(R"({"request":1,"token":"tok","query":"what",)"
                                                  R"("data":"eyJhIjoixIUifQ=="})"));
    const auto again = Request::fromJson(*body);
    ASSERT_TRUE(again.has_value());
    EXPECT_EQ(again->request, full.request);
    EXPECT_EQ(again->token, full.token);
    EXPECT_EQ(again->query, full.query);
    EXPECT_EQ(again->data, full.data);

    Request broken{RequestCode::logout, std::string("\xC3\x28"), std::nullopt, std::nullopt};
    ::testing::internal::CaptureStdout();
    EXPECT_FALSE(broken.json().has_value());
    EXPECT_EQ(
        ::testing::internal::GetCapturedStdout().rfind("json()(84): Serialization error: ", 0), 0u);
}

TEST(RequestTest, DescriptionSpansTwoLines) {
    Request request{RequestCode::play, "t", std::nullopt, bytesOf("{}")};
    EXPECT_EQ(request.description(),
              "(request: play, query: nil, token: Optional(\"t\"))\ndata: Optional(2 bytes)");
    EXPECT_EQ(Request{}.description(), "(request: loginAdmin, query: nil, token: nil)\ndata: nil");
}

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
