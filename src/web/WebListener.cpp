#include "WebListener.h"

#include <QHostAddress>
#include <QSocketNotifier>
#include <QTcpSocket>
#include <QTimer>
#include <cerrno>

#include "transport/SocketFunctions.h"

namespace pointlane {

WebListener::WebListener(Limits limits, QObject* parent) : QTcpServer(parent), limits_(limits) {}

WebListener::~WebListener() {
    for (auto& [socket, connection] : connections_) {
        socket->disconnect(this);
        connection.marker->disconnect(this);
    }
}

bool WebListener::start(const QHostAddress& address, quint16 port) {
    if (!listen(address, port)) {
        return false;
    }
    // Qt's own accepting stays off; connections are taken in acceptWaiting().
    pauseAccepting();
    waiting_ = new QSocketNotifier(socketDescriptor(), QSocketNotifier::Read, this);
    connect(waiting_, &QSocketNotifier::activated, this, &WebListener::acceptWaiting);
    return true;
}

QTcpSocket* WebListener::nextPendingConnection() {
    QTcpSocket* socket = QTcpServer::nextPendingConnection();
    pauseAccepting();
    return socket;
}

void WebListener::acceptWaiting() {
    // A bounded number at a time, so that a crowd at the door doesn't hold up the pages inside.
    for (int taken = 0; taken < 64; ++taken) {
        const int descriptor = accept_socket(static_cast<int>(socketDescriptor()));
        if (descriptor >= 0) {
            incomingConnection(descriptor);
            continue;
        }
        const int error = errno;
        if (error == EINTR || error == ECONNABORTED || error == EPROTO) {
            continue;
        }
        if (error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM) {
            // Trying again at once would fail again: the waiting connections stay in the
            // backlog until descriptors come back.
            waiting_->setEnabled(false);
            QTimer::singleShot(limits_.acceptPauseMs, this, [this] { waiting_->setEnabled(true); });
        }
        return;
    }
}

QString WebListener::addressOf(const QTcpSocket& socket) {
    const QHostAddress address = socket.peerAddress();
    bool isIPv4 = false;
    const quint32 ipv4 = address.toIPv4Address(&isIPv4);
    return isIPv4 ? QHostAddress(ipv4).toString() : address.toString();
}

void WebListener::incomingConnection(qintptr descriptor) {
    auto* socket = new QTcpSocket(this);
    if (!socket->setSocketDescriptor(descriptor)) {
        delete socket;
        close_socket(static_cast<int>(descriptor));
        return;
    }
    const QString address = addressOf(*socket);
    int& fromAddress = connectionsOf_[address];
    if (fromAddress >= limits_.connectionsPerAddress) {
        socket->abort();
        delete socket;
        return;
    }
    ++fromAddress;
    // Nothing beyond one request's worth is read off the system while a request is unfinished.
    socket->setReadBufferSize(limits_.maxHeadBytes + limits_.maxBodyBytes + 1);
    Connection connection;
    connection.address = address;
    connection.timer = new QTimer(socket);
    connection.timer->setSingleShot(true);
    connection.timer->setInterval(limits_.requestTimeoutMs);
    connect(connection.timer, &QTimer::timeout, this, [this, socket] { timedOut(socket); });
    connection.timer->start();
    // Connected before the HTTP server's own handler, so this one sees the bytes first.
    connect(socket, &QTcpSocket::readyRead, this, [this, socket] { received(socket); });
    connect(socket, &QTcpSocket::bytesWritten, this, [this, socket] {
        if (auto found = connections_.find(socket); found != connections_.end()) {
            found->second.progressed = true;
        }
    });
    // A child of the socket, so its end is seen however the socket ends: the WebSocket that
    // takes a page's socket over drops every connection of the socket's signals when done.
    connection.marker = new QObject(socket);
    connect(connection.marker, &QObject::destroyed, this, [this, socket] { forget(socket); });
    connections_[socket] = connection;
    addPendingConnection(socket);
}

void WebListener::received(QTcpSocket* socket) {
    auto found = connections_.find(socket);
    if (found == connections_.end()) {
        return;
    }
    Connection& connection = found->second;
    // A client that keeps sending while it doesn't take what it was sent (a page's pings
    // answered by pongs, pipelined requests) is not buffered for.
    if (socket->bytesToWrite() > limits_.sendLimit) {
        QObject::disconnect(socket, &QTcpSocket::readyRead, nullptr, nullptr);
        socket->abort();
        return;
    }
    if (connection.page) {
        return;
    }
    // Bytes the parser has not seen yet: it reads everything that arrived each time.
    connection.requestBytes += socket->bytesAvailable();
    if (connection.requestBytes > limits_.maxHeadBytes + limits_.maxBodyBytes) {
        refuse(socket, "413 Content Too Large");
    }
}

void WebListener::refuse(QTcpSocket* socket, const QByteArray& status) {
    // The HTTP parser never sees this request's bytes.
    QObject::disconnect(socket, &QTcpSocket::readyRead, nullptr, nullptr);
    const QByteArray text = "The request is too large.\n";
    socket->write("HTTP/1.1 " + status +
                  "\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Length: " +
                  QByteArray::number(text.size()) + "\r\nConnection: close\r\n\r\n" + text);
    socket->disconnectFromHost();
}

void WebListener::timedOut(QTcpSocket* socket) {
    auto found = connections_.find(socket);
    if (found == connections_.end() || found->second.page) {
        return;
    }
    Connection& connection = found->second;
    if (connection.answering || (socket->bytesToWrite() > 0 && connection.progressed)) {
        connection.progressed = false;
        connection.timer->start();
        return;
    }
    QObject::disconnect(socket, &QTcpSocket::readyRead, nullptr, nullptr);
    socket->abort();
}

void WebListener::requestTaken(QTcpSocket* socket) {
    auto found = connections_.find(socket);
    if (found == connections_.end()) {
        return;
    }
    found->second.requestBytes = 0;
    found->second.progressed = false;
    found->second.timer->start();
}

void WebListener::setAnswering(QTcpSocket* socket, bool answering) {
    auto found = connections_.find(socket);
    if (found == connections_.end()) {
        return;
    }
    found->second.answering = answering;
    if (!answering) {
        found->second.timer->start();
    }
}

bool WebListener::mayOpenPage(QTcpSocket* socket) const {
    auto found = connections_.find(socket);
    if (found == connections_.end()) {
        return false;
    }
    auto pages = pagesOf_.find(found->second.address);
    return pages == pagesOf_.end() || pages->second < limits_.pagesPerAddress;
}

void WebListener::becamePage(QTcpSocket* socket) {
    auto found = connections_.find(socket);
    if (found == connections_.end() || found->second.page) {
        return;
    }
    found->second.page = true;
    found->second.timer->stop();
    ++pagesOf_[found->second.address];
    // The HTTP server drops every reader of the socket before the WebSocket takes it over; the
    // page's bytes are watched again once it has.
    QMetaObject::invokeMethod(
        this,
        [this, socket] {
            if (connections_.count(socket) != 0) {
                connect(socket, &QTcpSocket::readyRead, this, [this, socket] { received(socket); });
            }
        },
        Qt::QueuedConnection);
}

void WebListener::forget(QTcpSocket* socket) {
    auto found = connections_.find(socket);
    if (found == connections_.end()) {
        return;
    }
    const Connection connection = found->second;
    connections_.erase(found);
    if (--connectionsOf_[connection.address] <= 0) {
        connectionsOf_.erase(connection.address);
    }
    if (connection.page && --pagesOf_[connection.address] <= 0) {
        pagesOf_.erase(connection.address);
    }
}

}  // namespace pointlane
