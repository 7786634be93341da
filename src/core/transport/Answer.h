#pragma once

#include <optional>
#include <string>

#include "support/Bytes.h"
#include "transport/AnswerMessage.h"

namespace pointlane {

// The server's answer on the connection that carried a request.
// Wire form: {"code":0,"message":"OK","token":"..","info":"..","data":"<base64>"}.
struct Answer {
    int code = 0;
    AnswerMessage message = AnswerMessage::OK;
    std::string token;  // "" when there is none; always on the wire
    std::optional<std::string> info;
    std::optional<Bytes> data;

    // A refusal: code -1, the message, the given token, no info, no data.
    static Answer refusal(AnswerMessage message, std::string token = {});
    // Decodes an answer body (used by clients); nothing when it isn't one.
    static std::optional<Answer> fromJson(const Bytes& body);

    std::optional<Bytes> json() const;
    std::string description() const;
};

}  // namespace pointlane
