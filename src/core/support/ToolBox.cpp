#include "support/ToolBox.h"

#include <stdlib.h>  // arc4random

#include <array>
#include <cstdio>
#include <exception>

namespace pointlane {

namespace {

using json = nlohmann::json;

// Builds the value like the library's own DOM parser, but keeps the parser's message instead of
// throwing it.
class RecordingSax {
  public:
    explicit RecordingSax(json& root) : dom_(root, false) {}

    bool null() { return dom_.null(); }
    bool boolean(bool value) { return dom_.boolean(value); }
    bool number_integer(json::number_integer_t value) { return dom_.number_integer(value); }
    bool number_unsigned(json::number_unsigned_t value) { return dom_.number_unsigned(value); }
    bool number_float(json::number_float_t value, const json::string_t& text) {
        return dom_.number_float(value, text);
    }
    bool string(json::string_t& value) { return dom_.string(value); }
    bool binary(json::binary_t& value) { return dom_.binary(value); }
    bool start_object(std::size_t size) { return dom_.start_object(size); }
    bool key(json::string_t& value) { return dom_.key(value); }
    bool end_object() { return dom_.end_object(); }
    bool start_array(std::size_t size) { return dom_.start_array(size); }
    bool end_array() { return dom_.end_array(); }
    bool parse_error(std::size_t position, const std::string& token,
                     const nlohmann::detail::exception& error) {
        message = error.what();
        return dom_.parse_error(position, token, error);
    }

    std::string message;

  private:
    nlohmann::detail::json_sax_dom_parser<json> dom_;
};

// Keeps only the named scalar members of a top-level object; everything else is checked by
// the parser and dropped as it passes.
class MemberSax {
  public:
    explicit MemberSax(std::initializer_list<std::string_view> keys) : keys_(keys) {}

    bool null() { return scalar(nullptr); }
    bool boolean(bool value) { return scalar(value); }
    bool number_integer(json::number_integer_t value) { return scalar(value); }
    bool number_unsigned(json::number_unsigned_t value) { return scalar(value); }
    bool number_float(json::number_float_t value, const json::string_t&) { return scalar(value); }
    bool string(json::string_t& value) { return scalar(std::move(value)); }
    bool binary(json::binary_t&) { return scalar(nullptr); }
    bool start_object(std::size_t) { return open(json::object()); }
    bool start_array(std::size_t) { return open(json::array()); }
    bool end_object() { return close(); }
    bool end_array() { return close(); }
    bool key(json::string_t& name) {
        keeping_ = false;
        if (depth_ == 1 && root.is_object()) {
            for (const std::string_view kept : keys_) {
                if (kept == name) {
                    keeping_ = true;
                    key_ = name;
                    break;
                }
            }
        }
        return true;
    }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception& error) {
        message = error.what();
        return false;
    }

    json root;
    std::string message;
    bool complete = false;

  private:
    bool scalar(json value) {
        if (depth_ == 0) {
            root = std::move(value);
            complete = true;
        } else if (depth_ == 1 && keeping_) {
            root[key_] = std::move(value);
        }
        return true;
    }
    bool open(json container) {
        if (depth_ == 0) {
            root = std::move(container);
        } else if (depth_ == 1 && keeping_) {
            root[key_] = nullptr;
        }
        ++depth_;
        return true;
    }
    bool close() {
        if (--depth_ == 0) {
            complete = true;
        }
        return true;
    }

    std::initializer_list<std::string_view> keys_;
    int depth_ = 0;
    bool keeping_ = false;
    std::string key_;
};

// A linear pass over the bytes before the parser builds anything: refuses nesting deeper
// than ToolBox::kMaxJsonDepth (brackets inside strings don't count) and NUL bytes, which are
// never valid JSON but which the parser would take for the end of the text.
bool preScan(const Bytes& data, std::string& error) {
    int depth = 0;
    bool inString = false;
    bool escaped = false;
    for (std::size_t i = 0; i < data.size(); ++i) {
        const std::uint8_t c = data[i];
        if (c == 0) {
            error = "Unexpected NUL byte at offset " + std::to_string(i);
            return false;
        }
        if (inString) {
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                inString = false;
            }
            continue;
        }
        if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > ToolBox::kMaxJsonDepth) {
                error = "JSON nested deeper than " + std::to_string(ToolBox::kMaxJsonDepth) +
                        " levels at offset " + std::to_string(i);
                return false;
            }
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    return true;
}

