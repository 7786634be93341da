#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace pointlane {

// The outcome of an answer; each value goes on the wire as its case name, misspellings included.
enum class AnswerMessage {
    OK,
    error,
    limitExceeded,
    cantConnectToClientServer,
    unknownRequest,
    invalidToken,
    invalidData,
    adminNotLoggedIn,
    adminAlreadyLoggenIn,
    userNameAlreadyInUse,
    initNewGame,
};

// "OK", "error", ... exactly as spelled above.
std::string toString(AnswerMessage message);
// Exactly the eleven texts (case-sensitive); anything else gives nothing.
std::optional<AnswerMessage> answerMessageFrom(std::string_view text);

}  // namespace pointlane
