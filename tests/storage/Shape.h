#pragma once

#include <string_view>

namespace pointlane::testing {

// True when text has the shape of pattern: "#" stands for one or more digits, "%" for exactly
// one digit, "*" for any run of characters; everything else stands for itself.
inline bool hasShape(std::string_view text, std::string_view pattern) {
    if (pattern.empty()) {
        return text.empty();
    }
    const char p = pattern.front();
    auto digit = [](char c) { return c >= '0' && c <= '9'; };
    if (p == '*') {
        for (std::size_t skip = 0; skip <= text.size(); ++skip) {
            if (hasShape(text.substr(skip), pattern.substr(1))) {
                return true;
            }
        }
        return false;
    }
    if (p == '#') {
        std::size_t n = 0;
        while (n < text.size() && digit(text[n])) {
            ++n;
        }
        return n > 0 && hasShape(text.substr(n), pattern.substr(1));
    }
    if (text.empty()) {
        return false;
    }
    if (p == '%' ? !digit(text.front()) : text.front() != p) {
        return false;
    }
    return hasShape(text.substr(1), pattern.substr(1));
}

}  // namespace pointlane::testing