constexpr char kBase64Alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int base64Value(char c) {
    if (c >= 'A' && c <= 'Z') {
        return c - 'A';
    }
    if (c >= 'a' && c <= 'z') {
        return c - 'a' + 26;
    }
    if (c >= '0' && c <= '9') {
        return c - '0' + 52;
    }
    if (c == '+') {
        return 62;
    }
    if (c == '/') {
        return 63;
    }
    return -1;
}

}  // namespace

std::optional<json> ToolBox::parseJson(const Bytes& data, std::string& error) {
    if (!preScan(data, error)) {
        return std::nullopt;
    }
    json root;
    RecordingSax sax(root);
    const bool parsed = json::sax_parse(data.begin(), data.end(), &sax, json::input_format_t::json,
                                        /*strict=*/true, /*ignore_comments=*/false);
    if (!parsed || root.is_discarded()) {
        error = sax.message.empty()
                    ? "The data couldn't be read because it isn't in the correct format."
                    : sax.message;
        return std::nullopt;
    }
    if (!root.is_object() && !root.is_array()) {
        // Only containers are messages; a bare number or text at the top is refused like a
        // syntax error.
        error = "JSON text did not start with array or object";
        return std::nullopt;
    }
    return root;
}

std::optional<json> ToolBox::parseJsonMembers(const Bytes& data,
                                              std::initializer_list<std::string_view> keys,
                                              std::string& error) {
    if (!preScan(data, error)) {
        return std::nullopt;
    }
    MemberSax sax(keys);
    const bool parsed = json::sax_parse(data.begin(), data.end(), &sax, json::input_format_t::json,
                                        /*strict=*/true, /*ignore_comments=*/false);
    if (!parsed || !sax.complete) {
        error = sax.message.empty()
                    ? "The data couldn't be read because it isn't in the correct format."
                    : sax.message;
        return std::nullopt;
    }
    if (!sax.root.is_object() && !sax.root.is_array()) {
        error = "JSON text did not start with array or object";
        return std::nullopt;
    }
    return std::move(sax.root);
}

std::optional<Bytes> ToolBox::writeJson(const json& value, std::string& error) {
    try {
        const std::string text = value.dump();
        return Bytes(text.begin(), text.end());
    } catch (const std::exception& e) {
        error = e.what();
        return std::nullopt;
    }
}

namespace {

// The serialisation line for a parse that failed.
std::optional<json> reported(std::optional<json> value, const std::string& error) {
    if (!value) {
        std::printf("Serialization error: %s\n", error.c_str());
        std::fflush(stdout);
    }
    return value;
}

}  // namespace

std::optional<json> ToolBox::fromJsonObject(const std::optional<Bytes>& data) {
    if (!data) {
        return std::nullopt;
    }
    std::string error;
    std::optional<json> value = parseJson(*data, error);
    return reported(std::move(value), error);
}

std::optional<json> ToolBox::fromJsonObject(const std::optional<Bytes>& data,
                                            std::initializer_list<std::string_view> keys) {
    if (!data) {
        return std::nullopt;
    }
    std::string error;
    std::optional<json> value = parseJsonMembers(*data, keys, error);
    return reported(std::move(value), error);
}

std::optional<Bytes> ToolBox::toJsonObject(const std::optional<json>& container) {
    if (!container) {
        return std::nullopt;
    }
    std::string error;
    std::optional<Bytes> bytes = writeJson(*container, error);
    if (!bytes) {
        std::printf("Serialization error: %s\n", error.c_str());
        std::fflush(stdout);
    }
    return bytes;
}

std::string ToolBox::randomString(int length) {
    if (length <= 0) {
        return {};
    }
    std::vector<std::uint8_t> drawn;
    drawn.reserve(static_cast<std::size_t>(length));
    for (int i = 0; i < length; ++i) {
        // Plain modulo on purpose: tokens are compared, never decoded, and the tiny bias
        // towards the first 33 characters costs nothing here.
        drawn.push_back(
            static_cast<std::uint8_t>(kTokenAlphabet[arc4random() % kTokenAlphabet.size()]));
    }
    return stringFromBytes(drawn);
}

