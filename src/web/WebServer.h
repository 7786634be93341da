#pragma once

#include <QAbstractHttpServer>
#include <QHostAddress>
#include <QHttpServerResponder>
#include <QString>

#include "HistorySource.h"
#include "WebGateway.h"

namespace pointlane {

class TableModel;

// The web table's HTTP side: serves the page from the resource tree (":/web/"), the stored
// history when a HistorySource is given, and hands each WebSocket upgrade on the same port to
// the WebGateway.
//
//   GET /                      the table page
//   GET /<file>                a file of the page (plain names only, nothing outside ":/web/")
//   GET /watch                 the table for watchers (read-only, large type)
//   GET /history               the history page, when the resources hold one
//   GET /history.json[?game=N] the history as JSON; /history.csv the same as CSV (attachments)
//
// Threading: the Qt thread that made it, only (the history functions are called on it).
class WebServer final : public QAbstractHttpServer {
  public:
    struct Options {
        QHostAddress address = QHostAddress::Any;
        int port = 50080;  // 0: any free port
        WebGateway::Options gateway;
        HistorySource history;
        TableModel* table = nullptr;  // the running game's table; not owned, outlives the server
    };

    explicit WebServer(Options options, QObject* parent = nullptr);
    ~WebServer() override;

    // Starts listening; the port listened on, 0 when it can't.
    int start();
    int port() const { return port_; }
    WebGateway& gateway() { return *gateway_; }

    // The link players open: http://<host>:<port>/.
    static QString joinLink(const QString& host, int port);

  protected:
    bool handleRequest(const QHttpServerRequest& request, QTcpSocket* socket) override;
    void missingHandler(const QHttpServerRequest& request, QTcpSocket* socket) override;

  private:
    static void reply(const QHttpServerRequest& request, QTcpSocket* socket, const QByteArray& body,
                      QHttpServerResponder::StatusCode status,
                      const QByteArray& type = "text/plain; charset=utf-8");
    void serveHistory(const QHttpServerRequest& request, QTcpSocket* socket, bool csv);
    void serveResource(const QHttpServerRequest& request, QTcpSocket* socket, const QString& name);

    Options options_;
    WebGateway* gateway_;  // child of this object
    int port_ = 0;
};

}  // namespace pointlane
