#include "table/TableModel.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "rules/TextRules.h"

namespace pointlane {

// One subscription. running counts the calls in progress; unsubscribe() waits for them.
struct TableModel::Listener {
    std::function<void()> call;
    int running = 0;
    bool removed = false;
};

namespace {

// Guards Listener::running and Listener::removed of every model; calls are short to count.
std::mutex& callsMutex() {
    static std::mutex mutex;
    return mutex;
}

std::condition_variable& callsDone() {
    static std::condition_variable done;
    return done;
}

// The listeners this thread is calling right now (a listener may change the model again).
thread_local std::vector<const void*> callingNow;

// Deals stored before their item arrived that are kept waiting, at most.
constexpr std::size_t kStoredEarlyLimit = 16;

std::int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace

void TableModel::change(const std::function<bool(Effects&)>& step) {
    Effects effects;
    bool changed = false;
    EstimateSink sink;
    std::vector<std::shared_ptr<Listener>> listeners;
    mutex_.sync([&] {
        changed = step(effects);
        if (!changed) {
            return;
        }
        ++state_.version;
        if (!effects.estimates.empty()) {
            sink = sink_;
        }
        listeners.reserve(listeners_.size());
        for (const auto& [id, listener] : listeners_) {
            listeners.push_back(listener);
        }
    });
    if (!changed) {
        return;
    }
    if (sink) {
        for (const auto& [dealId, value] : effects.estimates) {
            sink(dealId, value);
        }
    }
    for (const auto& listener : listeners) {
        {
            std::lock_guard lock(callsMutex());
            if (listener->removed) {
                continue;
            }
            ++listener->running;
        }
        callingNow.push_back(listener.get());
        listener->call();
        callingNow.pop_back();
        {
            std::lock_guard lock(callsMutex());
            --listener->running;
        }
        callsDone().notify_all();
    }
}

TableSeat* TableModel::seatLocked(const std::string& name) {
    for (TableSeat& seat : state_.seats) {
        if (seat.name == name) {
            return &seat;
        }
    }
    return nullptr;
}

TableItem* TableModel::itemLocked(int number) {
    if (state_.current && state_.current->number == number) {
        return &*state_.current;
    }
    for (TableItem& item : state_.items) {
        if (item.number == number) {
            return &item;
        }
    }
    return nullptr;
}

void TableModel::countPlayedLocked() {
    state_.played = static_cast<std::size_t>(std::count_if(
        state_.seats.begin(), state_.seats.end(), [](const TableSeat& s) { return s.played; }));
}

void TableModel::gameOpened(const std::string& facilitator, const std::string& game) {
    change([&](Effects&) {
        state_.phase = Phase::open;
        state_.game = game;
        state_.facilitator = facilitator;
        state_.seats.clear();
        state_.current.reset();
        state_.items.clear();
        state_.countdownEndsAtMs.reset();
        storedEarly_.clear();
        TableSeat seat;
        seat.name = facilitator;
        seat.facilitator = true;
        for (const auto& [name, present] : webNames_) {
            if (sameName(name, facilitator)) {
                seat.web = true;
                seat.present = present;
            }
        }
        state_.seats.push_back(std::move(seat));
        countPlayedLocked();
        return true;
    });
}

void TableModel::playerJoined(const std::string& name) {
    change([&](Effects&) {
        if (state_.phase != Phase::open || seatLocked(name) != nullptr) {
            return false;
        }
        TableSeat seat;
        seat.name = name;
        for (const auto& [webName, present] : webNames_) {
            if (sameName(webName, name)) {
                seat.web = true;
                seat.present = present;
            }
        }
        state_.seats.push_back(std::move(seat));
        return true;
    });
}

void TableModel::playerLeft(const std::string& name) {
    change([&](Effects&) {
        std::erase_if(webNames_, [&](const auto& entry) { return sameName(entry.first, name); });
        const auto seat = std::find_if(state_.seats.begin(), state_.seats.end(),
                                       [&](const TableSeat& s) { return s.name == name; });
        if (seat == state_.seats.end()) {
            return false;
        }
        if (seat->facilitator) {
            // The facilitator's leaving ends the game: the registry is emptied with it.
            state_.phase = Phase::ended;
            state_.seats.clear();
            state_.countdownEndsAtMs.reset();
            webNames_.clear();
        } else {
            state_.seats.erase(seat);
        }
        countPlayedLocked();
        return true;
    });
}

void TableModel::itemPut(const std::string& title) {
    change([&](Effects&) {
        if (state_.phase != Phase::open) {
            return false;
        }
        TableItem item;
        item.number = static_cast<int>(state_.items.size()) + (state_.current ? 2 : 1);
        item.title = trimmed(title);
        item.statistics = RoundStatistics::of({}, state_.deck);
        const auto early =
            std::find_if(storedEarly_.begin(), storedEarly_.end(),
                         [&](const auto& stored) { return stored.first == item.title; });
        if (early != storedEarly_.end()) {
            item.dealId = early->second;
            storedEarly_.erase(early);
        }
        if (state_.current) {
            state_.items.push_back(std::move(*state_.current));
        }
        state_.current = std::move(item);
        for (TableSeat& seat : state_.seats) {
            seat.played = false;
        }
        state_.played = 0;
        state_.countdownEndsAtMs.reset();
        return true;
    });
}

void TableModel::played(const std::string& name) {
    change([&](Effects&) {
        TableSeat* seat = seatLocked(name);
        if (state_.phase != Phase::open || !state_.current || seat == nullptr || seat->played) {
            return false;
        }
        seat->played = true;
        countPlayedLocked();
        return true;
    });
}

void TableModel::cardsOpened() {
    change([&](Effects&) {
        if (state_.phase != Phase::open || !state_.current || state_.current->opened) {
            return false;
        }
        state_.current->opened = true;
        state_.countdownEndsAtMs.reset();
        return true;
    });
}

void TableModel::cardElected(const std::string& name, const std::string& card) {
    change([&](Effects&) {
        const std::string who = trimmed(name);
        std::string what = trimmed(card);
        if (state_.phase != Phase::open || !state_.current || who.empty() || what.empty()) {
            return false;
        }
        std::vector<TableCard>& cards = state_.current->cards;
        const auto earlier = std::find_if(cards.begin(), cards.end(),
                                          [&](const TableCard& c) { return c.name == who; });
        if (earlier == cards.end()) {
            cards.push_back(TableCard{who, std::move(what)});
        } else if (earlier->card == what) {
            return false;
        } else {
            earlier->card = std::move(what);
        }
        std::vector<std::string> texts;
        texts.reserve(cards.size());
        for (const TableCard& c : cards) {
            texts.push_back(c.card);
        }
        state_.current->statistics = RoundStatistics::of(std::move(texts), state_.deck);
        return true;
    });
}

void TableModel::dealStored(const std::string& title, std::int64_t dealId) {
    change([&](Effects& effects) {
        std::string wanted = trimmed(title);
        TableItem* found = nullptr;
        for (TableItem& item : state_.items) {
            if (!item.dealId && item.title == wanted) {
                found = &item;
                break;
            }
        }
        if (found == nullptr && state_.current && !state_.current->dealId &&
            state_.current->title == wanted) {
            found = &*state_.current;
        }
        if (found == nullptr) {
            // Its item is still on the way (or its game has gone): it waits, in bounds.
            if (storedEarly_.size() == kStoredEarlyLimit) {
                storedEarly_.erase(storedEarly_.begin());
            }
            storedEarly_.emplace_back(std::move(wanted), dealId);
            return false;
        }
        found->dealId = dealId;
        if (found->estimate) {
            effects.estimates.emplace_back(dealId, *found->estimate);
        }
        return true;
    });
}

void TableModel::setWebSeat(const std::string& name, bool present) {
    change([&](Effects&) {
        auto entry = std::find_if(webNames_.begin(), webNames_.end(),
                                  [&](const auto& e) { return sameName(e.first, name); });
        if (entry == webNames_.end()) {
            webNames_.emplace_back(name, present);
        } else {
            entry->second = present;
        }
        for (TableSeat& seat : state_.seats) {
            if (sameName(seat.name, name) && (!seat.web || seat.present != present)) {
                seat.web = true;
                seat.present = present;
                return true;
            }
        }
        return false;
    });
}

void TableModel::setDeck(Deck deck) {
    change([&](Effects&) {
        if (state_.deck == deck) {
            return false;
        }
        state_.deck = std::move(deck);
        if (state_.current) {
            state_.current->statistics =
                RoundStatistics::of(state_.current->statistics.cards, state_.deck);
        }
        return true;
    });
}

void TableModel::setSettings(TableSettings settings) {
    change([&](Effects&) {
        if (state_.settings == settings) {
            return false;
        }
        state_.settings = settings;
        return true;
    });
}

void TableModel::setAgenda(std::vector<std::string> titles) {
    change([&](Effects&) {
        std::vector<std::string> agenda;
        agenda.reserve(titles.size());
        for (const std::string& title : titles) {
            if (std::string text = trimmed(title); !text.empty()) {
                agenda.push_back(std::move(text));
            }
        }
        if (state_.agenda == agenda) {
            return false;
        }
        state_.agenda = std::move(agenda);
        return true;
    });
}

std::optional<std::string> TableModel::takeNextAgendaItem() {
    std::optional<std::string> next;
    change([&](Effects&) {
        if (state_.agenda.empty()) {
            return false;
        }
        next = std::move(state_.agenda.front());
        state_.agenda.erase(state_.agenda.begin());
        return true;
    });
    return next;
}

bool TableModel::recordEstimate(int itemNumber, const std::string& card) {
    bool recorded = false;
    change([&](Effects& effects) {
        TableItem* item = itemLocked(itemNumber);
        std::string value = trimmed(card);
        if (item == nullptr || !item->opened || value.empty()) {
            return false;
        }
        recorded = true;
        if (item->estimate == value) {
            return false;
        }
        item->estimate = value;
        if (item->dealId) {
            effects.estimates.emplace_back(*item->dealId, std::move(value));
        }
        return true;
    });
    return recorded;
}

void TableModel::setEstimateSink(EstimateSink sink) {
    mutex_.sync([&] { sink_ = std::move(sink); });
}

void TableModel::startCountdown(int seconds) {
    if (seconds <= 0) {
        cancelCountdown();
        return;
    }
    change([&](Effects&) {
        state_.countdownEndsAtMs = nowMs() + static_cast<std::int64_t>(seconds) * 1000;
        return true;
    });
}

void TableModel::cancelCountdown() {
    change([&](Effects&) {
        if (!state_.countdownEndsAtMs) {
            return false;
        }
        state_.countdownEndsAtMs.reset();
        return true;
    });
}

void TableModel::setSavingFailed(bool failing) {
    change([&](Effects&) {
        if (state_.savingFailed == failing) {
            return false;
        }
        state_.savingFailed = failing;
        return true;
    });
}

TableSnapshot TableModel::snapshot() const {
    TableSnapshot copy;
    mutex_.sync([&] { copy = state_; });
    return copy;
}

bool TableModel::everyonePlayed() const {
    bool result = false;
    mutex_.sync([&] {
        result = state_.phase == Phase::open && state_.current && !state_.current->opened &&
                 !state_.seats.empty() && state_.played == state_.seats.size();
    });
    return result;
}

TableModel::JoinCheck TableModel::checkStart() const {
    JoinCheck result = JoinCheck::gameOpen;
    mutex_.sync(
        [&] { result = state_.phase == Phase::open ? JoinCheck::gameOpen : JoinCheck::ok; });
    return result;
}

TableModel::JoinCheck TableModel::checkJoin(const std::string& name) const {
    JoinCheck result = JoinCheck::noGame;
    mutex_.sync([&] {
        if (state_.phase != Phase::open) {
            result = JoinCheck::noGame;
        } else if (state_.seats.size() >= kSeats) {
            result = JoinCheck::full;
        } else if (std::any_of(state_.seats.begin(), state_.seats.end(),
                               [&](const TableSeat& s) { return sameName(s.name, name); })) {
            result = JoinCheck::nameTaken;
        } else {
            result = JoinCheck::ok;
        }
    });
    return result;
}

int TableModel::subscribe(std::function<void()> listener) {
    auto entry = std::make_shared<Listener>();
    entry->call = std::move(listener);
    int id = 0;
    mutex_.sync([&] {
        id = nextListener_++;
        listeners_.emplace(id, std::move(entry));
    });
    return id;
}

void TableModel::unsubscribe(int id) {
    std::shared_ptr<Listener> entry;
    mutex_.sync([&] {
        if (auto it = listeners_.find(id); it != listeners_.end()) {
            entry = std::move(it->second);
            listeners_.erase(it);
        }
    });
    if (!entry) {
        return;
    }
    // A call already under way on another thread finishes first; a listener that unsubscribes
    // itself doesn't wait for its own call.
    const int own = static_cast<int>(std::count(callingNow.begin(), callingNow.end(), entry.get()));
    std::unique_lock lock(callsMutex());
    entry->removed = true;
    callsDone().wait(lock, [&] { return entry->running <= own; });
}

void TableModel::reset() {
    change([&](Effects&) {
        const std::uint64_t version = state_.version;
        state_ = TableSnapshot{};
        state_.version = version;
        webNames_.clear();
        storedEarly_.clear();
        return true;
    });
}

}  // namespace pointlane
