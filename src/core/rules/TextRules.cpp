#include "rules/TextRules.h"

#include <unicode/brkiter.h>
#include <unicode/locid.h>
#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/utext.h>
#include <unicode/utf8.h>

#include <memory>

namespace pointlane {

namespace {

// ASCII text needs no break iterator: every byte is a character except CR LF.
CharacterRanges asciiRanges(std::string_view text) {
    CharacterRanges out;
    out.reserve(text.size());
    std::size_t i = 0;
    while (i < text.size()) {
        const std::size_t len =
            (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n') ? 2 : 1;
        out.emplace_back(i, len);
        i += len;
    }
    return out;
}

icu::BreakIterator* characterIterator() {
    // Creating a break iterator loads rule data; one per thread keeps calls cheap and safe.
    thread_local std::unique_ptr<icu::BreakIterator> iterator = [] {
        UErrorCode status = U_ZERO_ERROR;
        std::unique_ptr<icu::BreakIterator> it(
            icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
        if (U_FAILURE(status)) {
            it.reset();
        }
        return it;
    }();
    return iterator.get();
}

// Code point ranges: what is left without ICU's rule data.
CharacterRanges codePointRanges(std::string_view text) {
    CharacterRanges out;
    std::size_t i = 0;
    while (i < text.size()) {
        std::size_t next = i;
        UChar32 c;
        U8_NEXT(text.data(), next, text.size(), c);
        (void)c;
        out.emplace_back(i, next - i);
        i = next;
    }
    return out;
}

std::vector<char32_t> codePoints(std::string_view text) {
    std::vector<char32_t> out;
    out.reserve(text.size());
    std::size_t i = 0;
    while (i < text.size()) {
        UChar32 c;
        U8_NEXT(text.data(), i, text.size(), c);
        out.push_back(c < 0 ? U'\uFFFD' : static_cast<char32_t>(c));
    }
    return out;
}

char32_t firstCodePoint(std::string_view text) {
    if (text.empty()) {
        return 0;
    }
    std::size_t i = 0;
    UChar32 c;
    U8_NEXT(text.data(), i, text.size(), c);
    return c < 0 ? U'\uFFFD' : static_cast<char32_t>(c);
}

icu::UnicodeString unicode(std::string_view text) {
    return icu::UnicodeString::fromUTF8(
        icu::StringPiece(text.data(), static_cast<std::int32_t>(text.size())));
}

// The form in which two names are compared: canonically composed, lower-cased by the current
// locale's rules, and composed again (lower-casing may decompose). Canonically equivalent
// spellings of one name therefore get the same key.
std::string nameKey(std::string_view name) {
    UErrorCode status = U_ZERO_ERROR;
    const icu::Normalizer2* nfc = icu::Normalizer2::getNFCInstance(status);
    if (U_FAILURE(status) || nfc == nullptr) {
        return std::string(name);
    }
    icu::UnicodeString composed = nfc->normalize(unicode(name), status);
    if (U_FAILURE(status)) {
        return std::string(name);
    }
    composed.toLower(icu::Locale::getDefault());
    const icu::UnicodeString key = nfc->normalize(composed, status);
    if (U_FAILURE(status)) {
        return std::string(name);
    }
    std::string utf8;
    key.toUTF8String(utf8);
    return utf8;
}

// Controls (C0, DEL, C1: tabs and line breaks too), format characters (zero-width space and
// joiners, bidirectional controls, the byte-order mark, the soft hyphen, ...) and the line and
// paragraph separators.
bool isInvisible(char32_t cp) {
    if (cp < 0x20 || (cp >= 0x7F && cp <= 0x9F)) {
        return true;
    }
    if (cp < 0xA0) {
        return false;
    }
    const auto type = u_charType(static_cast<UChar32>(cp));
    return type == U_FORMAT_CHAR || type == U_CONTROL_CHAR || type == U_LINE_SEPARATOR ||
           type == U_PARAGRAPH_SEPARATOR;
}

}  // namespace

bool isAscii(std::string_view text) {
    for (unsigned char c : text) {
        if (c >= 0x80) {
            return false;
        }
    }
    return true;
}

CharacterRanges characterRanges(std::string_view text) {
    if (isAscii(text)) {
        return asciiRanges(text);
    }
    icu::BreakIterator* it = characterIterator();
    UErrorCode status = U_ZERO_ERROR;
    UText* ut = utext_openUTF8(nullptr, text.data(), static_cast<int64_t>(text.size()), &status);
    if (it == nullptr || U_FAILURE(status)) {
        // Without ICU data fall back to code points; better than losing the text.
        if (ut != nullptr) {
            utext_close(ut);
        }
        return codePointRanges(text);
    }
    CharacterRanges out;
    it->setText(ut, status);
    // Boundaries of a UTF-8 UText are byte offsets into the original text.
    std::int32_t start = it->first();
    for (std::int32_t end = it->next(); end != icu::BreakIterator::DONE;
         start = end, end = it->next()) {
        out.emplace_back(static_cast<std::size_t>(start), static_cast<std::size_t>(end - start));
    }
    // Detach the iterator from the UText before closing it.
    icu::UnicodeString empty;
    it->setText(empty);
    utext_close(ut);
    return out;
}

std::size_t characterCount(std::string_view text) {
    return characterRanges(text).size();
}

bool isWhiteSpace(char32_t cp) {
    if ((cp >= 0x09 && cp <= 0x0D) || cp == 0x85 || cp == 0x2028 || cp == 0x2029) {
        return true;
    }
    if (cp == 0x20) {
        return true;
    }
    if (cp < 0x80) {
        return false;
    }
    return u_charType(static_cast<UChar32>(cp)) == U_SPACE_SEPARATOR;
}

std::string trimmed(std::string_view text) {
    if (isAscii(text)) {
        auto white = [](char c) { return c == ' ' || (c >= '\t' && c <= '\r'); };
        std::size_t b = 0;
        std::size_t e = text.size();
        while (b < e && white(text[b])) {
            ++b;
        }
        while (e > b && white(text[e - 1])) {
            --e;
        }
        return std::string(text.substr(b, e - b));
    }
    // A character is white space by its first code point (a space carrying a combining mark
    // goes as a whole).
    const CharacterRanges ranges = characterRanges(text);
    auto white = [&](std::size_t i) {
        return isWhiteSpace(firstCodePoint(text.substr(ranges[i].first, ranges[i].second)));
    };
    std::size_t b = 0;
    std::size_t e = ranges.size();
    while (b < e && white(b)) {
        ++b;
    }
    while (e > b && white(e - 1)) {
        --e;
    }
    if (b == e) {
        return {};
    }
    const std::size_t from = ranges[b].first;
    const std::size_t to = ranges[e - 1].first + ranges[e - 1].second;
    return std::string(text.substr(from, to - from));
}

std::string normalized(std::string_view text) {
    if (isAscii(text)) {
        return std::string(text);
    }
    UErrorCode status = U_ZERO_ERROR;
    const icu::Normalizer2* nfc = icu::Normalizer2::getNFCInstance(status);
    if (U_FAILURE(status) || nfc == nullptr) {
        return std::string(text);
    }
    const icu::UnicodeString source = unicode(text);
    if (nfc->isNormalized(source, status) && U_SUCCESS(status)) {
        return std::string(text);
    }
    status = U_ZERO_ERROR;
    const icu::UnicodeString composed = nfc->normalize(source, status);
    if (U_FAILURE(status)) {
        return std::string(text);
    }
    std::string utf8;
    composed.toUTF8String(utf8);
    return utf8;
}

bool hasInvisibleCharacters(std::string_view text) {
    for (const char32_t cp : codePoints(text)) {
        if (isInvisible(cp)) {
            return true;
        }
    }
    return false;
}

bool sameName(std::string_view a, std::string_view b) {
    return nameKey(a) == nameKey(b);
}

std::optional<std::string> checkName(std::string& text, std::string_view label) {
    text = normalized(trimmed(text));
    const std::string what(label);
    if (text.empty()) {
        return "Please enter a " + what + ".";
    }
    if (characterCount(text) > kMaxNameLength) {
        return "The " + what + " is too long: at most " + std::to_string(kMaxNameLength) +
               " characters.";
    }
    if (hasInvisibleCharacters(text)) {
        return "The " + what + " can't contain invisible or control characters.";
    }
    return std::nullopt;
}

}  // namespace pointlane
