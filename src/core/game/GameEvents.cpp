#include "game/GameEvents.h"

#include <utility>

#include "support/NoDestructor.h"

namespace pointlane {

namespace {

GameEvents& installed() {
    static NoDestructor<GameEvents> events;
    return *events;
}

}  // namespace

void GameEvents::install(GameEvents events) {
    installed() = std::move(events);
}

const GameEvents& GameEvents::current() {
    return installed();
}

}  // namespace pointlane
