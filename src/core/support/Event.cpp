#include "support/Event.h"

#include <array>
#include <utility>

#include "support/DeferredPosts.h"
#include "support/NotificationCenter.h"

namespace pointlane {

namespace {
constexpr std::array<std::pair<Event, std::string_view>, 4> kNames{{
    {Event::playerTableDidChange, "playerTableDidChange"},
    {Event::gameTableDidChange, "gameTableDidChange"},
    {Event::dealTableDidChange, "dealTableDidChange"},
    {Event::electionTableDidChange, "electionTableDidChange"},
}};
}  // namespace

std::string toString(Event event) {
    for (const auto& [e, name] : kNames) {
        if (e == event) {
            return std::string(name);
        }
    }
    return {};
}

std::optional<Event> eventFrom(std::string_view text) {
    for (const auto& [e, name] : kNames) {
        if (name == text) {
            return e;
        }
    }
    return std::nullopt;
}

void post(Event event) {
    if (DeferredPosts* deferred = DeferredPosts::current()) {
        deferred->collect(event);
        return;
    }
    NotificationCenter::defaultCenter().post(toString(event));
}

}  // namespace pointlane
