#include "game/LoginCounter.h"

namespace pointlane {

bool LoginCounter::take() {
    bool taken = false;
    counterMutex_.sync([&] {
        if (counter_ < counterLimit) {
            ++counter_;
            taken = true;
        }
    });
    return taken;
}

void LoginCounter::giveBack() {
    counterMutex_.sync([&] { --counter_; });
}

int LoginCounter::value() {
    int value = 0;
    counterMutex_.sync([&] { value = counter_; });
    return value;
}

void LoginCounter::reset() {
    counterMutex_.sync([&] { counter_ = 0; });
}

}  // namespace pointlane
