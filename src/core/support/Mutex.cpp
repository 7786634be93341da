#include "support/Mutex.h"

#include <cstdio>

namespace pointlane {

Mutex::Mutex(std::string name) : name_(std::move(name)) {
    // Default attributes: not recursive, no error checking. A failed initialisation shows up
    // later as a failed lock, which is reported there.
    pthread_mutex_init(&mutex_, nullptr);
}

Mutex::~Mutex() {
    pthread_mutex_destroy(&mutex_);
}

void Mutex::sync() {
    if (lock()) {
        unlock();
    }
}

bool Mutex::lock() {
    if (pthread_mutex_lock(&mutex_) != 0) {
        std::printf("Mutex.%s: can't be locked\n", name_.c_str());
        std::fflush(stdout);
        return false;
    }
    return true;
}

void Mutex::unlock() {
    if (pthread_mutex_unlock(&mutex_) != 0) {
        std::printf("Mutex.%s: can't be unlocked\n", name_.c_str());
        std::fflush(stdout);
    }
}

}  // namespace pointlane
