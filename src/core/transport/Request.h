#pragma once

#include <optional>
#include <string>

#include "support/Bytes.h"
#include "transport/RequestCode.h"

namespace pointlane {

// A request from a client, or a notification pushed to a client's own server.
// Wire form: {"request":N,"token":"..","query":"..","data":"<base64>"}, absent fields left out.
struct Request {
    RequestCode request = RequestCode::loginAdmin;
    std::optional<std::string> token;
    std::optional<std::string> query;
    std::optional<Bytes> data;  // UTF-8 JSON text of a small object

    // init(usingJson:): nothing when the body is not a JSON object with a valid "request".
    // A parse error prints "init(usingJson:)(41): Serialization error: <text>".
    static std::optional<Request> fromJson(const Bytes& body);
    // Compact JSON; nothing (and a "json()(84): Serialization error: " line) when it can't be made.
    std::optional<Bytes> json() const;
    std::string description() const;
};

}  // namespace pointlane
