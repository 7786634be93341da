#pragma once

namespace pointlane {

// The pages of the monitor window; the value is the page control's segment index.
enum class StackedViewIndex {
    players = 0,
    history = 1,
};

}  // namespace pointlane
