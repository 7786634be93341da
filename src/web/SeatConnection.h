#pragma once

#include <QObject>
#include <QTcpServer>
#include <QTimer>
#include <chrono>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "support/Bytes.h"
#include "transport/Answer.h"
#include "transport/Frame.h"
#include "transport/Request.h"
#include "transport/RequestCode.h"

class QTcpSocket;

namespace pointlane {

// One web seat's protocol session, run on the Qt event loop with no thread of its own: a
// connection to the game port on 127.0.0.1 for the seat's requests, and a push listener of its
// own on 127.0.0.1 for the notifications the server pushes to the seat after its login.
//
// Requests wait in a queue and go out one at a time, each once the answer to the one before has
// come, so answers come back in order. An answer that doesn't come within the answer time-out
// (10 s) gives its handler nothing and drops the connection, since a late answer would be taken
// for the next request's; the requests behind it go out on a new connection. The connection is
// opened when a request waits and closed once it has been idle for a while, so an idle seat
// holds no connection at the game server.
//
// The push listener accepts one connection per login, only while that login is on its way (or
// just after its answer), and only when the connecting socket is held by this very process: the
// game server connecting back. Every other connection to it is closed at once. Once logged in,
// a frame that isn't a request carrying our token closes the push connection at once and is
// never handed over. Notifications that arrive before the login's answer are held and handed
// over right after it.
//
// Threading: the Qt thread that made it, only. Handlers run on that thread; they may send
// further requests, but must not destroy the connection (deleteLater() is fine). Handlers of
// requests still waiting when the connection is destroyed are never called.
class SeatConnection final : public QObject {
  public:
    // Nothing: no answer (the connection failed or was lost, or the answer didn't come in time).
    using AnswerHandler = std::function<void(std::optional<Answer>)>;

    static constexpr std::chrono::milliseconds kAnswerTimeout{10000};
    static constexpr std::chrono::milliseconds kIdleClose{5000};

    explicit SeatConnection(int gamePort, QObject* parent = nullptr);
    ~SeatConnection() override;
    SeatConnection(const SeatConnection&) = delete;
    SeatConnection& operator=(const SeatConnection&) = delete;

    void loginAdmin(const std::string& name, const std::string& game, AnswerHandler done);
    void loginPlayer(const std::string& name, AnswerHandler done);
    void logout(AnswerHandler done);
    void initNewDeal(const std::string& title, AnswerHandler done);
    void play(AnswerHandler done);
    void openCards(AnswerHandler done);
    void cardElected(const std::string& name, const std::string& card, AnswerHandler done);

    // True from a login answered OK until a logout answered OK.
    bool isLoggedIn() const { return token_.has_value(); }

    // Each notification pushed to this seat, in the order the server sent them.
    void setOnNotification(std::function<void(const Request&)> handler) {
        onNotification_ = std::move(handler);
    }
    // Called once for each push connection that ends, after its last notification: the server
    // closed it (the seat logged out, the game ended) or it was dropped here; and once when a
    // login was answered OK but no push connection from the server came. Queued, never called
    // from inside one of the request calls above.
    void setOnPushClosed(std::function<void()> handler) { onPushClosed_ = std::move(handler); }

    // Tests: how long an answer may take, and how long an idle game connection stays open.
    void setAnswerTimeout(std::chrono::milliseconds timeout) { answerTimeout_ = timeout; }
    void setIdleClose(std::chrono::milliseconds idle) { idleClose_ = idle; }
    // The push listener's port, 0 until the first login.
    int pushPort() const;

  private:
    struct Pending {
        RequestCode code = RequestCode::logout;
        std::optional<Bytes> data;
        AnswerHandler done;
    };

    void login(RequestCode code, const std::string& name, const std::optional<std::string>& game,
               AnswerHandler done);
    void enqueue(RequestCode code, std::optional<Bytes> data, AnswerHandler done);
    void sendNext();
    void sendHead();
    void gameReadable();
    void gameLost();
    void answered(std::optional<Answer> answer);
    // The request on its way gets no answer: its handler gets nothing and the connection goes.
    void failHead();
    void dropGame();
    void loginFailed();

    void pushArrived();
    void pushReadable();
    void pushLost();
    // Holds or hands over one notification; false when it closed the push connection (or the
    // handler let this object go).
    bool pushed(const Request& notification);
    // Closes the push connection at once and reports it.
    void dropPush();
    void reportPushClosed();

    int gamePort_;
    std::chrono::milliseconds answerTimeout_ = kAnswerTimeout;
    std::chrono::milliseconds idleClose_ = kIdleClose;
    std::function<void(const Request&)> onNotification_;
    std::function<void()> onPushClosed_;

    // The game connection (a child of this object; nullptr while there is none).
    QTcpSocket* game_ = nullptr;
    FrameReader gameReader_;
    std::deque<Pending> queue_;  // the front is on its way while headStarted_
    bool headStarted_ = false;   // the front waits for its answer (or for the connection)
    bool headSent_ = false;      // the front's frame went out
    QTimer answerTimer_;
    QTimer idleTimer_;
    std::optional<std::string> token_;

    QTcpServer listener_;
    bool loginOnItsWay_ = false;  // a login went out and its answer hasn't come
    bool pushWanted_ = false;     // a login is on its way (or just answered) with no push yet
    QTimer latePush_;             // how long a push may come after its login's answer
    QTcpSocket* push_ = nullptr;
    FrameReader pushReader_;
    bool pushBeforeAnswer_ = false;  // push_ came for a login whose answer is still on its way
    std::vector<Request> held_;      // what push_ brought before that answer
};

}  // namespace pointlane
