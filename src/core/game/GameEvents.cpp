#include "game/GameEvents.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "support/NoDestructor.h"

namespace pointlane {

namespace {

// Every set of events ever installed stays alive, so a connection thread that still holds the
// set it read is never left with a dangling reference; installs are rare (once in a run).
struct Installed {
    std::mutex mutex;
    std::vector<std::unique_ptr<const GameEvents>> all;  // guarded by mutex
    std::atomic<const GameEvents*> current{nullptr};
};

Installed& installed() {
    static NoDestructor<Installed> state;
    return *state;
}

}  // namespace

void GameEvents::install(GameEvents events) {
    Installed& state = installed();
    std::lock_guard lock(state.mutex);
    state.all.push_back(std::make_unique<const GameEvents>(std::move(events)));
    state.current.store(state.all.back().get(), std::memory_order_release);
}

const GameEvents& GameEvents::current() {
    static const GameEvents none;
    const GameEvents* events = installed().current.load(std::memory_order_acquire);
    return events != nullptr ? *events : none;
}

}  // namespace pointlane
