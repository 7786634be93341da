#include "storage/TextConversions.h"

#include <unicode/brkiter.h>
#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/utext.h>
#include <unicode/utf8.h>

#include <array>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace pointlane {

namespace {

struct Letter {
    char32_t codePoint;
    char base;
};

constexpr std::array<Letter, 18> kLetters{{
    {U'\u0105', 'a'},
    {U'\u0104', 'A'},
    {U'\u0107', 'c'},
    {U'\u0106', 'C'},
    {U'\u0119', 'e'},
    {U'\u0118', 'E'},
    {U'\u0142', 'l'},
    {U'\u0141', 'L'},
    {U'\u0144', 'n'},
    {U'\u0143', 'N'},
    {U'\u00F3', 'o'},
    {U'\u00D3', 'O'},
    {U'\u015B', 's'},
    {U'\u015A', 'S'},
    {U'\u017A', 'x'},
    {U'\u0179', 'X'},
    {U'\u017C', 'z'},
    {U'\u017B', 'Z'},
}};

// Byte ranges of the grapheme clusters of a UTF-8 text.
using Clusters = std::vector<std::pair<std::size_t, std::size_t>>;

bool isAscii(std::string_view text) {
    for (unsigned char c : text) {
        if (c >= 0x80) {
            return false;
        }
    }
    return true;
}

// ASCII text needs no break iterator: every byte is a character except CR LF.
Clusters asciiClusters(std::string_view text) {
    Clusters out;
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

Clusters clustersOf(std::string_view text) {
    if (isAscii(text)) {
        return asciiClusters(text);
    }
    Clusters out;
    icu::BreakIterator* it = characterIterator();
    UErrorCode status = U_ZERO_ERROR;
    UText* ut = utext_openUTF8(nullptr, text.data(), static_cast<int64_t>(text.size()), &status);
    if (it == nullptr || U_FAILURE(status)) {
        // Without ICU data fall back to code points; better than losing the text.
        if (ut != nullptr) {
            utext_close(ut);
        }
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

char32_t firstCodePoint(std::string_view cluster) {
    if (cluster.empty()) {
        return 0;
    }
    std::size_t i = 0;
    UChar32 c;
    U8_NEXT(cluster.data(), i, cluster.size(), c);
    return c < 0 ? U'\uFFFD' : static_cast<char32_t>(c);
}

// The cluster as one code point after canonical composition, if it is one.
std::optional<char32_t> composedCodePoint(std::string_view cluster) {
    if (cluster.size() == 1) {
        return static_cast<unsigned char>(cluster[0]);
    }
    UErrorCode status = U_ZERO_ERROR;
    const icu::Normalizer2* nfc = icu::Normalizer2::getNFCInstance(status);
    if (U_FAILURE(status)) {
        return std::nullopt;
    }
    icu::UnicodeString normal =
        nfc->normalize(icu::UnicodeString::fromUTF8(icu::StringPiece(
                           cluster.data(), static_cast<std::int32_t>(cluster.size()))),
                       status);
    if (U_FAILURE(status) || normal.countChar32() != 1) {
        return std::nullopt;
    }
    return static_cast<char32_t>(normal.char32At(0));
}

bool clusterIs(std::string_view cluster, char c) {
    return cluster.size() == 1 && cluster[0] == c;
}

void appendUtf8(std::string& out, char32_t cp) {
    char buffer[4];
    std::size_t len = 0;
    UBool error = false;
    U8_APPEND(buffer, len, 4, static_cast<UChar32>(cp), error);
    if (!error) {
        out.append(buffer, len);
    }
}

struct ClusterText {
    std::string_view text;
    Clusters clusters;
    explicit ClusterText(std::string_view t) : text(t), clusters(clustersOf(t)) {}
    std::size_t size() const { return clusters.size(); }
    std::string_view operator[](std::size_t i) const {
        return text.substr(clusters[i].first, clusters[i].second);
    }
    bool white(std::size_t i) const { return isWhiteSpace(firstCodePoint((*this)[i])); }
};

}  // namespace

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

std::string polish(std::string_view text) {
    if (isAscii(text)) {
        return std::string(text);
    }
    const ClusterText ct(text);
    std::string out;
    out.reserve(text.size() + 8);
    for (std::size_t i = 0; i < ct.size(); ++i) {
        const std::string_view cluster = ct[i];
        bool replaced = false;
        if (cluster.size() > 1) {
            if (auto cp = composedCodePoint(cluster)) {
                for (const Letter& letter : kLetters) {
                    if (letter.codePoint == *cp) {
                        out.push_back(letter.base);
                        out.push_back('~');
                        replaced = true;
                        break;
                    }
                }
            }
        }
        if (!replaced) {
            out.append(cluster);
        }
    }
    return out;
}

std::string utf(std::string_view text) {
    if (text.find('~') == std::string_view::npos) {
        return std::string(text);
    }
    const ClusterText ct(text);
    std::string out;
    out.reserve(text.size());
    std::size_t i = 0;
    while (i < ct.size()) {
        const std::string_view cluster = ct[i];
        if (cluster.size() == 1 && i + 1 < ct.size() && clusterIs(ct[i + 1], '~')) {
            const Letter* found = nullptr;
            for (const Letter& letter : kLetters) {
                if (letter.base == cluster[0]) {
                    found = &letter;
                    break;
                }
            }
            if (found != nullptr) {
                appendUtf8(out, found->codePoint);
                i += 2;
                continue;
            }
        }
        out.append(cluster);
        ++i;
    }
    return out;
}

std::string removeComments(std::string_view text) {
    enum class State { normal, lineComment, blockComment };
    const ClusterText ct(text);
    std::string out;
    out.reserve(text.size());
    State state = State::normal;
    std::size_t i = 0;
    while (i < ct.size()) {
        const std::string_view c = ct[i];
        const bool hasNext = i + 1 < ct.size();
        switch (state) {
            case State::normal:
                if (clusterIs(c, '/') && hasNext && clusterIs(ct[i + 1], '*')) {
                    state = State::blockComment;
                    i += 2;
                    continue;
                }
                if ((clusterIs(c, '/') && hasNext && clusterIs(ct[i + 1], '/')) ||
                    (clusterIs(c, '-') && hasNext && clusterIs(ct[i + 1], '-'))) {
                    state = State::lineComment;
                    i += 2;
                    continue;
                }
                out.append(c);
                break;
            case State::lineComment:
                if (clusterIs(c, '\n')) {
                    out.append(c);
                    state = State::normal;
                }
                break;
            case State::blockComment:
                if (clusterIs(c, '*') && hasNext && clusterIs(ct[i + 1], '/')) {
                    state = State::normal;
                    i += 2;
                    continue;
                }
                break;
        }
        ++i;
    }
    return out;
}

std::string cleaned(std::string_view text) {
    const ClusterText ct(text);
    std::size_t first = 0;
    while (first < ct.size() && ct.white(first)) {
        ++first;
    }
    if (first == ct.size()) {
        return {};
    }
    std::size_t last = ct.size() - 1;
    while (ct.white(last)) {
        --last;
    }
    auto isClosing = [](std::string_view c) {
        return clusterIs(c, ',') || clusterIs(c, ')') || clusterIs(c, ']') || clusterIs(c, '}');
    };
    std::string out;
    out.reserve(text.size());
    std::size_t i = first;
    while (i <= last) {
        const std::string_view c = ct[i];
        if (!ct.white(i)) {
            out.append(c);
            if (clusterIs(c, '{') || clusterIs(c, '[') || clusterIs(c, '(')) {
                std::size_t j = i + 1;
                while (j <= last && ct.white(j)) {
                    ++j;
                }
                if (j > last) {
                    break;
                }
                // The character after an opening bracket is taken as it is, even another one.
                out.append(ct[j]);
                i = j + 1;
                continue;
            }
        } else if (i + 1 <= last && !ct.white(i + 1) && !isClosing(ct[i + 1])) {
            out.push_back(' ');
        }
        ++i;
    }
    return out;
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
    const ClusterText ct(text);
    std::size_t b = 0;
    std::size_t e = ct.size();
    while (b < e && ct.white(b)) {
        ++b;
    }
    while (e > b && ct.white(e - 1)) {
        --e;
    }
    if (b == e) {
        return {};
    }
    const std::size_t from = ct.clusters[b].first;
    const std::size_t to = ct.clusters[e - 1].first + ct.clusters[e - 1].second;
    return std::string(text.substr(from, to - from));
}

bool isValidUtf8(std::string_view text) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    const std::size_t count = text.size();
    std::size_t i = 0;
    while (i < count) {
        unsigned char c = bytes[i];
        std::size_t len;
        std::uint32_t cp;
        if (c < 0x80) {
            ++i;
            continue;
        } else if ((c & 0xE0) == 0xC0) {
            len = 2;
            cp = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            len = 3;
            cp = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            len = 4;
            cp = c & 0x07;
        } else {
            return false;
        }
        if (i + len > count) {
            return false;
        }
        for (std::size_t k = 1; k < len; ++k) {
            if ((bytes[i + k] & 0xC0) != 0x80) {
                return false;
            }
            cp = (cp << 6) | (bytes[i + k] & 0x3F);
        }
        if ((len == 2 && cp < 0x80) || (len == 3 && cp < 0x800) || (len == 4 && cp < 0x10000) ||
            cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
            return false;
        }
        i += len;
    }
    return true;
}

}  // namespace pointlane
