#include "storage/SQLiteStatusCode.h"

namespace pointlane {

std::optional<SQLiteStatusCode> sqliteStatusCodeFrom(std::int32_t value) {
    if ((value >= 0 && value <= 26) || value == 100 || value == 101 ||
        (value >= 1000 && value <= 1002)) {
        return static_cast<SQLiteStatusCode>(value);
    }
    return std::nullopt;
}

}  // namespace pointlane
