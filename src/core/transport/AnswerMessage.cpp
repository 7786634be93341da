#include "transport/AnswerMessage.h"

#include <array>

namespace pointlane {

namespace {

// In case order; the index is the enumeration value. "adminAlreadyLoggenIn" is the wire
// spelling that clients match on.
constexpr std::array<std::string_view, 11> kTexts = {
    "OK",
    "error",
    "limitExceeded",
    "cantConnectToClientServer",
    "unknownRequest",
    "invalidToken",
    "invalidData",
    "adminNotLoggedIn",
    "adminAlreadyLoggenIn",
    "userNameAlreadyInUse",
    "initNewGame",
};

}  // namespace

std::string toString(AnswerMessage message) {
    const auto index = static_cast<std::size_t>(message);
    if (index >= kTexts.size()) {
        return {};
    }
    return std::string(kTexts[index]);
}

std::optional<AnswerMessage> answerMessageFrom(std::string_view text) {
    for (std::size_t i = 0; i < kTexts.size(); ++i) {
        if (kTexts[i] == text) {
            return static_cast<AnswerMessage>(i);
        }
    }
    return std::nullopt;
}

}  // namespace pointlane
