#include "support/NotificationCenter.h"

#include <algorithm>
#include <condition_variable>
#include <thread>

#include "support/NoDestructor.h"

namespace pointlane {

class NotificationCenter::Registration {
  public:
    Registration(std::string eventName, std::function<void()> observer)
        : name(std::move(eventName)), block(std::move(observer)) {}

    const std::string name;
    const std::function<void()> block;

    // Runs the block unless the registration was removed. Returns at once when removed.
    void deliver() {
        {
            std::lock_guard lock(mutex);
            if (removed) {
                return;
            }
            running.push_back(std::this_thread::get_id());
        }
        struct Done {
            Registration& r;
            ~Done() {
                std::lock_guard lock(r.mutex);
                auto it = std::find(r.running.begin(), r.running.end(), std::this_thread::get_id());
                if (it != r.running.end()) {
                    r.running.erase(it);
                }
                r.finished.notify_all();
            }
        } done{*this};
        block();
    }

    // Marks the registration removed and waits for deliveries on other threads to end.
    void retire() {
        std::unique_lock lock(mutex);
        removed = true;
        const auto self = std::this_thread::get_id();
        finished.wait(lock, [&] {
            return std::all_of(running.begin(), running.end(),
                               [&](std::thread::id id) { return id == self; });
        });
    }

  private:
    std::mutex mutex;
    std::condition_variable finished;
    std::vector<std::thread::id> running;  // guarded by mutex: threads inside block()
    bool removed = false;                  // guarded by mutex
};

NotificationCenter& NotificationCenter::defaultCenter() {
    static NoDestructor<NotificationCenter> center;
    return *center;
}

NotificationCenter::Token NotificationCenter::addObserver(std::string name,
                                                          std::function<void()> block) {
    auto token = std::make_shared<Registration>(std::move(name), std::move(block));
    std::lock_guard lock(mutex_);
    registrations_.push_back(token);
    return token;
}

void NotificationCenter::removeObserver(const Token& token) {
    if (!token) {
        return;
    }
    {
        std::lock_guard lock(mutex_);
        registrations_.erase(std::remove(registrations_.begin(), registrations_.end(), token),
                             registrations_.end());
    }
    token->retire();
}

void NotificationCenter::post(const std::string& name) {
    std::vector<Token> matching;
    {
        std::lock_guard lock(mutex_);
        for (const auto& r : registrations_) {
            if (r->name == name) {
                matching.push_back(r);
            }
        }
    }
    for (const auto& r : matching) {
        r->deliver();
    }
}

}  // namespace pointlane
