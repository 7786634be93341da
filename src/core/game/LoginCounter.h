#pragma once

#include "support/Mutex.h"

namespace pointlane {

// The login limit's count: the logins currently admitted, at most counterLimit. A login takes
// one count before any other check and keeps it even when a later check refuses it; only a
// logout gives one back.
//
// Thread safe: every operation holds the mutex "pointlane.thread.counter", and never any other
// lock while it does.
class LoginCounter final {
  public:
    static constexpr int counterLimit = 5;

    LoginCounter() = default;
    LoginCounter(const LoginCounter&) = delete;
    LoginCounter& operator=(const LoginCounter&) = delete;

    // Takes one count when one is free; false when the limit is reached.
    bool take();
    // Gives one count back.
    void giveBack();
    // The counts taken now.
    int value();
    // Back to no count taken: a fresh start, and tests.
    void reset();

  private:
    Mutex counterMutex_{"pointlane.thread.counter"};
    int counter_ = 0;  // guarded by counterMutex_
};

}  // namespace pointlane
