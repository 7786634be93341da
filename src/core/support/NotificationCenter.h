#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace pointlane {

// In-process publish/subscribe by name. post() calls every block registered for the name,
// one after another, on the posting thread, before it returns. Registrations are identified
// by the token that addObserver() returns.
//
// Thread safe. removeObserver() waits until a delivery to that registration that is running
// on another thread has finished, so the owner of the block may be destroyed right after it;
// called from inside that registration's own block it does not wait (and does not deadlock).
class NotificationCenter final {
  public:
    class Registration;
    using Token = std::shared_ptr<Registration>;

    NotificationCenter() = default;
    NotificationCenter(const NotificationCenter&) = delete;
    NotificationCenter& operator=(const NotificationCenter&) = delete;

    // The process-wide centre.
    static NotificationCenter& defaultCenter();

    Token addObserver(std::string name, std::function<void()> block);
    void removeObserver(const Token& token);
    void post(const std::string& name);

  private:
    std::mutex mutex_;
    std::vector<Token> registrations_;  // guarded by mutex_
};

}  // namespace pointlane
