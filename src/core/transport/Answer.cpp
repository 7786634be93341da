#include "transport/Answer.h"

#include "support/ToolBox.h"

namespace pointlane {

Answer Answer::refusal(AnswerMessage message, std::string token) {
    Answer answer;
    answer.code = -1;
    answer.message = message;
    answer.token = std::move(token);
    return answer;
}

std::optional<Answer> Answer::fromJson(const Bytes& body) {
    std::string error;
    const std::optional<nlohmann::json> parsed =
        ToolBox::parseJsonMembers(body, {"code", "message", "token", "info", "data"}, error);
    if (!parsed || !parsed->is_object()) {
        return std::nullopt;
    }
    const auto code = parsed->find("code");
    const auto message = parsed->find("message");
    if (code == parsed->end() || !code->is_number_integer() || message == parsed->end() ||
        !message->is_string()) {
        return std::nullopt;
    }
    const std::optional<AnswerMessage> outcome =
        answerMessageFrom(message->get_ref<const std::string&>());
    if (!outcome) {
        return std::nullopt;
    }
    Answer answer;
    answer.code = code->get<int>();
    answer.message = *outcome;
    if (const auto token = parsed->find("token"); token != parsed->end() && token->is_string()) {
        answer.token = token->get<std::string>();
    }
    if (const auto info = parsed->find("info"); info != parsed->end() && info->is_string()) {
        answer.info = info->get<std::string>();
    }
    if (const auto data = parsed->find("data"); data != parsed->end() && data->is_string()) {
        answer.data = ToolBox::decodeBase64Bytes(data->get_ref<const std::string&>());
    }
    return answer;
}

std::optional<Bytes> Answer::json() const {
    nlohmann::json object = nlohmann::json::object();
    object["code"] = code;
    object["message"] = toString(message);
    object["token"] = token;
    if (info) {
        object["info"] = *info;
    }
    if (data) {
        object["data"] = ToolBox::encodeBase64(*data);
    }
    return ToolBox::toJsonObject(object);
}

std::string Answer::description() const {
    return "(code: " + std::to_string(code) + ", token: " + token +
           ", message: " + toString(message) +
           ", info: " + (info ? "Optional(\"" + *info + "\")" : std::string("nil")) + "))";
}

}  // namespace pointlane
