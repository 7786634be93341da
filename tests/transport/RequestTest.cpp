#include "transport/Request.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "JsonText.h"
#include "support/ToolBox.h"

namespace pointlane {
namespace {

using jsontext::bytesOf;
using jsontext::parsed;

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
          R"({"request":4294967296})", R"({"request":18446744073709551615})"}) {
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

}  // namespace
}  // namespace pointlane
