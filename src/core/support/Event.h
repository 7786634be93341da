#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace pointlane {

// The names of the in-process change announcements; each value's text is its name.
enum class Event {
    playerTableDidChange,
    gameTableDidChange,
    dealTableDidChange,
    electionTableDidChange,
};

// "playerTableDidChange", ...
std::string toString(Event event);
// Exactly the four texts (case-sensitive); anything else gives nothing.
std::optional<Event> eventFrom(std::string_view text);

// Posts the event by its text on the default notification centre; while a DeferredPosts scope
// lives on this thread, the event is collected there instead.
void post(Event event);

}  // namespace pointlane
