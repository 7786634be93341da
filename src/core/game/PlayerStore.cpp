#include "game/PlayerStore.h"

#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "rules/TextRules.h"
#include "support/NoDestructor.h"
#include "support/ToolBox.h"
#include "transport/Frame.h"
#include "transport/Request.h"

namespace pointlane {

PlayerStore& PlayerStore::shared() {
    static NoDestructor<PlayerStore> store;
    return *store;
}

bool PlayerStore::existsAdminLocked() const {
    for (const auto& [token, player] : data_) {
        if (player->isAdmin) {
            return true;
        }
    }
    return false;
}

bool PlayerStore::nameInUseLocked(const std::string& name) const {
    for (const auto& [token, player] : data_) {
        if (sameName(player->name, name)) {
            return true;
        }
    }
    return false;
}

std::string PlayerStore::newTokenLocked() const {
    for (;;) {
        std::string token = ToolBox::randomString(kTokenLength);
        if (data_.find(token) == data_.end()) {
            return token;
        }
    }
}

bool PlayerStore::existsAdmin() {
    bool result = false;
    mutex_.sync([&] { result = existsAdminLocked(); });
    return result;
}

std::string PlayerStore::add(std::shared_ptr<Player> player) {
    std::string token;
    mutex_.sync([&] {
        token = newTokenLocked();
        data_.emplace(token, std::move(player));
    });
    return token;
}

PlayerStore::AddResult PlayerStore::tryAdd(std::shared_ptr<Player> player,
                                           const std::function<void()>& whenAdded) {
    AddResult result;
    result.refusal = AddRefusal::adminNotRegistered;  // what a lock failure leaves
    mutex_.sync([&] {
        const bool hasAdmin = existsAdminLocked();
        if (player->isAdmin && hasAdmin) {
            result.refusal = AddRefusal::adminAlreadyRegistered;
        } else if (!player->isAdmin && !hasAdmin) {
            result.refusal = AddRefusal::adminNotRegistered;
        } else if (!player->isAdmin && nameInUseLocked(player->name)) {
            result.refusal = AddRefusal::nameInUse;
        } else {
            result.refusal = AddRefusal::none;
            result.token = newTokenLocked();
            data_.emplace(result.token, std::move(player));
            if (whenAdded) {
                whenAdded();
            }
        }
    });
    return result;
}

bool PlayerStore::isNameInUse(const std::string& name) {
    bool result = false;
    mutex_.sync([&] { result = nameInUseLocked(name); });
    return result;
}

bool PlayerStore::contains(const std::string& token) {
    bool result = false;
    mutex_.sync([&] { result = data_.find(token) != data_.end(); });
    return result;
}

std::optional<std::string> PlayerStore::nameOf(const std::string& token) {
    std::optional<std::string> result;
    mutex_.sync([&] {
        if (auto it = data_.find(token); it != data_.end()) {
            result = it->second->name;
        }
    });
    return result;
}

std::shared_ptr<Player> PlayerStore::remove(const std::string& token) {
    std::shared_ptr<Player> removed;
    mutex_.sync([&] {
        auto it = data_.find(token);
        if (it != data_.end()) {
            removed = std::move(it->second);
            data_.erase(it);
        }
    });
    return removed;
}

std::optional<Bytes> PlayerStore::jsonObject() {
    std::optional<Bytes> result;
    mutex_.sync([&] {
        nlohmann::json names = nlohmann::json::array();
        for (const auto& [token, player] : data_) {
            names.push_back(player->name);
        }
        result = ToolBox::toJsonObject(names);
    });
    return result;
}

void PlayerStore::removeAll() {
    // The players are destroyed (and their push connections shut) outside the lock.
    std::map<std::string, std::shared_ptr<Player>> dropped;
    mutex_.sync([&] { dropped.swap(data_); });
}

std::size_t PlayerStore::count() {
    std::size_t result = 0;
    mutex_.sync([&] { result = data_.size(); });
    return result;
}

std::optional<std::string> PlayerStore::gameName() {
    std::optional<std::string> result;
    mutex_.sync([&] { result = gameName_; });
    return result;
}

void PlayerStore::setGameName(std::optional<std::string> name) {
    mutex_.sync([&] { gameName_ = std::move(name); });
}

void PlayerStore::reset() {
    std::map<std::string, std::shared_ptr<Player>> dropped;
    mutex_.sync([&] {
        dropped.swap(data_);
        gameName_.reset();
    });
}

void PlayerStore::broadcast(RequestCode code, const std::optional<Bytes>& data,
                            const AfterSending& afterSending) {
    mutex_.sync([&] {
        Request notification;
        notification.request = code;
        notification.data = data;
        std::vector<OutgoingFrame> frames;
        frames.reserve(data_.size());
        for (const auto& [token, player] : data_) {
            notification.token = token;
            std::optional<Bytes> body = notification.json();
            if (!body) {
                continue;  // skipped for this recipient only
            }
            frames.push_back(OutgoingFrame{player->clientSocket, std::move(*body)});
        }
        sendFrames(frames, std::chrono::steady_clock::now() + kNotificationBound);
        if (afterSending) {
            afterSending();
        }
    });
}

void PlayerStore::nameBroadcast(RequestCode code, const std::string& name,
                                const AfterSending& afterSending) {
    // The object is the same for every recipient, so it is serialised once; when it can't be,
    // nobody gets the notification.
    const std::optional<Bytes> data = ToolBox::toJsonObject(nlohmann::json{{"player_name", name}});
    if (data) {
        broadcast(code, data, afterSending);
    } else if (afterSending) {
        mutex_.sync([&] { afterSending(); });
    }
}

void PlayerStore::addedPlayerBroadcast(const std::string& name, const AfterSending& afterSending) {
    nameBroadcast(RequestCode::playerAdded, name, afterSending);
}

void PlayerStore::removedPlayerBroadcast(const std::string& name,
                                         const AfterSending& afterSending) {
    nameBroadcast(RequestCode::playerRemoved, name, afterSending);
}

void PlayerStore::newDealBroadcast(const std::optional<Bytes>& data,
                                   const AfterSending& afterSending) {
    broadcast(RequestCode::initNewDeal, data, afterSending);
}

void PlayerStore::playBroadcast(const AfterSending& afterSending) {
    broadcast(RequestCode::play, std::nullopt, afterSending);
}

void PlayerStore::openCardsBroadcast(const AfterSending& afterSending) {
    broadcast(RequestCode::openCards, std::nullopt, afterSending);
}

void PlayerStore::cardElectedBroadcast(const std::optional<Bytes>& data,
                                       const AfterSending& afterSending) {
    broadcast(RequestCode::cardElected, data, afterSending);
}

}  // namespace pointlane
