#include "game/GameState.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <utility>

namespace pointlane {

namespace {

// 0 stands for "absent": row ids are always above 0.
std::atomic<std::int64_t> gameID{0};
std::atomic<std::int64_t> dealID{0};

std::mutex endMutex;
std::function<void(int)>* processEnd = nullptr;  // guarded by endMutex; leaked on purpose

std::optional<std::int64_t> fromStored(std::int64_t value) {
    if (value > 0) {
        return value;
    }
    return std::nullopt;
}

std::int64_t toStored(std::optional<std::int64_t> id) {
    return id && *id > 0 ? *id : 0;
}

}  // namespace

std::optional<std::int64_t> GameState::currentGameID() {
    return fromStored(gameID.load());
}

void GameState::setCurrentGameID(std::optional<std::int64_t> id) {
    gameID.store(toStored(id));
}

std::optional<std::int64_t> GameState::currentDealID() {
    return fromStored(dealID.load());
}

void GameState::setCurrentDealID(std::optional<std::int64_t> id) {
    dealID.store(toStored(id));
}

void GameState::setProcessEnd(std::function<void(int)> end) {
    std::lock_guard lock(endMutex);
    if (processEnd == nullptr) {
        processEnd = new std::function<void(int)>();
    }
    *processEnd = std::move(end);
}

void GameState::endProcess(int status) {
    std::function<void(int)> end;
    {
        std::lock_guard lock(endMutex);
        if (processEnd != nullptr) {
            end = *processEnd;
        }
    }
    if (end) {
        end(status);
        return;
    }
    // Static destructors are skipped on purpose: detached connection threads may still be
    // running and would race them.
    std::fflush(stdout);
    std::fflush(stderr);
    std::_Exit(status);
}

void GameState::reset() {
    gameID.store(0);
    dealID.store(0);
    setProcessEnd(nullptr);
}

}  // namespace pointlane
