#include "app/ExportCommand.h"

#include <cstdio>

namespace pointlane {

// This build has no history export: say so and fail.
int exportHistory(const ExportOptions&) {
    std::fputs("pointlane export: not available in this build\n", stderr);
    return 1;
}

}  // namespace pointlane
