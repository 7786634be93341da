#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "rules/Deck.h"
#include "support/Mutex.h"
#include "table/TableSnapshot.h"

namespace pointlane {

// The running game's table, one for the process: who sits at it, the current item, who has
// played, the opened cards with their statistics, this game's earlier items, and what the web
// table adds (deck, agenda, settings, countdown, final estimates). Fed by the game's events in
// the order of their notifications; every page is drawn from its snapshot, so a page that
// arrives late or reloads sees the table as it is.
//
// Threading: thread safe, any thread. One internal lock ("pointlane.TableModel") guards the
// state; it is never held while a listener or the estimate sink runs. Game events arrive while
// the caller holds the game registry's lock, so listeners and the sink must not call into the
// game registry: they read the snapshot or hand the work on.
class TableModel final {
  public:
    static constexpr std::size_t kSeats = 5;
    using Phase = TableSnapshot::Phase;
    enum class JoinCheck { ok, noGame, gameOpen, nameTaken, full };
    using EstimateSink = std::function<void(std::int64_t dealId, const std::string& value)>;

    TableModel() = default;
    TableModel(const TableModel&) = delete;
    TableModel& operator=(const TableModel&) = delete;

    // Game events, in notification order.
    // A fresh game: seats, items and countdown are cleared and the facilitator takes the first
    // seat; deck, settings and agenda (chosen before the start) stay.
    void gameOpened(const std::string& facilitator, const std::string& game);
    void playerJoined(const std::string& name);
    // The seat goes, with its played flag; the facilitator leaving ends the game (phase ended
    // until the next gameOpened).
    void playerLeft(const std::string& name);
    // A new current item; the earlier current one moves to items.
    void itemPut(const std::string& title);
    void played(const std::string& name);
    void cardsOpened();
    // The card of a name on the current item: one per name, the latest wins.
    void cardElected(const std::string& name, const std::string& card);
    // The deal stored for this title: the oldest item with that (trimmed) title and no row id
    // yet gets it (deals are stored in the order they were put up). The database may be
    // quicker than the notification: a deal stored before its item arrived waits for the
    // next item of that title.
    void dealStored(const std::string& title, std::int64_t dealId);

    // Annotations from the web table and the app.
    void setWebSeat(const std::string& name, bool present);
    void setDeck(Deck deck);
    void setSettings(TableSettings settings);
    void setAgenda(std::vector<std::string> titles);
    // The agenda's first title, taken off the agenda; nothing when it is empty.
    std::optional<std::string> takeNextAgendaItem();
    // Records the final estimate of an item (the current one or an earlier one); false when
    // there is no such item or its cards are not open. When the item's deal is stored, the
    // sink gets its row id and the estimate.
    bool recordEstimate(int itemNumber, const std::string& card);
    void setEstimateSink(EstimateSink sink);
    // A countdown ending seconds from now (wall clock); cancelCountdown() removes it.
    void startCountdown(int seconds);
    void cancelCountdown();
    void setSavingFailed(bool failing);

    // Reading.
    TableSnapshot snapshot() const;
    // A current item whose cards are not open, and every seat (at least one) has played.
    bool everyonePlayed() const;
    // Ok when no game is open (a new one may start); else gameOpen.
    JoinCheck checkStart() const;
    // Ok when a game is open, no seat has the name (sameName) and a seat is free.
    JoinCheck checkJoin(const std::string& name) const;

    // Listeners run after each change, on the changing thread, without the model's lock.
    // Once unsubscribe() returns the listener is not running and is never called again
    // (a listener may unsubscribe itself).
    int subscribe(std::function<void()> listener);
    void unsubscribe(int id);

    // Tests: back to a closed table; listeners and the sink are kept.
    void reset();

  private:
    struct Listener;
    // What a change leaves to do once the lock is released: estimates for the sink.
    struct Effects {
        std::vector<std::pair<std::int64_t, std::string>> estimates;
    };

    // Runs step under the lock; when it reports a change, the version grows and then, without
    // the lock, the sink gets the effects' estimates and the listeners are called.
    void change(const std::function<bool(Effects&)>& step);
    // Requires mutex_ held.
    TableSeat* seatLocked(const std::string& name);
    TableItem* itemLocked(int number);
    void countPlayedLocked();

    mutable Mutex mutex_{"pointlane.TableModel"};
    TableSnapshot state_;  // guarded by mutex_
    // Web annotations by name (sameName), also for seats whose join hasn't arrived yet.
    std::vector<std::pair<std::string, bool>> webNames_;  // guarded by mutex_
    // Deals stored before their item arrived: trimmed title and row id, oldest first.
    std::vector<std::pair<std::string, std::int64_t>> storedEarly_;  // guarded by mutex_
    EstimateSink sink_;                                              // guarded by mutex_
    std::map<int, std::shared_ptr<Listener>> listeners_;             // guarded by mutex_
    int nextListener_ = 1;                                           // guarded by mutex_
};

}  // namespace pointlane
