#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "TestKit.h"
#include "support/ToolBox.h"

namespace pointlane {
namespace {

Bytes bytesOf(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
}

TEST(ToolBoxTest, FromJsonObjectParsesContainersAndReportsErrors) {
    ::testing::internal::CaptureStdout();
    const auto object = ToolBox::fromJsonObject(bytesOf("{}"));
    ASSERT_TRUE(object.has_value());
    EXPECT_TRUE(object->is_object());
    EXPECT_TRUE(object->empty());
    EXPECT_TRUE(ToolBox::fromJsonObject(bytesOf("[1,\"a\"]"))->is_array());
    EXPECT_FALSE(ToolBox::fromJsonObject(std::nullopt).has_value());
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");  // nothing to report so far

    for (const std::string bad : {"", "{\"a\":", "42", "null", "{\"a\":\"\xC3\x28\"}"}) {
        ::testing::internal::CaptureStdout();
        EXPECT_FALSE(ToolBox::fromJsonObject(bytesOf(bad)).has_value()) << bad;
        const std::string printed = ::testing::internal::GetCapturedStdout();
        EXPECT_EQ(printed.rfind("Serialization error: ", 0), 0u) << bad;
        EXPECT_EQ(printed.find('\n'), printed.size() - 1) << "one line for " << bad;
    }
}

TEST(ToolBoxTest, JsonIsOneWholeValueNestedAtMostTheFixedDepth) {
    const auto nested = [](int depth, const std::string& open, const std::string& close) {
        std::string text;
        for (int i = 0; i < depth; ++i) {
            text += open;
        }
        text += "1";
        for (int i = 0; i < depth; ++i) {
            text += close;
        }
        return text;
    };
    const int limit = ToolBox::kMaxJsonDepth;
    ASSERT_EQ(limit, 64);
    EXPECT_TRUE(ToolBox::fromJsonObject(bytesOf(nested(limit, "[", "]"))).has_value());
    EXPECT_TRUE(ToolBox::fromJsonObject(bytesOf(nested(limit, "{\"a\":", "}"))).has_value());
    // Brackets inside strings, escaped quotes included, are text, not nesting.
    const std::string quoted = "{\"a\":\"\\\"" + std::string(200, '[') + "\"}";
    EXPECT_TRUE(ToolBox::fromJsonObject(bytesOf(quoted)).has_value());
    EXPECT_TRUE(ToolBox::fromJsonObject(bytesOf(" \t\r\n{}\n ")).has_value());

    const std::string huge(1 << 20, '[');
    for (const std::string& bad :
         {nested(limit + 1, "[", "]"), nested(limit + 1, "{\"a\":", "}"), huge,
          std::string("{\"a\":1}\0{\"b\":2}", 15), std::string("{}\0", 3), std::string("{} {}"),
          std::string("[1]]")}) {
        ::testing::internal::CaptureStdout();
        EXPECT_FALSE(ToolBox::fromJsonObject(bytesOf(bad)).has_value()) << bad.substr(0, 40);
        const std::string printed = ::testing::internal::GetCapturedStdout();
        EXPECT_EQ(printed.rfind("Serialization error: ", 0), 0u) << bad.substr(0, 40);
        EXPECT_EQ(printed.find('\n'), printed.size() - 1) << "one line for " << bad.substr(0, 40);
    }
}

TEST(ToolBoxTest, ToJsonObjectIsCompactAndReportsUnwritableText) {
    EXPECT_EQ(ToolBox::toJsonObject(nlohmann::json{{"name", "a b"}}), bytesOf(R"({"name":"a b"})"));
    EXPECT_EQ(ToolBox::toJsonObject(nlohmann::json::array({1, 2})), bytesOf("[1,2]"));
    EXPECT_FALSE(ToolBox::toJsonObject(std::nullopt).has_value());

    ::testing::internal::CaptureStdout();
    EXPECT_FALSE(ToolBox::toJsonObject(nlohmann::json{{"name", "\xC3\x28"}}).has_value());
    const std::string printed = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(printed.rfind("Serialization error: ", 0), 0u);
}

TEST(ToolBoxTest, RandomStringsUseEveryCharacterOfTheAlphabet) {
    constexpr std::string_view alphabet =
        "abcdefghijklmnopqrstuvwxyz%@ABCDEFGHIJKLMNOPQRSTUVWXZY&$0123456789?";
    EXPECT_EQ(ToolBox::kTokenAlphabet, alphabet);
    EXPECT_EQ(alphabet.size(), 67u);
    EXPECT_EQ(ToolBox::randomString(0), "");

    std::set<char> seen;
    std::set<std::string> tokens;
    for (int i = 0; i < 2000; ++i) {
        const std::string token = ToolBox::randomString(32);
        ASSERT_EQ(token.size(), 32u);
        for (const char c : token) {
            ASSERT_NE(alphabet.find(c), std::string_view::npos) << c;
            seen.insert(c);
        }
        tokens.insert(token);
    }
    EXPECT_EQ(seen.size(), 67u);  // 64,000 draws: a missing character means a broken draw
    EXPECT_EQ(tokens.size(), 2000u);
}

TEST(ToolBoxTest, Base64IsStandardPaddedAndStrict) {
    EXPECT_EQ(ToolBox::encodeBase64(bytesOf("")), "");
    EXPECT_EQ(ToolBox::encodeBase64(bytesOf("a")), "YQ==");
    EXPECT_EQ(ToolBox::encodeBase64(bytesOf("ab")), "YWI=");
    EXPECT_EQ(ToolBox::encodeBase64(bytesOf("abc")), "YWJj");
    EXPECT_EQ(ToolBox::encodeBase64(Bytes{0xFB, 0xFF, 0xBF}), "+/+/");

    EXPECT_EQ(ToolBox::decodeBase64("YWJj"), "abc");
    EXPECT_EQ(ToolBox::decodeBase64("YQ=="), "a");
    EXPECT_EQ(ToolBox::decodeBase64(""), "");
    EXPECT_EQ(ToolBox::decodeBase64Bytes("+/+/"), (Bytes{0xFB, 0xFF, 0xBF}));
    for (const std::string bad :
         {"YWJj\n", "YW Jj", "!!!", "YQ", "YQ=", "Y===", "YQ==YWJj", "YQ=a", "-_-_", "YWJ\0"}) {
        EXPECT_FALSE(ToolBox::decodeBase64(bad).has_value()) << bad;
    }
    EXPECT_FALSE(ToolBox::decodeBase64("wyg=").has_value());  // C3 28 is not UTF-8
    EXPECT_TRUE(ToolBox::decodeBase64Bytes("wyg=").has_value());
}

TEST(ToolBoxTest, TextFromBytesRequiresUtf8) {
    EXPECT_EQ(ToolBox::stringFromBytes({0xC3, 0x28}), "");
    EXPECT_EQ(ToolBox::stringFromBytes({0xC4, 0x85}), "ą");
    EXPECT_EQ(ToolBox::stringFromBytes({}), "");
    EXPECT_EQ(ToolBox::stringFromBytes({'o', 'k'}), "ok");
    EXPECT_FALSE(ToolBox::isValidUtf8("\xC0\xAF"));          // overlong
    EXPECT_FALSE(ToolBox::isValidUtf8("\xED\xA0\x80"));      // surrogate
    EXPECT_FALSE(ToolBox::isValidUtf8("\xF4\x90\x80\x80"));  // past U+10FFFF
    EXPECT_FALSE(ToolBox::isValidUtf8("\xE2\x82"));          // cut short
    EXPECT_TRUE(ToolBox::isValidUtf8("\xF0\x9F\x83\x8F"));   // a playing card
    EXPECT_EQ(ToolBox::bytes(Bytes{1, 2, 3}), (std::vector<std::uint8_t>{1, 2, 3}));
    EXPECT_TRUE(ToolBox::bytes(Bytes{}).empty());
}

TEST(ToolBoxTest, WriteStringToFileReplacesTheContent) {
    testkit::TempDir dir;
    const std::string path = dir.file("out.txt");
    EXPECT_TRUE(ToolBox::writeStringToFile("a longer first text", path));
    EXPECT_TRUE(ToolBox::writeStringToFile("żółw", path));
    EXPECT_EQ(readFile(path), "żółw");
    EXPECT_TRUE(ToolBox::writeStringToFile("", path));
    EXPECT_EQ(readFile(path), "");
    EXPECT_FALSE(ToolBox::writeStringToFile("x", dir.file("missing/out.txt")));
}

}  // namespace
}  // namespace pointlane
