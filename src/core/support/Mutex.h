#pragma once

#include <pthread.h>

#include <string>
#include <utility>

namespace pointlane {

// A named, non-recursive POSIX mutex. The name appears only in the two failure lines
// "Mutex.<name>: can't be locked" and "Mutex.<name>: can't be unlocked" (standard output).
//
// Thread safe. A block passed to sync() must not call sync() on the same Mutex, directly or
// through another operation: the lock is not recursive and the thread would block for ever.
class Mutex final {
  public:
    explicit Mutex(std::string name);
    ~Mutex();
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    // Runs block while holding the lock. When the lock can't be taken the failure line is
    // printed and block does not run, so callers preset whatever the block would have set.
    template <class Block>
    void sync(Block&& block) {
        if (!lock()) {
            return;
        }
        struct Unlock {
            Mutex& m;
            ~Unlock() { m.unlock(); }
        } unlockOnExit{*this};
        std::forward<Block>(block)();
    }

    // Locks and unlocks without running anything.
    void sync();

    const std::string& name() const { return name_; }

  private:
    bool lock();
    void unlock();

    pthread_mutex_t mutex_;
    std::string name_;
};

}  // namespace pointlane
