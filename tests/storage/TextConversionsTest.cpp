#include "storage/TextConversions.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace pointlane {
namespace {

// The stored form of Polish letters, and the schema script's comments and white space.
TEST(TextConversionsTest, StoredFormsCommentsAndWhiteSpace) {
    struct Case {
        std::function<std::string(const std::string&)> convert;
        std::string text, expected;
    };
    const auto toStored = [](const std::string& s) { return polish(s); };
    const auto fromStored = [](const std::string& s) { return utf(s); };
    const auto uncommented = [](const std::string& s) { return removeComments(s); };
    const auto tidy = [](const std::string& s) { return cleaned(s); };
    const std::vector<Case> cases{
        {toStored, "ąĄćĆęĘłŁńŃóÓśŚźŹżŻ", "a~A~c~C~e~E~l~L~n~N~o~O~s~S~x~X~z~Z~"},
        {toStored, "plain ~ äöü éè ß", "plain ~ äöü éè ß"},
        // Decomposed letters convert like precomposed ones; one more mark makes another letter.
        {toStored, "a\u0328 z\u0307ol\u0301w", "a~ z~ol\u0301w"},
        {toStored, "a\u0328\u0301", "a\u0328\u0301"},
        {fromStored, "a~A~c~C~e~E~l~L~n~N~o~O~s~S~x~X~z~Z~", "ąĄćĆęĘłŁńŃóÓśŚźŹżŻ"},
        // Pairs only after base letters; a pair typed by a user is converted too.
        {fromStored, "b~ ~ ~~ a l", "b~ ~ ~~ a l"},
        {fromStored, "l~~ na~", "ł~ ną"},
        {uncommented, "SELECT 1; -- first\nSELECT 2;", "SELECT 1; \nSELECT 2;"},
        {uncommented, "A // b\nC /* d\n e */F /* never closed\nG", "A \nC F "},
        {uncommented, "A - B / C-/", "A - B / C-/"},
        {uncommented, "'--x'\nB", "'\nB"},  // quotes are not recognised
        // CR LF is one character, so it does not end the comment; a lone LF does.
        {uncommented, "SELECT 1; -- c\r\nSELECT 2;\nSELECT 3;", "SELECT 1; \nSELECT 3;"},
        {tidy, "CREATE TABLE T (  id INTEGER ,\n  name TEXT\n)",
         "CREATE TABLE T (id INTEGER, name TEXT)"},
        {tidy, " \t\r\n ", ""},
        {tidy, "( ( x f( \n", "(( x f("},
        {tidy, "a [ b ] { c } , d", "a [b] {c}, d"},
        {tidy, "a\u00A0\u2028b\u0085c\r\n\r\nd", "a b c d"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.convert(c.text), c.expected) << testing::PrintToString(c.text);
    }
    // The round trip holds unless a base letter is already followed by "~".
    const std::string clean = "Zażółć gęślą jaźń, 100% ~ tilde Ą~";
    EXPECT_EQ(utf(polish(clean)), clean);
    EXPECT_EQ(utf(polish("Ta~k")), "Tąk");
}

}  // namespace
}  // namespace pointlane
