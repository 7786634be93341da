#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace pointlane {

// The rules for names, titles and cards typed by people: what white space is, how a text is
// trimmed, counted and compared, and which characters a name may not hold. Input is UTF-8.
// Characters are user-perceived characters (grapheme clusters): a letter written as base
// letter plus combining mark is one character, and so is CR LF.
// Thread safe: every call uses only its own (thread-local) state.

// The longest name or title, in characters.
constexpr std::size_t kMaxNameLength = 200;

// Byte ranges (offset, length) of the characters of a text, in order.
using CharacterRanges = std::vector<std::pair<std::size_t, std::size_t>>;
CharacterRanges characterRanges(std::string_view text);

// The number of characters (grapheme clusters).
std::size_t characterCount(std::string_view text);

// True when every byte is ASCII: such a text needs no Unicode tables.
bool isAscii(std::string_view text);

// Space separators (Zs), U+2028, U+2029, U+0009..U+000D and U+0085.
bool isWhiteSpace(char32_t codePoint);

// Without white space at either end.
std::string trimmed(std::string_view text);

// Canonically composed (NFC). Invalid UTF-8 is given back unchanged.
std::string normalized(std::string_view text);

// True when the text holds a character nobody sees: a format character (zero-width space and
// joiners, bidirectional controls, the byte-order mark, the soft hyphen, ...), a C0 or C1
// control character (tabs and line breaks included) or a line or paragraph separator.
bool hasInvisibleCharacters(std::string_view text);

// The game's name equality: two names are the same when they are equal once both are
// canonically composed and lower-cased by the current locale's rules. Not trimmed: a name with
// a space at its end differs from the name without it.
bool sameName(std::string_view a, std::string_view b);

// Trims the text and composes it (NFC) in place, then says what is wrong with it as a sentence
// for the player ("Please enter a name."), or nothing when it is fine: empty, longer than
// kMaxNameLength characters, or holding invisible or control characters (spaces inside the
// text are fine, tabs and line breaks are not). The label names the text in the sentence ("name",
// "game name").
std::optional<std::string> checkName(std::string& text, std::string_view label);

}  // namespace pointlane
