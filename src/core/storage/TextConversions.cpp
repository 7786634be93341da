#include "storage/TextConversions.h"

#include <unicode/normalizer2.h>
#include <unicode/unistr.h>
#include <unicode/utf8.h>

#include <array>
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
    CharacterRanges clusters;
    explicit ClusterText(std::string_view t) : text(t), clusters(characterRanges(t)) {}
    std::size_t size() const { return clusters.size(); }
    std::string_view operator[](std::size_t i) const {
        return text.substr(clusters[i].first, clusters[i].second);
    }
    bool white(std::size_t i) const { return isWhiteSpace(firstCodePoint((*this)[i])); }
};

}  // namespace

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

}  // namespace pointlane
