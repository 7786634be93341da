#pragma once

#include <functional>
#include <vector>

#include "support/Event.h"
#include "support/NotificationCenter.h"

namespace pointlane {

// Mixin for a class that listens to change announcements. Blocks run on the posting thread.
// The owner calls removeObservers() in its destructor, before anything the blocks use is gone.
class EventObserver {
  public:
    // Registers block for the event on the default centre and keeps the token. Registering the
    // same event twice gives two registrations and two calls per announcement.
    void registerEvent(Event event, std::function<void()> block);
    // Removes every registration, in order, waiting for deliveries running on other threads.
    void removeObservers();

    std::vector<NotificationCenter::Token> observers;

  protected:
    EventObserver() = default;
    ~EventObserver() = default;
};

}  // namespace pointlane
