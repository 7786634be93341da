#pragma once

#include <QObject>
#include <QTimer>
#include <functional>
#include <optional>
#include <string>

#include "transport/Answer.h"
#include "transport/Request.h"

namespace pointlane {

class SeatConnection;

// One web seat at the table: an ordinary protocol session on loopback (SeatConnection) plus
// what only this seat knows: the card its player picked and whether it has played on the
// current item. Everything else a page shows comes from the table model. The token never
// leaves the connection.
//
// When the cards open, the seat elects its own pick (once per item), as a native client does.
// A seat whose page went away waits for the grace period and then logs out; the facilitator's
// seat never does: only its "End game" (leave) ends the game.
//
// Threading: the Qt thread that made it, only; the connection's answers and notifications
// arrive on it.
class WebSession final : public QObject {
  public:
    enum class Phase { joining, seated, leaving, ended };

    struct Callbacks {
        // The login was answered: nothing when seated, else the sentence for the page.
        std::function<void(const std::optional<std::string>& refusal)> loggedIn;
        // The seat's own fields (pick, played) changed.
        std::function<void()> changed;
        // A request of this seat was refused: the sentence for its page.
        std::function<void(const std::string& text)> error;
        // The seat is over (left, logged out after the grace, or the game ended) and may be
        // dropped; the sentence for its page, empty when nobody is told.
        std::function<void(const std::string& text)> finished;
    };

    WebSession(std::string seat, std::string name, bool facilitator, int gamePort,
               QObject* parent = nullptr);
    ~WebSession() override;

    const std::string& seat() const { return seat_; }
    const std::string& name() const { return name_; }
    bool isFacilitator() const { return facilitator_; }
    Phase phase() const { return phase_; }
    bool isSeated() const { return phase_ == Phase::seated; }
    const std::optional<std::string>& pick() const { return pick_; }
    bool hasPlayed() const { return hasPlayed_; }

    void setCallbacks(Callbacks callbacks) { callbacks_ = std::move(callbacks); }

    // Logs in: as the facilitator opening game, or as a player.
    void login(const std::string& game);
    void putUpItem(const std::string& title);
    // Plays card, or changes the pick when this seat has already played on the item.
    void play(const std::string& card);
    void openCards();
    // Gets up; the facilitator's leave ends the game.
    void leave();

    // The seat's page went away: a player's seat logs out after graceMs unless pageBack()
    // comes first; the facilitator's seat waits.
    void pageGone(int graceMs);
    void pageBack();

  private:
    void loginDone(const std::optional<Answer>& answer);
    void notified(const Request& notification);
    void pushClosed();
    void finish(const std::string& text);
    void logoutQuietly();
    // Hands a refused or lost answer to the page as a sentence.
    void check(const std::optional<Answer>& answer);

    std::string seat_;
    std::string name_;
    bool facilitator_;
    Phase phase_ = Phase::joining;
    Callbacks callbacks_;
    QTimer grace_;
    std::optional<std::string> pick_;
    bool hasPlayed_ = false;
    bool elected_ = false;
    SeatConnection* connection_;  // child of this object
};

}  // namespace pointlane
