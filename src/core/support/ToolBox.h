#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/Bytes.h"

namespace pointlane {

// Stateless JSON, token, base64, text and file helpers. Static only; never instantiated.
//
// Threading: every function is thread safe.
class ToolBox final {
  public:
    ToolBox() = delete;

    // The characters tokens are drawn from, in this order.
    static constexpr std::string_view kTokenAlphabet =
        "abcdefghijklmnopqrstuvwxyz%@ABCDEFGHIJKLMNOPQRSTUVWXZY&$0123456789?";

    // How deep arrays and objects may nest in JSON we read. Our messages nest two levels; a
    // deeper text is refused before anything is built, so that no frame costs more than a
    // small multiple of its size (a megabyte of "[" would otherwise build a million arrays).
    static constexpr int kMaxJsonDepth = 64;

    // Parses JSON whose top level is an object or an array: the whole buffer must be that one
    // value (white space around it is fine; any other byte after it, a NUL included, is an
    // error), nested at most kMaxJsonDepth deep. Nothing for absent data; on a parse error
    // prints "Serialization error: <text>" and gives nothing.
    static std::optional<nlohmann::json> fromJsonObject(const std::optional<Bytes>& data);
    // The same, keeping of an object only the scalar members named in keys (parseJsonMembers):
    // a payload then costs what those members cost, however much else it holds.
    static std::optional<nlohmann::json> fromJsonObject(
        const std::optional<Bytes>& data, std::initializer_list<std::string_view> keys);
    // Compact JSON bytes. Nothing for an absent value; when the value can't be written (text
    // that is not UTF-8) prints "Serialization error: <text>" and gives nothing.
    static std::optional<Bytes> toJsonObject(const std::optional<nlohmann::json>& container);

    // The parse behind fromJsonObject, silent: nothing and the parser's text in error.
    static std::optional<nlohmann::json> parseJson(const Bytes& data, std::string& error);
    // The same checks as parseJson, but of an object only the members named in keys are kept,
    // and only with scalar values (a container there becomes null): a decoder that reads a few
    // known members then pays for those, not for everything else the text holds. A top-level
    // array gives an empty array.
    static std::optional<nlohmann::json> parseJsonMembers(
        const Bytes& data, std::initializer_list<std::string_view> keys, std::string& error);
    // The writer behind toJsonObject, silent: nothing and the writer's text in error.
    static std::optional<Bytes> writeJson(const nlohmann::json& value, std::string& error);

    // length characters drawn uniformly (arc4random modulo 67) from kTokenAlphabet; "" for 0.
    static std::string randomString(int length);

    // Standard padded base64 (RFC 4648), no line breaks.
    static std::string encodeBase64(const Bytes& bytes);
    // Strict: only the alphabet and trailing padding, no white space, a multiple of 4 long.
    static std::optional<Bytes> decodeBase64Bytes(std::string_view text);
    // decodeBase64(): strict base64, then the bytes must be UTF-8; nothing otherwise.
    static std::optional<std::string> decodeBase64(std::string_view text);

    // bytes(): a copy of the buffer's bytes.
    static std::vector<std::uint8_t> bytes(const Bytes& buffer);
    // String(bytes:): the bytes as UTF-8 text; "" when they are not valid UTF-8.
    static std::string stringFromBytes(const std::vector<std::uint8_t>& bytes);
    // The one UTF-8 check of the code: shortest forms only, no surrogates, nothing past
    // U+10FFFF.
    static bool isValidUtf8(std::string_view text);

    // Replaces the file at path with exactly text; true when every byte was written.
    static bool writeStringToFile(const std::string& text, const std::string& path);
};

}  // namespace pointlane
