#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace pointlane {

// What the game tells the rest of the process (the app wires it to the table model). Each
// event is called right after its notification went out, while the registry's lock is still
// held, so events arrive one at a time in the order of the notifications; dealStored comes
// from the database queue once the deal is saved. An event that is not set is skipped.
// Handlers must not call into the registry (its lock is held) and should be quick.
//
// Threading: thread safe. install() replaces the events for the requests that follow; a set
// once installed is never destroyed, so current() may be held by a request under way.
struct GameEvents {
    std::function<void(const std::string& facilitator, const std::string& game)> gameOpened;
    std::function<void(const std::string& name)> playerJoined;
    std::function<void(const std::string& name)> playerLeft;
    std::function<void(const std::string& title)> itemPut;  // the title as sent
    std::function<void(const std::string& name)> played;    // the token owner's name
    std::function<void()> cardsOpened;
    std::function<void(const std::string& name, const std::string& card)> cardElected;
    std::function<void(const std::string& title, std::int64_t dealId)> dealStored;

    static void install(GameEvents events);
    static const GameEvents& current();
};

}  // namespace pointlane
