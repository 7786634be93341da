#include "SeatConnection.h"

#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>
#include <memory>
#include <string>
#include <vector>

#include "PokerClient.h"
#include "WebFixture.h"
#include "game/PlayerStore.h"

namespace pointlane::testkit {
namespace {

using namespace std::chrono_literals;

Bytes bytesOf(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

void writeFrame(QTcpSocket& socket, const Bytes& body) {
    const Bytes frame = *encodeFrame(body);
    socket.write(reinterpret_cast<const char*>(frame.data()), static_cast<qint64>(frame.size()));
}

Bytes notificationBody(RequestCode code, const std::string& token,
                       std::optional<Bytes> data = std::nullopt) {
    Request request;
    request.request = code;
    request.token = token;
    request.data = std::move(data);
    return *request.json();
}

// What a seat's handlers saw, in the order they saw it.
struct Seen {
    std::vector<std::optional<Answer>> answers;
    std::vector<Request> notifications;
    std::vector<std::string> order;  // "answer" and notification code names, interleaved
    int pushClosed = 0;

    void watch(SeatConnection& seat) {
        seat.setOnNotification([this](const Request& notification) {
            notifications.push_back(notification);
            order.push_back(toString(notification.request));
        });
        seat.setOnPushClosed([this] { ++pushClosed; });
    }
    SeatConnection::AnswerHandler keep() {
        return [this](std::optional<Answer> answer) {
            answers.push_back(std::move(answer));
            order.push_back("answer");
        };
    }
    bool hasNotification(RequestCode code) const {
        for (const Request& notification : notifications) {
            if (notification.request == code) {
                return true;
            }
        }
        return false;
    }
};

// A socket of this process that connects to port on 127.0.0.1 and sends body as one frame.
struct LocalClient {
    QTcpSocket socket;
    bool connected = false;

    LocalClient(int port, const Bytes& body) {
        QObject::connect(&socket, &QTcpSocket::connected, [this] { connected = true; });
        socket.connectToHost(QHostAddress::LocalHost, static_cast<quint16>(port));
        writeFrame(socket, body);  // goes out once connected
    }
    bool waitConnected() {
        return spinUntil([&] { return socket.state() == QAbstractSocket::ConnectedState; });
    }
    // True when the connection was made and then closed on us.
    bool closedSoon() {
        return spinUntil([&] { return socket.state() == QAbstractSocket::UnconnectedState; }, 5s) &&
               connected;
    }
};

TEST(SeatConnectionTest, SeatsPlayAGameAndHearItUntilTheAdministratorsLogout) {
    auto server = InProcessServer::start();
    ASSERT_TRUE(server);
    SeatConnection admin(server->port());
    SeatConnection bob(server->port());
    Seen atAdmin;
    Seen atBob;
    atAdmin.watch(admin);
    atBob.watch(bob);

    admin.loginAdmin("Ada", "Sprint 7", atAdmin.keep());
    ASSERT_TRUE(spinUntil([&] { return atAdmin.answers.size() == 1; }));
    ASSERT_TRUE(atAdmin.answers[0]);
    EXPECT_EQ(atAdmin.answers[0]->code, 0);
    EXPECT_EQ(atAdmin.answers[0]->info, "Sprint 7");
    EXPECT_EQ(atAdmin.answers[0]->data, bytesOf("[\"Ada\"]"));
    EXPECT_TRUE(admin.isLoggedIn());
    const std::string adminToken = atAdmin.answers[0]->token;

    bob.loginPlayer("Bob", atBob.keep());
    // Four requests at once: they go out one by one and are answered in order.
    bob.initNewDeal("Story \"1\"", atBob.keep());
    bob.play(atBob.keep());
    bob.openCards(atBob.keep());
    bob.cardElected("Bob", "1/2", atBob.keep());
    ASSERT_TRUE(spinUntil([&] {
        return atBob.answers.size() == 5 && atAdmin.notifications.size() == 5 &&
               atBob.notifications.size() == 5;
    }));
    for (const auto& answer : atBob.answers) {
        ASSERT_TRUE(answer);
        EXPECT_EQ(answer->code, 0) << toString(answer->message);
    }
    const std::string bobToken = atBob.answers[0]->token;
    EXPECT_NE(bobToken, adminToken);
    EXPECT_EQ(atBob.answers[1]->token, bobToken);  // later requests carry the login's token
    EXPECT_TRUE(PlayerStore::shared().isNameInUse("Bob"));
    // Bob's own arrival may reach his push listener before his login's answer: it is handed
    // over after the answer, and every notification carries the seat's own token.
    EXPECT_EQ(atBob.order.front(), "answer");
    EXPECT_EQ(atBob.order[1], "playerAdded");
    for (const Request& notification : atBob.notifications) {
        EXPECT_EQ(notification.token, bobToken);
    }
    std::vector<RequestCode> codes;
    for (const Request& notification : atAdmin.notifications) {
        codes.push_back(notification.request);
        EXPECT_EQ(notification.token, adminToken);
    }
    EXPECT_EQ(codes, (std::vector<RequestCode>{RequestCode::playerAdded, RequestCode::initNewDeal,
                                               RequestCode::play, RequestCode::openCards,
                                               RequestCode::cardElected}));
    EXPECT_EQ(atAdmin.notifications[1].data, PokerClient::dealData("Story \"1\""));
    EXPECT_EQ(atAdmin.notifications[4].data, PokerClient::electionData("Bob", "1/2"));

    // A second connection to Bob's push port, from this very process and carrying Bob's own
    // token, is closed at once and its frame never handed over: the seat has its push.
    LocalClient second(bob.pushPort(), notificationBody(RequestCode::openCards, bobToken));
    EXPECT_TRUE(second.closedSoon());

    admin.logout(atAdmin.keep());
    ASSERT_TRUE(spinUntil([&] {
        return atAdmin.answers.size() == 2 && atBob.pushClosed == 1 && atAdmin.pushClosed == 1;
    }));
    ASSERT_TRUE(atAdmin.answers[1]);
    EXPECT_EQ(atAdmin.answers[1]->code, 0);
    EXPECT_FALSE(admin.isLoggedIn());
    // Bob heard the administrator leave before his push connection was closed.
    EXPECT_EQ(atBob.notifications.back().request, RequestCode::playerRemoved);
    EXPECT_EQ(atBob.notifications.size(), 6u);
}

// A game server made for the test: keeps each connection's request frames, answers only when
// told, and connects back like the real one.
class FakeGame {
  public:
    struct Link {
        std::unique_ptr<QTcpSocket> socket;
        FrameReader reader;
        std::vector<Bytes> frames;
    };

    FakeGame() {
        EXPECT_TRUE(listener_.listen(QHostAddress::LocalHost, 0));
        QObject::connect(&listener_, &QTcpServer::newConnection, [this] {
            while (QTcpSocket* socket = listener_.nextPendingConnection()) {
                socket->setParent(nullptr);
                links.push_back(std::make_unique<Link>());
                Link* link = links.back().get();
                link->socket.reset(socket);
                QObject::connect(socket, &QTcpSocket::readyRead, [link] {
                    const QByteArray bytes = link->socket->readAll();
                    link->reader.append(bytes.constData(), static_cast<std::size_t>(bytes.size()));
                    while (auto body = link->reader.next()) {
                        link->frames.push_back(*body);
                    }
                });
            }
        });
    }
    int port() const { return listener_.serverPort(); }
    bool waitForFrames(std::size_t link, std::size_t count) {
        return spinUntil(
            [&] { return links.size() > link && links[link]->frames.size() >= count; });
    }
    void answer(std::size_t link, const std::string& info, const std::string& token = "T1") {
        Answer answer;
        answer.token = token;
        answer.info = info;
        writeFrame(*links[link]->socket, *answer.json());
    }

    std::vector<std::unique_ptr<Link>> links;

  private:
    QTcpServer listener_;
};

TEST(SeatConnectionTest, AnswersComeInOrderAndOneThatNeverComesTimesOut) {
    FakeGame game;
    SeatConnection seat(game.port());
    seat.setAnswerTimeout(300ms);
    seat.setIdleClose(200ms);
    Seen seen;
    seen.watch(seat);
    seat.initNewDeal("A", seen.keep());
    seat.play(seen.keep());
    seat.openCards(seen.keep());

    ASSERT_TRUE(game.waitForFrames(0, 1));
    Request deal;
    deal.request = RequestCode::initNewDeal;
    deal.data = PokerClient::dealData("A");
    EXPECT_EQ(game.links[0]->frames[0], *deal.json());
    game.answer(0, "first");
    // The play goes out only once the deal was answered, and is never answered itself.
    ASSERT_TRUE(game.waitForFrames(0, 2));
    QElapsedTimer waited;
    waited.start();
    EXPECT_EQ(game.links[0]->frames[1], bytesOf("{\"request\":4}"));
    ASSERT_TRUE(spinUntil([&] { return seen.answers.size() == 2; }, 5s));
    EXPECT_GE(waited.elapsed(), 250);
    EXPECT_FALSE(seen.answers[1]);
    // The connection that lost its step is dropped; the next request goes out on a new one.
    EXPECT_TRUE(spinUntil(
        [&] { return game.links[0]->socket->state() == QAbstractSocket::UnconnectedState; }, 5s));
    ASSERT_TRUE(game.waitForFrames(1, 1));
    EXPECT_EQ(game.links[1]->frames[0], bytesOf("{\"request\":5}"));
    EXPECT_EQ(game.links[0]->frames.size(), 2u);
    game.answer(1, "third");
    ASSERT_TRUE(spinUntil([&] { return seen.answers.size() == 3; }));
    ASSERT_TRUE(seen.answers[0] && seen.answers[2]);
    EXPECT_EQ(seen.answers[0]->info, "first");
    EXPECT_EQ(seen.answers[2]->info, "third");
    // Nothing more to ask: the idle connection is closed, and opened again when needed.
    EXPECT_TRUE(spinUntil(
        [&] { return game.links[1]->socket->state() == QAbstractSocket::UnconnectedState; }, 5s));
    seat.loginPlayer("Bob", seen.keep());
    ASSERT_TRUE(game.waitForFrames(2, 1));
    EXPECT_EQ(game.links[2]->frames[0].front(), '{');
    // A login answered OK whose connection back never comes: the seat would hear nothing, and
    // says so.
    game.answer(2, "Game");
    EXPECT_TRUE(spinUntil([&] { return seen.pushClosed == 1; }, 5s));
    EXPECT_TRUE(seat.isLoggedIn());
}

// A frame and a wait for the end of the connection, sent to port by another program: "1" when
// the connection was closed on it, "142" when it was held open for 5 s.
QString otherProgramScript(int port, const Bytes& frame) {
    QString escaped;
    for (const std::uint8_t byte : frame) {
        escaped += QStringLiteral("\\x%1").arg(byte, 2, 16, QLatin1Char('0'));
    }
    return QStringLiteral(
               "trap '' PIPE; exec 3<>/dev/tcp/127.0.0.1/%1 || exit 2; printf '%2' >&3 "
               "2>/dev/null; "
               "read -t 5 -u 3 line; echo $?")
        .arg(port)
        .arg(escaped);
}

TEST(SeatConnectionTest, PushListenerTakesOnlyTheServersConnectionBackAndOnlyOurToken) {
    FakeGame game;
    SeatConnection seat(game.port());
    Seen seen;
    seen.watch(seat);
    seat.loginPlayer("Bob", seen.keep());
    ASSERT_TRUE(game.waitForFrames(0, 1));
    Request login;
    login.request = RequestCode::loginPlayer;
    login.data = PokerClient::loginData("Bob", std::nullopt, seat.pushPort());
    EXPECT_EQ(game.links[0]->frames[0], *login.json());
    const Bytes forged = *encodeFrame(
        notificationBody(RequestCode::cardElected, "T1", PokerClient::electionData("Bob", "13")));

    // While the login is on its way, another program on this machine connects to the push
    // port first, with the very token the login will get: closed at once.
    QProcess other;
    other.start(QStringLiteral("bash"),
                {QStringLiteral("-c"), otherProgramScript(seat.pushPort(), forged)});
    ASSERT_TRUE(spinUntil([&] { return other.state() == QProcess::NotRunning; }, 10s));
    EXPECT_EQ(other.readAllStandardOutput().trimmed(), "1");

    // The server's connection back (from this process) is taken; what it brings before the
    // login's answer is handed over after it.
    LocalClient push(seat.pushPort(),
                     notificationBody(RequestCode::playerAdded, "T1", bytesOf("{}")));
    ASSERT_TRUE(push.waitConnected());
    game.answer(0, "Game");
    ASSERT_TRUE(spinUntil([&] { return seen.notifications.size() == 1; }));
    EXPECT_EQ(seen.order, (std::vector<std::string>{"answer", "playerAdded"}));
    EXPECT_TRUE(seat.isLoggedIn());

    // Only one push connection: a second one from this process is closed at once.
    LocalClient second(seat.pushPort(), notificationBody(RequestCode::play, "T1"));
    EXPECT_TRUE(second.closedSoon());

    // A frame with another token closes the push connection; nothing on it is handed over.
    writeFrame(push.socket, notificationBody(RequestCode::play, "T1"));
    writeFrame(push.socket, notificationBody(RequestCode::openCards, "T2"));
    writeFrame(push.socket, notificationBody(RequestCode::cardElected, "T1"));
    EXPECT_TRUE(push.closedSoon());
    ASSERT_TRUE(spinUntil([&] { return seen.pushClosed == 1; }));
    EXPECT_EQ(seen.order, (std::vector<std::string>{"answer", "playerAdded", "play"}));
    EXPECT_FALSE(seen.hasNotification(RequestCode::cardElected));
    EXPECT_FALSE(seen.hasNotification(RequestCode::openCards));
}

}  // namespace
}  // namespace pointlane::testkit