std::string ToolBox::encodeBase64(const Bytes& bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        const std::uint32_t n = static_cast<std::uint32_t>(bytes[i]) << 16 |
                                static_cast<std::uint32_t>(bytes[i + 1]) << 8 | bytes[i + 2];
        text += kBase64Alphabet[n >> 18 & 63];
        text += kBase64Alphabet[n >> 12 & 63];
        text += kBase64Alphabet[n >> 6 & 63];
        text += kBase64Alphabet[n & 63];
    }
    const std::size_t rest = bytes.size() - i;
    if (rest == 1) {
        const std::uint32_t n = static_cast<std::uint32_t>(bytes[i]) << 16;
        text += kBase64Alphabet[n >> 18 & 63];
        text += kBase64Alphabet[n >> 12 & 63];
        text += "==";
    } else if (rest == 2) {
        const std::uint32_t n = static_cast<std::uint32_t>(bytes[i]) << 16 |
                                static_cast<std::uint32_t>(bytes[i + 1]) << 8;
        text += kBase64Alphabet[n >> 18 & 63];
        text += kBase64Alphabet[n >> 12 & 63];
        text += kBase64Alphabet[n >> 6 & 63];
        text += '=';
    }
    return text;
}

std::optional<Bytes> ToolBox::decodeBase64Bytes(std::string_view text) {
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    Bytes bytes;
    bytes.reserve(text.size() / 4 * 3);
    for (std::size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        std::array<int, 4> v{};
        int padding = 0;
        for (std::size_t j = 0; j < 4; ++j) {
            const char c = text[i + j];
            if (c == '=' && last && j >= 2) {
                ++padding;
                v[j] = 0;
                continue;
            }
            if (padding > 0) {
                return std::nullopt;  // data after padding
            }
            v[j] = base64Value(c);
            if (v[j] < 0) {
                return std::nullopt;
            }
        }
        const std::uint32_t n =
            static_cast<std::uint32_t>(v[0]) << 18 | static_cast<std::uint32_t>(v[1]) << 12 |
            static_cast<std::uint32_t>(v[2]) << 6 | static_cast<std::uint32_t>(v[3]);
        bytes.push_back(static_cast<std::uint8_t>(n >> 16));
        if (padding < 2) {
            bytes.push_back(static_cast<std::uint8_t>(n >> 8));
        }
        if (padding < 1) {
            bytes.push_back(static_cast<std::uint8_t>(n));
        }
    }
    return bytes;
}

std::optional<std::string> ToolBox::decodeBase64(std::string_view text) {
    const std::optional<Bytes> bytes = decodeBase64Bytes(text);
    if (!bytes) {
        return std::nullopt;
    }
    std::string decoded(bytes->begin(), bytes->end());
    if (!isValidUtf8(decoded)) {
        return std::nullopt;
    }
    return decoded;
}

std::vector<std::uint8_t> ToolBox::bytes(const Bytes& buffer) {
    return std::vector<std::uint8_t>(buffer.begin(), buffer.end());
}

std::string ToolBox::stringFromBytes(const std::vector<std::uint8_t>& bytes) {
    std::string text(bytes.begin(), bytes.end());
    if (!isValidUtf8(text)) {
        return {};
    }
    return text;
}

bool ToolBox::isValidUtf8(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size()) {
        const auto c = static_cast<unsigned char>(text[i]);
        std::size_t extra = 0;
        std::uint32_t code = 0;
        if (c < 0x80) {
            ++i;
            continue;
        } else if (c >= 0xC2 && c <= 0xDF) {
            extra = 1;
            code = c & 0x1F;
        } else if (c >= 0xE0 && c <= 0xEF) {
            extra = 2;
            code = c & 0x0F;
        } else if (c >= 0xF0 && c <= 0xF4) {
            extra = 3;
            code = c & 0x07;
        } else {
            return false;
        }
        if (i + extra >= text.size()) {
            return false;
        }
        for (std::size_t k = 1; k <= extra; ++k) {
            const auto next = static_cast<unsigned char>(text[i + k]);
            if ((next & 0xC0) != 0x80) {
                return false;
            }
            code = code << 6 | (next & 0x3F);
        }
        // Overlong forms, UTF-16 surrogates and values past U+10FFFF are not UTF-8.
        if ((extra == 2 && code < 0x800) || (extra == 3 && (code < 0x10000 || code > 0x10FFFF)) ||
            (code >= 0xD800 && code <= 0xDFFF)) {
            return false;
        }
        i += extra + 1;
    }
    return true;
}

bool ToolBox::writeStringToFile(const std::string& text, const std::string& path) {
    std::FILE* file = std::fopen(path.c_str(), "w");
    if (file == nullptr) {
        return false;
    }
    const std::size_t written = std::fwrite(text.data(), 1, text.size(), file);
    const bool closed = std::fclose(file) == 0;
    return written == text.size() && closed;
}

}  // namespace pointlane
