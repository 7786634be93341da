#pragma once

#include <QObject>
#include <QTimer>
#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "rules/Deck.h"
#include "table/TableSnapshot.h"

class QWebSocket;

namespace pointlane {

class TableModel;
class WebSession;
struct BrowserMessage;

// The browsers' side of the web table: takes each page's WebSocket, reads its messages
// (BrowserMessage), keeps one WebSession per seat and sends every page the table as the table
// model has it, plus the page's own fields (its seat, its pick, whether it runs the table).
//
// Seats are found by the seat key a browser keeps (never the protocol token): a page of the
// same browser that says hello with it takes the seat over, and the page it had before is told
// so. Joins are checked against the table before any login is sent, so a refusal costs no
// seat, and one login is on its way at a time. A player's seat whose page went away waits for
// the grace period; the facilitator's seat waits for as long as it takes.
//
// Pages that only watch get the same table and take no seat. Whenever everyone has played on
// an item, or a countdown reaches zero, with "open when everyone has played" on, the gateway
// opens the cards through the facilitator's own seat (any web seat when the facilitator plays
// from a native client), so native clients see an ordinary open.
//
// Limits: frames and messages above 64 KiB close the socket; a page that sends more than a
// burst of messages faster than the steady rate is closed; a page whose unsent messages pass
// the send limit is dropped; a page that doesn't say hello within the hello time-out is
// closed. Each limit touches only the page that broke it.
//
// Threading: the Qt thread that made it, only. The table model's listener runs on the game's
// threads and only hands a (coalesced) redraw to this thread.
class WebGateway final : public QObject {
  public:
    struct Options {
        int gamePort = 50000;           // the game server, on 127.0.0.1
        int graceMs = 60000;            // how long a player's seat waits for its page to come back
        qint64 sendLimit = 1 << 20;     // unsent bytes a page may have before it is dropped
        int burst = 40;                 // messages a page may send at once...
        double messagesPerSecond = 20;  // ...and steadily afterwards
        int maxPages = 96;              // open pages (seated, joining or watching) at one time
        int helloTimeoutMs = 5000;      // a page that hasn't said hello by then is closed
        TableModel* table = nullptr;    // the running table; non-owning, outlives the gateway
        // The link players open, shown beside the join code; unset: the page's own address.
        std::function<std::string()> joinLink;
    };

    static constexpr qint64 kMaxFrameSize = 64 * 1024;

    explicit WebGateway(Options options, QObject* parent = nullptr);
    ~WebGateway() override;

    // Takes over a page's WebSocket.
    void accept(QWebSocket* socket);

    // Seats held by pages (joining, seated or waiting for their page).
    std::size_t sessionCount() const { return seats_.size(); }
    std::size_t pageCount() const { return pages_.size(); }

  private:
    struct Page {
        std::string seat;  // the seat key, once the page said hello
        bool watcher = false;
        bool greeted = false;  // it said hello or watch (its seat may have been cleared since)
        double tokens = 0;
        std::chrono::steady_clock::time_point refilled;
    };
    struct Join {
        QWebSocket* socket = nullptr;
        std::string seat;
        bool start = false;
        std::string name;
        std::string game;
        Deck deck;
    };
    struct Relay;

    void received(QWebSocket* socket, const QString& text);
    void hello(QWebSocket* socket, const std::string& seat);
    // seat's page is now socket; the browser's other pages are told and closed.
    void hold(const std::string& seat, QWebSocket* socket);
    void queueJoin(QWebSocket* socket, const BrowserMessage& message);
    void nextJoin();
    // What keeps this join from being sent, as the sentence for the page; nothing when none.
    std::optional<std::string> refusal(const Join& join) const;
    void seatMessage(QWebSocket* socket, WebSession& session, const BrowserMessage& message);
    void loggedIn(WebSession* session, const std::optional<std::string>& refusal);
    void finished(WebSession* session, const std::string& text);
    void gone(QWebSocket* socket);

    // The table changed: redraw every page (on this thread), open the cards when it is time.
    void tableChanged();
    void sendTable(QWebSocket* socket);
    // Only the page's own part (its pick changed, say): the table it has is still right.
    void sendMe(QWebSocket* socket);
    // The page's own part of a table: its seat, pick and whether it runs the table.
    nlohmann::json me(QWebSocket* socket);
    // The decks a game may start with and the join link: sent once to each page.
    void sendWelcome(QWebSocket* socket);
    void openWhenDue(const TableSnapshot& table);
    void openThroughSeat(const TableSnapshot& table);
    static bool facilitatorIsWeb(const TableSnapshot& table);
    void countdownEnded();
    bool canRun(const WebSession& session, const TableSnapshot& table) const;

    void send(QWebSocket* socket, const std::string& text);
    void sendError(QWebSocket* socket, const std::string& text);
    void drop(QWebSocket* socket, const QString& reason);
    // Closes socket unless its page has said hello within the hello time-out.
    void closeUnlessHelloWithin(QWebSocket* socket);
    bool withinRate(Page& page);
    WebSession* sessionOf(QWebSocket* socket);
    QWebSocket* socketOf(const std::string& seat);

    Options options_;
    std::unique_ptr<TableModel> ownTable_;  // only when the options gave none
    TableModel* table_;
    std::shared_ptr<Relay> relay_;
    int subscription_ = 0;
    TableSnapshot snapshot_;  // the last one drawn
    std::string tableText_;   // its JSON, as every page is sent it
    std::map<QWebSocket*, Page> pages_;
    std::map<std::string, WebSession*> seats_;  // by seat key; children of this object
    std::map<std::string, QWebSocket*>
        holders_;  // the page that holds each seat, while there is one
    std::deque<Join> joins_;
    WebSession* joining_ = nullptr;  // the one login on its way
    std::optional<Deck> startDeck_;  // the deck of the game it opens, when it is a start
    std::optional<int> openedItem_;  // the item whose cards the gateway opened last
    QTimer countdown_;
};

}  // namespace pointlane
