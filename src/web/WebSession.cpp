#include "WebSession.h"

#include <algorithm>

#include "BrowserMessage.h"
#include "SeatConnection.h"

namespace pointlane {

WebSession::WebSession(std::string seat, std::string name, bool facilitator, int gamePort,
                       QObject* parent)
    : QObject(parent),
      seat_(std::move(seat)),
      name_(std::move(name)),
      facilitator_(facilitator),
      connection_(new SeatConnection(gamePort, this)) {
    grace_.setSingleShot(true);
    connect(&grace_, &QTimer::timeout, this, [this] {
        if (phase_ == Phase::seated) {
            logoutQuietly();
        } else if (phase_ == Phase::joining) {
            // The login is on its way; look again once it is answered.
            grace_.start(100);
        }
    });
    connection_->setOnNotification([this](const Request& notification) { notified(notification); });
    connection_->setOnPushClosed([this] { pushClosed(); });
}

WebSession::~WebSession() = default;

void WebSession::login(const std::string& game) {
    auto done = [this](std::optional<Answer> answer) { loginDone(answer); };
    if (facilitator_) {
        connection_->loginAdmin(name_, game, done);
    } else {
        connection_->loginPlayer(name_, done);
    }
}

void WebSession::loginDone(const std::optional<Answer>& answer) {
    if (phase_ != Phase::joining) {
        return;
    }
    std::optional<std::string> refusal;
    if (!answer) {
        refusal = "The game server did not answer.";
    } else if (answer->code != 0) {
        refusal = BrowserMessage::refusalText(answer->message);
    }
    phase_ = refusal ? Phase::ended : Phase::seated;
    if (callbacks_.loggedIn) {
        callbacks_.loggedIn(refusal);
    }
}

void WebSession::check(const std::optional<Answer>& answer) {
    if (answer && answer->code == 0) {
        return;
    }
    if (callbacks_.error && phase_ == Phase::seated) {
        callbacks_.error(answer ? BrowserMessage::refusalText(answer->message)
                                : "The game server did not answer.");
    }
}

void WebSession::notified(const Request& notification) {
    switch (notification.request) {
        case RequestCode::initNewDeal:
            pick_.reset();
            hasPlayed_ = false;
            elected_ = false;
            if (callbacks_.changed) {
                callbacks_.changed();
            }
            break;
        case RequestCode::openCards:
            // The cards are open: this seat shows its own pick to everyone, once per item.
            if (phase_ == Phase::seated && hasPlayed_ && pick_ && !elected_) {
                elected_ = true;
                connection_->cardElected(name_, *pick_,
                                         [this](std::optional<Answer> answer) { check(answer); });
            }
            break;
        default:
            break;
    }
}

void WebSession::putUpItem(const std::string& title) {
    connection_->initNewDeal(title, [this](std::optional<Answer> answer) { check(answer); });
}

void WebSession::play(const std::string& card) {
    pick_ = card;
    const bool first = !hasPlayed_;
    hasPlayed_ = true;
    if (callbacks_.changed) {
        callbacks_.changed();
    }
    // Changing the pick before the cards open: everyone already counted this seat's play.
    if (first) {
        connection_->play([this](std::optional<Answer> answer) { check(answer); });
    }
}

void WebSession::openCards() {
    connection_->openCards([this](std::optional<Answer> answer) { check(answer); });
}

void WebSession::leave() {
    if (phase_ != Phase::seated) {
        return;
    }
    phase_ = Phase::leaving;
    grace_.stop();
    connection_->logout([this](std::optional<Answer> answer) {
        if (!answer || answer->code != 0) {
            finish("The game server did not take your leave; the game may have ended.");
        } else {
            finish(facilitator_ ? "You ended the game. The server is closing."
                                : "You left the table.");
        }
    });
}

void WebSession::logoutQuietly() {
    phase_ = Phase::leaving;
    connection_->logout([this](std::optional<Answer>) { finish({}); });
}

void WebSession::pushClosed() {
    // The server closes a seat's push connection when the seat logs out or the game ends.
    if (phase_ == Phase::seated) {
        finish("The game has ended: the facilitator closed the table.");
    }
}

void WebSession::finish(const std::string& text) {
    if (phase_ == Phase::ended) {
        return;
    }
    phase_ = Phase::ended;
    grace_.stop();
    if (callbacks_.finished) {
        callbacks_.finished(text);
    }
}

void WebSession::pageGone(int graceMs) {
    if (!facilitator_) {
        grace_.start(std::max(0, graceMs));
    }
}

void WebSession::pageBack() {
    grace_.stop();
}

}  // namespace pointlane
