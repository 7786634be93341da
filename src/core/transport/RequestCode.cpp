#include "transport/RequestCode.h"

namespace pointlane {

std::optional<RequestCode> requestCodeFrom(std::int64_t value) {
    if (value < 0 || value > 8) {
        return std::nullopt;
    }
    return static_cast<RequestCode>(value);
}

std::string toString(RequestCode code) {
    switch (code) {
        case RequestCode::loginAdmin:
            return "loginAdmin";
        case RequestCode::loginPlayer:
            return "loginPlayer";
        case RequestCode::logout:
            return "logout";
        case RequestCode::initNewDeal:
            return "initNewDeal";
        case RequestCode::play:
            return "play";
        case RequestCode::openCards:
            return "openCards";
        case RequestCode::playerAdded:
            return "playerAdded";
        case RequestCode::playerRemoved:
            return "playerRemoved";
        case RequestCode::cardElected:
            return "cardElected";
    }
    return std::to_string(static_cast<int>(code));
}

}  // namespace pointlane
