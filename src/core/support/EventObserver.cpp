#include "support/EventObserver.h"

namespace pointlane {

void EventObserver::registerEvent(Event event, std::function<void()> block) {
    observers.push_back(
        NotificationCenter::defaultCenter().addObserver(toString(event), std::move(block)));
}

void EventObserver::removeObservers() {
    for (const auto& token : observers) {
        NotificationCenter::defaultCenter().removeObserver(token);
    }
    observers.clear();
}

}  // namespace pointlane
