#pragma once

#include <string>
#include <string_view>

#include "rules/TextRules.h"

namespace pointlane {

// Text operations for stored text and the schema script. They work on user-perceived
// characters (grapheme clusters), so a letter written as base letter plus combining mark
// counts as the precomposed letter, and CR LF is one character. Input is UTF-8; none of them
// fails or changes its input.
// Thread safe: every call uses only its own (thread-local) state.

// The eighteen Polish letters as base letter + "~" ("ł" -> "l~", "ź" -> "x~", "ż" -> "z~").
std::string polish(std::string_view text);
// The reverse: a base letter followed by "~" becomes the Polish letter.
std::string utf(std::string_view text);
// The SQL script without "--", "//" and "/* */" comments; a line comment's line feed is kept.
std::string removeComments(std::string_view text);
// Trimmed, white-space runs collapsed to one space, none after "{[(" nor before ",)]}".
// What white space is and how a text is trimmed are the rules' (TextRules).
std::string cleaned(std::string_view text);

}  // namespace pointlane
