#include "app/SchemaLocation.h"

#include <filesystem>
#include <system_error>

namespace pointlane {

std::optional<std::string> SchemaLocation::find() {
    std::error_code ec;
    const auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (!ec) {
        const auto candidate = exe.parent_path() / "Schema.sql";
        if (std::filesystem::exists(candidate, ec)) {
            return candidate.string();
        }
#ifdef POINTLANE_DATA_DIR_FROM_BIN
        // An installed tree moved elsewhere (another prefix, a package) keeps its layout.
        const auto installed = exe.parent_path() / POINTLANE_DATA_DIR_FROM_BIN / "Schema.sql";
        if (std::filesystem::exists(installed, ec)) {
            return installed.lexically_normal().string();
        }
#endif
    }
#ifdef POINTLANE_DATA_DIR
    const std::filesystem::path installed =
        std::filesystem::path(POINTLANE_DATA_DIR) / "Schema.sql";
    if (std::filesystem::exists(installed, ec)) {
        return installed.string();
    }
#endif
    return std::nullopt;
}

}  // namespace pointlane
