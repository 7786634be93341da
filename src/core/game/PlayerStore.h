#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "game/Player.h"
#include "support/Bytes.h"
#include "support/Mutex.h"
#include "transport/RequestCode.h"

namespace pointlane {

// The registry of logged-in players by token, the game's name, and the notifications pushed
// to every registered player.
//
// Threading: thread safe. Every operation, the notifications' socket writes included, runs
// while holding the lock "pointlane.TokenStore", so notifications of different requests never
// interleave on a client's connection and are serialised with logins and logouts. The lock is
// not recursive: no operation calls another while holding it.
class PlayerStore final {
  public:
    static constexpr int kTokenLength = 32;
    // How long one notification may wait, in all, for client servers that have stopped
    // reading: it is written to every recipient at once, so the registry's lock is held no
    // longer than this however many of them stall. A recipient that hasn't got its whole frame
    // by then has its push connection shut down: it stays registered, and later notifications
    // to it fail at once.
    static constexpr std::chrono::milliseconds kNotificationBound{2000};

    // Why tryAdd() refused a player.
    enum class AddRefusal { none, adminAlreadyRegistered, adminNotRegistered, nameInUse };
    struct AddResult {
        std::string token;  // empty when refused
        AddRefusal refusal = AddRefusal::none;
    };

    // The one registry, created on first use and never destroyed: detached connection threads
    // may still reach it while the process ends.
    static PlayerStore& shared();

    PlayerStore() = default;
    PlayerStore(const PlayerStore&) = delete;
    PlayerStore& operator=(const PlayerStore&) = delete;

    bool existsAdmin();
    // Files the player under a fresh token and returns the token.
    std::string add(std::shared_ptr<Player> player);
    // add() that re-checks, under the same lock, what the login handlers checked earlier, so
    // that concurrent logins can't register two administrators or one name twice: an
    // administrator only when none is registered; any other player only while an administrator
    // is registered and its name is not in use. whenAdded runs under the lock right after the
    // player is filed (not when refused); it must not call the registry.
    AddResult tryAdd(std::shared_ptr<Player> player, const std::function<void()>& whenAdded = {});
    // Case-insensitive by the current locale's lower-casing; canonically equivalent texts are
    // equal. Not trimmed.
    bool isNameInUse(const std::string& name);
    bool contains(const std::string& token);
    // The name of the player filed under the token; nothing when the token is unknown.
    std::optional<std::string> nameOf(const std::string& token);
    std::shared_ptr<Player> remove(const std::string& token);
    // The JSON array of the registered players' names; nothing when it can't be serialised.
    std::optional<Bytes> jsonObject();
    // Drops every player; gameName stays.
    void removeAll();
    std::size_t count();

    std::optional<std::string> gameName();
    void setGameName(std::optional<std::string> name);

    // Notifications to every registered player, each carrying the recipient's own token.
    // afterSending runs under the lock once the notification went out, so whatever it does
    // happens in notification order; it must not call the registry.
    using AfterSending = std::function<void()>;
    void addedPlayerBroadcast(const std::string& name, const AfterSending& afterSending = {});
    void removedPlayerBroadcast(const std::string& name, const AfterSending& afterSending = {});
    void newDealBroadcast(const std::optional<Bytes>& data, const AfterSending& afterSending = {});
    void playBroadcast(const AfterSending& afterSending = {});
    void openCardsBroadcast(const AfterSending& afterSending = {});
    void cardElectedBroadcast(const std::optional<Bytes>& data,
                              const AfterSending& afterSending = {});

    // Tests only: drops every player and forgets the game's name.
    void reset();

  private:
    // Locks and sends one notification with the given code and data to everyone.
    void broadcast(RequestCode code, const std::optional<Bytes>& data,
                   const AfterSending& afterSending);
    // The same, with data {"player_name": name}.
    void nameBroadcast(RequestCode code, const std::string& name, const AfterSending& afterSending);
    // Requires mutex_ held.
    bool nameInUseLocked(const std::string& name) const;
    bool existsAdminLocked() const;
    std::string newTokenLocked() const;

    Mutex mutex_{"pointlane.TokenStore"};
    std::map<std::string, std::shared_ptr<Player>> data_;  // guarded by mutex_
    std::optional<std::string> gameName_;                  // guarded by mutex_
};

}  // namespace pointlane
