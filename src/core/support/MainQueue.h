#pragma once

#include <functional>
#include <memory>

namespace pointlane {

// The main thread's queue, seen from the core. The application installs the implementation
// backed by its event loop before it serves anything; tests install a manual one. Blocks
// handed over while no queue is installed are dropped.
//
// Thread safe: async() and after() may be called from any thread; blocks run on the main thread.
class MainQueue {
  public:
    virtual ~MainQueue() = default;

    // Runs block on the main thread as soon as the loop gets to it.
    virtual void async(std::function<void()> block) = 0;
    // Runs block once on the main thread, `seconds` from now.
    virtual void after(double seconds, std::function<void()> block) = 0;

    // Installs (or, with nullptr, removes) the process's main queue.
    static void install(std::shared_ptr<MainQueue> queue);
    static std::shared_ptr<MainQueue> current();
};

// Shorthands for MainQueue::current()->async / after.
void mainAsync(std::function<void()> block);
void after(double seconds, std::function<void()> block);

}  // namespace pointlane
