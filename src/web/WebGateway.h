#pragma once

#include <QObject>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

class QWebSocket;

namespace pointlane {

class WebSession;

// The browsers' side of the web table: takes each page's WebSocket, reads its messages
// (BrowserMessage), keeps one WebSession per browser tab and carries the sessions' messages
// back. A tab that goes away keeps its session for the grace period, and a page of the same
// tab that comes back within it takes the session over.
//
// Limits: frames and messages above 64 KiB close the socket; a page that sends more than a
// burst of messages faster than the steady rate is closed; a page whose unsent messages pass
// the send limit is dropped; a page that doesn't say hello within the hello time-out is
// closed. Each limit touches only the page that broke it.
//
// Threading: the Qt thread that made it, only.
class WebGateway final : public QObject {
  public:
    struct Options {
        int gamePort = 50000;           // the game server, on 127.0.0.1
        int graceMs = 60000;            // how long a seat waits for its page to come back
        qint64 sendLimit = 1 << 20;     // unsent bytes a page may have before it is dropped
        int burst = 40;                 // messages a page may send at once...
        double messagesPerSecond = 20;  // ...and steadily afterwards
        int maxSessions = 64;           // open pages (seated or not) at one time
        int helloTimeoutMs = 5000;      // a page that hasn't said hello by then is closed
        // The game's name while an administrator is logged in; nothing when no game is open.
        // Unset: the gateway knows only what its own seats have seen.
        std::function<std::optional<std::string>()> currentGame;
    };

    static constexpr qint64 kMaxFrameSize = 64 * 1024;

    explicit WebGateway(Options options, QObject* parent = nullptr);
    ~WebGateway() override;

    // Takes over a page's WebSocket.
    void accept(QWebSocket* socket);

    // Open sessions (seated, joining or waiting for their page).
    std::size_t sessionCount() const { return sessions_.size(); }

  private:
    struct Link {
        std::string tab;       // empty until the page said hello
        bool greeted = false;  // it said hello (its tab may have been cleared since)
        double tokens = 0;
        std::chrono::steady_clock::time_point refilled;
    };

    void received(QWebSocket* socket, const QString& text);
    void hello(QWebSocket* socket, const std::string& tab);
    void gone(QWebSocket* socket);
    void send(QWebSocket* socket, const std::string& text);
    void sendError(QWebSocket* socket, const std::string& text);
    void sendLobby(QWebSocket* socket);
    void drop(QWebSocket* socket, const QString& reason);
    // Closes socket unless its page has said hello within the hello time-out.
    void closeUnlessHelloWithin(QWebSocket* socket);
    // True while the page stays within its message rate.
    bool withinRate(Link& link);
    WebSession* sessionOf(QWebSocket* socket);
    QWebSocket* socketOf(const std::string& tab);

    Options options_;
    std::map<QWebSocket*, Link> links_;
    std::map<std::string, WebSession*> sessions_;  // children of this object
};

}  // namespace pointlane
