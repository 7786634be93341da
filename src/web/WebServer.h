#pragma once

#include <QAbstractHttpServer>
#include <QHostAddress>
#include <QHttpServerResponder>
#include <QString>
#include <functional>

#include "HistorySource.h"
#include "WebGateway.h"
#include "WebListener.h"

namespace pointlane {

class TableModel;
class HistoryBodies;

// The web table's HTTP side: serves the page from the resource tree (":/web/"), the stored
// history when a HistorySource is given, the join link's QR code, and hands each WebSocket
// upgrade on the same port to the WebGateway.
//
//   GET /                      the table page
//   GET /<file>                a file of the page (plain names only, nothing outside ":/web/")
//   GET /watch                 the table for watchers (read-only, large type)
//   GET /history               the history page, when the resources hold one
//   GET /history.json[?game=N] the history as JSON; /history.csv the same as CSV (attachments).
//                              Both carry an ETag; If-None-Match with the current one is
//                              answered 304 without building anything.
//   GET /join.svg              a QR code of the join link
//   GET /socket                the WebSocket upgrade, only from the table's own pages: an
//                              Origin other than the address the page was served from (the
//                              Host header) is refused with 403; a request without Origin
//                              (not a browser) is let through. Past the pages allowed per
//                              client address it is refused with 429.
//
// Every connection goes through a WebListener, which bounds requests, time-outs, unsent bytes
// and connections per address (see there).
//
// Threading: the Qt thread that made it, only. The history bodies are built on a worker
// thread of their own.
class WebServer final : public QAbstractHttpServer {
  public:
    struct Options {
        QHostAddress address = QHostAddress::Any;
        int port = 50080;  // 0: any free port
        WebGateway::Options gateway;
        HistorySource history;
        TableModel* table = nullptr;  // the running game's table; not owned, outlives the server
        // Connection limits; the send limit is the gateway's.
        WebListener::Limits limits;
        // The join link for phones when the page itself was reached on a loopback address
        // (the tray's own window, a browser on the server's machine); unset or empty: the
        // address the page was reached by.
        std::function<QString()> joinLink;
    };

    explicit WebServer(Options options, QObject* parent = nullptr);
    ~WebServer() override;

    // Starts listening; the port listened on, 0 when it can't.
    int start();
    int port() const { return port_; }
    WebGateway& gateway() { return *gateway_; }
    // nullptr until started.
    WebListener* listener() const { return listener_; }
    HistoryBodies& historyBodies() { return *history_; }

    // The link players open: http://<host>:<port>/.
    static QString joinLink(const QString& host, int port);

  protected:
    bool handleRequest(const QHttpServerRequest& request, QTcpSocket* socket) override;
    void missingHandler(const QHttpServerRequest& request, QTcpSocket* socket) override;

  private:
    static void reply(const QHttpServerRequest& request, QTcpSocket* socket, const QByteArray& body,
                      QHttpServerResponder::StatusCode status,
                      const QByteArray& type = "text/plain; charset=utf-8");
    // The upgrade is refused with status; Qt then closes the connection.
    void refuseUpgrade(const QHttpServerRequest& request, QTcpSocket* socket,
                       const QByteArray& body, QHttpServerResponder::StatusCode status);
    void serveHistory(const QHttpServerRequest& request, QTcpSocket* socket, bool csv);
    void serveJoinCode(const QHttpServerRequest& request, QTcpSocket* socket);
    void serveResource(const QHttpServerRequest& request, QTcpSocket* socket, const QString& name);
    QString joinLinkFor(const QHttpServerRequest& request) const;

    Options options_;
    WebGateway* gateway_;              // child of this object
    HistoryBodies* history_;           // child of this object
    WebListener* listener_ = nullptr;  // child of this object once started
    int port_ = 0;
};

}  // namespace pointlane
