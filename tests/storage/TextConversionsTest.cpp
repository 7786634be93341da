#include "storage/TextConversions.h"

#include <gtest/gtest.h>

#include <string>

namespace pointlane {
namespace {

TEST(TextConversionsTest, PolishConvertsAllEighteenLettersAndNothingElse) {
    EXPECT_EQ(polish(""), "");
    EXPECT_EQ(polish("plain ASCII ~ text"), "plain ASCII ~ text");
    EXPECT_EQ(polish("ąĄćĆęĘłŁńŃóÓśŚźŹżŻ"), "a~A~c~C~e~E~l~L~n~N~o~O~s~S~x~X~z~Z~");
    // Letters outside the table stay as they are.
    EXPECT_EQ(polish("äöü éè ß"), "äöü éè ß");
    EXPECT_EQ(polish("Łódź"), "L~o~dx~");
}

TEST(TextConversionsTest, DecomposedLettersConvertLikePrecomposedOnes) {
    // a + combining ogonek, z + combining dot above, o + combining acute.
    EXPECT_EQ(polish("a\u0328"), "a~");
    EXPECT_EQ(polish("z\u0307ol\u0301w"), "z~ol\u0301w");  // l + acute is no table letter
    EXPECT_EQ(polish("Zo\u0301lw"), "Zo~lw");
    // A table letter with one more mark is another character and stays.
    EXPECT_EQ(polish("a\u0328\u0301"), "a\u0328\u0301");
}

TEST(TextConversionsTest, UtfReversesPairsOnlyAfterBaseLetters) {
    EXPECT_EQ(utf("a~A~c~C~e~E~l~L~n~N~o~O~s~S~x~X~z~Z~"), "ąĄćĆęĘłŁńŃóÓśŚźŹżŻ");
    EXPECT_EQ(utf("b~ ~ ~~ a"), "b~ ~ ~~ a");
    EXPECT_EQ(utf("ends with l"), "ends with l");
    EXPECT_EQ(utf("l~~"), "ł~");
    // A pair typed by a user is converted too.
    EXPECT_EQ(utf("na~"), "ną");
    // The round trip holds unless a base letter is already followed by "~".
    const std::string clean = "Zażółć gęślą jaźń, 100% ~ tilde Ą~";
    EXPECT_EQ(utf(polish(clean)), clean);
    EXPECT_EQ(utf(polish("Ta~k")), "Tąk");
}

TEST(TextConversionsTest, RemoveCommentsKeepsLineBreaksAndCrLfIsNotALineEnd) {
    EXPECT_EQ(removeComments("SELECT 1;\nSELECT 2;"), "SELECT 1;\nSELECT 2;");
    EXPECT_EQ(removeComments("SELECT 1; -- first\nSELECT 2;"), "SELECT 1; \nSELECT 2;");
    EXPECT_EQ(removeComments("A // b\nC"), "A \nC");
    EXPECT_EQ(removeComments("A /* b\n c */C"), "A C");
    EXPECT_EQ(removeComments("A /* never closed\nB"), "A ");
    EXPECT_EQ(removeComments("A/"), "A/");
    EXPECT_EQ(removeComments("A-"), "A-");
    EXPECT_EQ(removeComments("A - B / C"), "A - B / C");
    // Quotes are not recognised.
    EXPECT_EQ(removeComments("'--x'\nB"), "'\nB");
    // CR LF is one character, so it does not end the comment; a lone LF does.
    EXPECT_EQ(removeComments("SELECT 1; -- c\r\nSELECT 2;\nSELECT 3;"), "SELECT 1; \nSELECT 3;");
    EXPECT_EQ(removeComments("A -- c\r\nB"), "A ");
}

TEST(TextConversionsTest, CleanedPutsATableDefinitionOnOneLine) {
    EXPECT_EQ(cleaned("CREATE TABLE T (  id INTEGER ,\n  name TEXT\n)"),
              "CREATE TABLE T (id INTEGER, name TEXT)");
    EXPECT_EQ(cleaned("two \t\n words"), "two words");
    EXPECT_EQ(cleaned(""), "");
    EXPECT_EQ(cleaned(" \t\r\n "), "");
    EXPECT_EQ(cleaned("\n  x  \n"), "x");
    // The character after an opening bracket's white space is taken as it is.
    EXPECT_EQ(cleaned("( ( x"), "(( x");
    EXPECT_EQ(cleaned("f( \n"), "f(");
    EXPECT_EQ(cleaned("a [ b ] { c } , d"), "a [b] {c}, d");
    // Unicode white space counts: no-break space, line separator, next line.
    EXPECT_EQ(cleaned("a\u00A0\u2028b\u0085c"), "a b c");
    EXPECT_EQ(cleaned("a\r\n\r\nb"), "a b");
}

}  // namespace
}  // namespace pointlane
