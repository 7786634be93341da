#include "support/DeferredPosts.h"

#include <utility>

namespace pointlane {

namespace {
thread_local DeferredPosts* collecting = nullptr;
}  // namespace

DeferredPosts::DeferredPosts() : previous_(collecting) {
    collecting = this;
}

DeferredPosts::~DeferredPosts() {
    collecting = previous_;
}

std::vector<Event> DeferredPosts::take() {
    return std::exchange(events_, {});
}

DeferredPosts* DeferredPosts::current() {
    return collecting;
}

}  // namespace pointlane
