#include "SeatConnection.h"

#include <QHostAddress>
#include <QPointer>
#include <QTcpSocket>

#include "PokerClient.h"
#include "transport/Endpoint.h"

namespace pointlane {

namespace {

// How long the server's connection back may come after the login's answer: it is made before
// the answer is written, but the event loop may see the answer first.
constexpr std::chrono::milliseconds kLatePush{2000};
// Notifications held while the login's answer is on its way; the server sends a few at most.
constexpr std::size_t kMaxHeld = 256;

bool isLogin(RequestCode code) {
    return code == RequestCode::loginAdmin || code == RequestCode::loginPlayer;
}

// Closes a socket at once (a reset, nothing more is read or written) and lets it go.
void discard(QTcpSocket* socket, QObject* receiver) {
    socket->disconnect(receiver);
    socket->abort();
    socket->deleteLater();
}

}  // namespace

SeatConnection::SeatConnection(int gamePort, QObject* parent)
    : QObject(parent), gamePort_(gamePort) {
    answerTimer_.setSingleShot(true);
    idleTimer_.setSingleShot(true);
    latePush_.setSingleShot(true);
    connect(&answerTimer_, &QTimer::timeout, this, [this] { failHead(); });
    connect(&idleTimer_, &QTimer::timeout, this, [this] {
        if (queue_.empty() && game_) {
            QTcpSocket* socket = game_;
            game_ = nullptr;
            socket->disconnect(this);
            socket->disconnectFromHost();
            socket->deleteLater();
        }
    });
    connect(&latePush_, &QTimer::timeout, this, [this] {
        // Logged in, but the server's connection back never came (or wasn't believed): the
        // seat hears nothing, and says so as for a push connection that ended.
        pushWanted_ = false;
        reportPushClosed();
    });
    connect(&listener_, &QTcpServer::newConnection, this, [this] { pushArrived(); });
}

SeatConnection::~SeatConnection() {
    listener_.disconnect(this);
    for (QTcpSocket* socket : {game_, push_}) {
        if (socket) {
            socket->disconnect(this);
            socket->abort();
        }
    }
}

int SeatConnection::pushPort() const {
    return listener_.isListening() ? listener_.serverPort() : 0;
}

void SeatConnection::loginAdmin(const std::string& name, const std::string& game,
                                AnswerHandler done) {
    login(RequestCode::loginAdmin, name, game, std::move(done));
}

void SeatConnection::loginPlayer(const std::string& name, AnswerHandler done) {
    login(RequestCode::loginPlayer, name, std::nullopt, std::move(done));
}

void SeatConnection::logout(AnswerHandler done) {
    enqueue(RequestCode::logout, std::nullopt, std::move(done));
}

void SeatConnection::initNewDeal(const std::string& title, AnswerHandler done) {
    enqueue(RequestCode::initNewDeal, PokerClient::dealData(title), std::move(done));
}

void SeatConnection::play(AnswerHandler done) {
    enqueue(RequestCode::play, std::nullopt, std::move(done));
}

void SeatConnection::openCards(AnswerHandler done) {
    enqueue(RequestCode::openCards, std::nullopt, std::move(done));
}

void SeatConnection::cardElected(const std::string& name, const std::string& card,
                                 AnswerHandler done) {
    enqueue(RequestCode::cardElected, PokerClient::electionData(name, card), std::move(done));
}

void SeatConnection::login(RequestCode code, const std::string& name,
                           const std::optional<std::string>& game, AnswerHandler done) {
    if (!listener_.isListening() && !listener_.listen(QHostAddress::LocalHost, 0)) {
        QMetaObject::invokeMethod(
            this,
            [done = std::move(done)] {
                if (done) {
                    done(std::nullopt);
                }
            },
            Qt::QueuedConnection);
        return;
    }
    enqueue(code, PokerClient::loginData(name, game, listener_.serverPort()), std::move(done));
}

void SeatConnection::enqueue(RequestCode code, std::optional<Bytes> data, AnswerHandler done) {
    queue_.push_back(Pending{code, std::move(data), std::move(done)});
    idleTimer_.stop();
    sendNext();
}

void SeatConnection::sendNext() {
    if (headStarted_ || queue_.empty()) {
        return;
    }
    headStarted_ = true;
    headSent_ = false;
    answerTimer_.start(answerTimeout_);  // the connection, if one must be made, included
    if (!game_) {
        game_ = new QTcpSocket(this);
        gameReader_ = FrameReader{};
        connect(game_, &QTcpSocket::connected, this, [this] {
            game_->setSocketOption(QAbstractSocket::LowDelayOption, 1);
            sendHead();
        });
        connect(game_, &QTcpSocket::readyRead, this, [this] { gameReadable(); });
        connect(game_, &QTcpSocket::disconnected, this, [this] { gameLost(); });
        connect(game_, &QTcpSocket::errorOccurred, this, [this] { gameLost(); });
        game_->connectToHost(QHostAddress::LocalHost, static_cast<quint16>(gamePort_));
        return;
    }
    if (game_->state() == QAbstractSocket::ConnectedState) {
        sendHead();
    }
}

void SeatConnection::sendHead() {
    if (!headStarted_ || headSent_ || !game_) {
        return;
    }
    const Pending& head = queue_.front();
    Request request;
    request.request = head.code;
    if (!isLogin(head.code)) {
        request.token = token_;
    }
    request.data = head.data;
    const std::optional<Bytes> body = request.json();
    const std::optional<Bytes> frame = body ? encodeFrame(*body) : std::nullopt;
    if (!frame) {
        failHead();
        return;
    }
    if (isLogin(head.code)) {
        // From now until its answer (or just after) the server connects back once.
        loginOnItsWay_ = true;
        pushWanted_ = true;
        latePush_.stop();
    }
    headSent_ = true;
    game_->write(reinterpret_cast<const char*>(frame->data()), static_cast<qint64>(frame->size()));
}

void SeatConnection::gameReadable() {
    QTcpSocket* socket = game_;
    const QByteArray bytes = socket->readAll();
    gameReader_.append(bytes.constData(), static_cast<std::size_t>(bytes.size()));
    while (game_ == socket) {
        std::optional<Bytes> body = gameReader_.next();
        if (!body) {
            break;
        }
        if (!headSent_) {
            gameLost();  // nothing was asked: the stream is not ours to follow
            return;
        }
        answered(Answer::fromJson(*body));
    }
    if (game_ == socket && gameReader_.failed()) {
        gameLost();
    }
}

void SeatConnection::gameLost() {
    if (headStarted_) {
        failHead();
    } else {
        dropGame();
    }
}

void SeatConnection::dropGame() {
    idleTimer_.stop();
    if (game_) {
        QTcpSocket* socket = game_;
        game_ = nullptr;
        discard(socket, this);
    }
}

void SeatConnection::failHead() {
    answerTimer_.stop();
    dropGame();
    if (!headStarted_) {
        return;
    }
    Pending head = std::move(queue_.front());
    queue_.pop_front();
    headStarted_ = false;
    headSent_ = false;
    if (isLogin(head.code)) {
        loginFailed();
    }
    sendNext();
    if (head.done) {
        head.done(std::nullopt);
    }
}

void SeatConnection::answered(std::optional<Answer> answer) {
    answerTimer_.stop();
    Pending head = std::move(queue_.front());
    queue_.pop_front();
    headStarted_ = false;
    headSent_ = false;
    if (!answer) {
        dropGame();  // not an answer: nothing more on this connection can be trusted
    }
    const bool ok = answer && answer->code == 0;
    std::vector<Request> held;
    if (isLogin(head.code) && ok) {
        token_ = answer->token;
        loginOnItsWay_ = false;
        if (pushBeforeAnswer_) {
            held = std::move(held_);
            held_.clear();
            pushBeforeAnswer_ = false;
        }
        if (pushWanted_) {
            // The connection back is made before the answer is written; take it now if it is
            // already waiting, or give it a moment.
            listener_.waitForNewConnection(0);
        }
        if (pushWanted_) {
            latePush_.start(kLatePush);
        }
    } else if (isLogin(head.code)) {
        loginFailed();
    } else if (head.code == RequestCode::logout && ok) {
        token_.reset();
    }
    sendNext();
    if (queue_.empty() && game_) {
        idleTimer_.start(idleClose_);
    }
    const QPointer<SeatConnection> alive(this);
    if (head.done) {
        head.done(std::move(answer));
    }
    QTcpSocket* push = push_;
    for (const Request& notification : held) {
        if (!alive || push_ != push || !pushed(notification)) {
            break;
        }
    }
}

void SeatConnection::loginFailed() {
    loginOnItsWay_ = false;
    pushWanted_ = false;
    latePush_.stop();
    if (pushBeforeAnswer_) {
        dropPush();  // a connection back for a login that didn't happen
    }
}

void SeatConnection::pushArrived() {
    while (QTcpSocket* socket = listener_.nextPendingConnection()) {
        const Endpoint peer{socket->peerAddress().toIPv4Address(), socket->peerPort()};
        const Endpoint local{socket->localAddress().toIPv4Address(), socket->localPort()};
        if (!pushWanted_ || !peer.isOwnConnectionTo(local)) {
            discard(socket, this);
            continue;
        }
        dropPush();  // an earlier login's, if there is one
        push_ = socket;
        pushWanted_ = false;
        latePush_.stop();
        pushBeforeAnswer_ = loginOnItsWay_;
        pushReader_ = FrameReader{};
        connect(socket, &QTcpSocket::readyRead, this, [this] { pushReadable(); });
        connect(socket, &QTcpSocket::disconnected, this, [this] { pushLost(); });
        connect(socket, &QTcpSocket::errorOccurred, this, [this] { pushLost(); });
    }
}

void SeatConnection::pushReadable() {
    QTcpSocket* socket = push_;
    const QByteArray bytes = socket->readAll();
    pushReader_.append(bytes.constData(), static_cast<std::size_t>(bytes.size()));
    const QPointer<SeatConnection> alive(this);
    while (alive && push_ == socket) {
        const std::optional<Bytes> body = pushReader_.next();
        if (!body) {
            break;
        }
        const std::optional<Request> notification = Request::fromJson(*body);
        if (!notification) {
            dropPush();
            return;
        }
        pushed(*notification);
    }
    if (alive && push_ == socket && pushReader_.failed()) {
        dropPush();
    }
}

void SeatConnection::pushLost() {
    if (push_ && push_->bytesAvailable() > 0) {
        pushReadable();  // what the server sent before it closed
    }
    dropPush();
}

bool SeatConnection::pushed(const Request& notification) {
    if (pushBeforeAnswer_) {
        if (held_.size() >= kMaxHeld) {
            dropPush();
            return false;
        }
        held_.push_back(notification);
        return true;
    }
    if (!token_ || notification.token != token_) {
        dropPush();  // not for us: nothing more from this connection is believed
        return false;
    }
    const QPointer<SeatConnection> alive(this);
    if (onNotification_) {
        onNotification_(notification);
    }
    return alive;
}

void SeatConnection::dropPush() {
    if (!push_) {
        return;
    }
    QTcpSocket* socket = push_;
    push_ = nullptr;
    pushBeforeAnswer_ = false;
    held_.clear();
    discard(socket, this);
    reportPushClosed();
}

void SeatConnection::reportPushClosed() {
    QMetaObject::invokeMethod(
        this,
        [this] {
            if (onPushClosed_) {
                onPushClosed_();
            }
        },
        Qt::QueuedConnection);
}

}  // namespace pointlane
