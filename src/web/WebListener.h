#pragma once

#include <QString>
#include <QTcpServer>
#include <cstddef>
#include <map>

class QHostAddress;
class QSocketNotifier;
class QTcpSocket;
class QTimer;

namespace pointlane {

// The web table's TCP listener, handed to QAbstractHttpServer::bind(). It takes every
// connection first and sees each connection's bytes before the HTTP parser or a WebSocket
// does, so that no connection can hold more than its share:
//
// - a request (head and body) may be at most maxRequestBytes; one that passes it is answered
//   413 and closed, and the socket never buffers more than that;
// - a request must have arrived whole within requestTimeoutMs of the connection's start or of
//   the previous request, and a keep-alive connection idle that long is closed (while an
//   answer is being prepared, or still going out to a client that takes it, it waits);
// - a connection that sends more while more than sendLimit bytes it was sent are still unsent
//   (WebSocket pongs included) is dropped instead of buffered;
// - at most connectionsPerAddress connections per client address, pagesPerAddress of them
//   WebSocket pages;
// - when accept fails for lack of descriptors or memory, accepting pauses for acceptPauseMs
//   instead of spinning on the failing accept (Qt's own accepting would retry at once, at
//   full CPU, for as long as the descriptors stay short; this listener accepts itself).
//
// Threading: the Qt thread that made it, only.
class WebListener final : public QTcpServer {
  public:
    struct Limits {
        qint64 maxBodyBytes = 1 << 20;   // what a request may carry after its head
        qint64 maxHeadBytes = 64 << 10;  // its request line and headers
        int requestTimeoutMs = 10000;
        qint64 sendLimit = 1 << 20;
        int connectionsPerAddress = 64;
        int pagesPerAddress = 16;
        int acceptPauseMs = 250;
    };

    explicit WebListener(Limits limits, QObject* parent = nullptr);
    ~WebListener() override;

    // Listens on address and port (0: any free port) and starts accepting; false when it can't.
    bool start(const QHostAddress& address, quint16 port);

    // The HTTP side took a whole request from socket: its byte count and its time-out start
    // over.
    void requestTaken(QTcpSocket* socket);
    // While answering is true the time-out waits for the answer being prepared.
    void setAnswering(QTcpSocket* socket, bool answering);
    // Whether socket's client address may open one more page.
    bool mayOpenPage(QTcpSocket* socket) const;
    // socket is now a WebSocket page: the HTTP limits end, the send limit stays, and it counts
    // as a page of its address until it closes.
    void becamePage(QTcpSocket* socket);

    std::size_t connectionCount() const { return connections_.size(); }
    // The client address as counted: IPv4 addresses in their IPv4 form, however they arrived.
    static QString addressOf(const QTcpSocket& socket);

    // Qt's own accepting is turned on again whenever a connection is taken; it stays off.
    QTcpSocket* nextPendingConnection() override;

  protected:
    void incomingConnection(qintptr descriptor) override;

  private:
    struct Connection {
        QString address;
        QTimer* timer = nullptr;    // child of the socket
        QObject* marker = nullptr;  // child of the socket: its end is the socket's
        qint64 requestBytes = 0;    // of the request on its way
        bool page = false;
        bool answering = false;
        bool progressed = false;  // bytes went out since the time-out was armed
    };

    void received(QTcpSocket* socket);
    void timedOut(QTcpSocket* socket);
    // Answers status (a complete status line and its text) and closes the connection.
    void refuse(QTcpSocket* socket, const QByteArray& status);
    void forget(QTcpSocket* socket);
    // Takes the connections waiting on the listening socket.
    void acceptWaiting();

    Limits limits_;
    QSocketNotifier* waiting_ = nullptr;  // child of this object, once started
    std::map<QTcpSocket*, Connection> connections_;
    std::map<QString, int> connectionsOf_;  // per client address
    std::map<QString, int> pagesOf_;        // per client address
};

}  // namespace pointlane
