#pragma once

#include <vector>

#include "support/Event.h"

namespace pointlane {

// While one lives on a thread, post() on that thread collects the events here instead of
// delivering them; its owner delivers them later (deliver()) or drops them (the destructor, or
// take() and discard). The database queue uses one per block, so that a block's change
// announcements go out only once its rows are committed. Nested scopes stack: the innermost
// collects, and the outer one is back in place when it ends.
//
// Threading: confined to the thread that created it.
class DeferredPosts final {
  public:
    DeferredPosts();
    ~DeferredPosts();
    DeferredPosts(const DeferredPosts&) = delete;
    DeferredPosts& operator=(const DeferredPosts&) = delete;

    // The events collected so far, in posting order; the scope is empty afterwards.
    std::vector<Event> take();

    // The scope collecting on this thread, or nullptr.
    static DeferredPosts* current();
    // Records an event posted on this thread while this scope collects.
    void collect(Event event) { events_.push_back(event); }

  private:
    std::vector<Event> events_;
    DeferredPosts* previous_;
};

}  // namespace pointlane
