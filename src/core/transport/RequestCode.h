#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace pointlane {

// What a request asks for (and what a server broadcast announces).
enum class RequestCode : int {
    loginAdmin = 0,
    loginPlayer = 1,
    logout = 2,
    initNewDeal = 3,
    play = 4,
    openCards = 5,
    playerAdded = 6,
    playerRemoved = 7,
    cardElected = 8,
};

// Exactly 0 to 8; anything else gives nothing.
std::optional<RequestCode> requestCodeFrom(std::int64_t value);
// The case name: "loginAdmin", ...
std::string toString(RequestCode code);

}  // namespace pointlane
