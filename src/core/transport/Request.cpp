#include "transport/Request.h"

#include <cmath>
#include <cstdio>

#include "support/ToolBox.h"

namespace pointlane {

namespace {

// Integers only (an integral float such as 2.0 counts); booleans and fractions do not.
std::optional<std::int64_t> integerValue(const nlohmann::json& value) {
    if (value.is_number_unsigned()) {
        const auto n = value.get<std::uint64_t>();
        if (n > static_cast<std::uint64_t>(INT64_MAX)) {
            return std::nullopt;
        }
        return static_cast<std::int64_t>(n);
    }
    if (value.is_number_integer()) {
        return value.get<std::int64_t>();
    }
    if (value.is_number_float()) {
        const double d = value.get<double>();
        if (std::isfinite(d) && std::trunc(d) == d && std::fabs(d) < 1e15) {
            return static_cast<std::int64_t>(d);
        }
    }
    return std::nullopt;
}

std::string optionalText(const std::optional<std::string>& text) {
    return text ? "Optional(\"" + *text + "\")" : "nil";
}

}  // namespace

std::optional<Request> Request::fromJson(const Bytes& body) {
    std::string error;
    // Only the four members a request has are built; the rest of the body is checked and
    // dropped, so that a body costs about its own size whatever it holds.
    const std::optional<nlohmann::json> parsed =
        ToolBox::parseJsonMembers(body, {"request", "token", "query", "data"}, error);
    if (!parsed) {
        std::printf("init(usingJson:)(41): Serialization error: %s\n", error.c_str());
        std::fflush(stdout);
        return std::nullopt;
    }
    if (!parsed->is_object()) {
        return std::nullopt;
    }
    const auto code = parsed->find("request");
    if (code == parsed->end()) {
        return std::nullopt;
    }
    const std::optional<std::int64_t> number = integerValue(*code);
    if (!number) {
        return std::nullopt;
    }
    const std::optional<RequestCode> request = requestCodeFrom(*number);
    if (!request) {
        return std::nullopt;
    }

    Request result;
    result.request = *request;
    if (const auto query = parsed->find("query"); query != parsed->end() && query->is_string()) {
        result.query = query->get<std::string>();
    }
    if (const auto token = parsed->find("token"); token != parsed->end() && token->is_string()) {
        result.token = token->get<std::string>();
    }
    if (const auto data = parsed->find("data"); data != parsed->end() && data->is_string()) {
        // A payload that isn't base64 of UTF-8 text is dropped; the request itself still counts.
        if (const std::optional<std::string> text =
                ToolBox::decodeBase64(data->get_ref<const std::string&>())) {
            result.data = Bytes(text->begin(), text->end());
        }
    }
    return result;
}

std::optional<Bytes> Request::json() const {
    nlohmann::json object = nlohmann::json::object();
    object["request"] = static_cast<int>(request);
    if (token) {
        object["token"] = *token;
    }
    if (query) {
        object["query"] = *query;
    }
    if (data) {
        object["data"] = ToolBox::encodeBase64(*data);
    }
    std::string error;
    std::optional<Bytes> bytes = ToolBox::writeJson(object, error);
    if (!bytes) {
        std::printf("json()(84): Serialization error: %s\n", error.c_str());
        std::fflush(stdout);
    }
    return bytes;
}

std::string Request::description() const {
    const std::string payload =
        data ? "Optional(" + std::to_string(data->size()) + " bytes)" : std::string("nil");
    return "(request: " + toString(request) + ", query: " + optionalText(query) +
           ", token: " + optionalText(token) + ")\ndata: " + payload;
}

}  // namespace pointlane
