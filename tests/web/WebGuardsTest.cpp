// The web table's guards, each against the hostile client it is for: foreign origins, unread
// pings, endless bodies, idle pages from one address, half-sent requests, running out of
// descriptors; and the join code and the history's ETag.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QRegularExpression>
#include <QTcpSocket>
#include <QXmlStreamReader>
#include <algorithm>
#include <atomic>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include "HistoryBodies.h"
#include "JoinCode.h"
#include "ServerProcess.h"
#include "TestKit.h"
#include "WebFixture.h"

namespace pointlane::testkit {
namespace {

constexpr const char* kKey = "dGhlIHNhbXBsZSBub25jZQ==";

// A raw connection to the web port, from source (another loopback address when given).
std::unique_ptr<QTcpSocket> connectRaw(int port, const QHostAddress& source = {}) {
    auto socket = std::make_unique<QTcpSocket>();
    // A small receive window, so that what the client doesn't read stays with the server.
    socket->setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, 4096);
    if (!source.isNull()) {
        socket->bind(source);
    }
    socket->connectToHost(QHostAddress::LocalHost, static_cast<quint16>(port));
    EXPECT_TRUE(spinUntil([&] { return socket->state() == QAbstractSocket::ConnectedState; }));
    return socket;
}

QByteArray upgradeRequest(int port, const QByteArray& origin) {
    QByteArray request = "GET /socket HTTP/1.1\r\nHost: 127.0.0.1:" + QByteArray::number(port) +
                         "\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                         "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: " +
                         QByteArray(kKey) + "\r\n";
    if (!origin.isNull()) {
        request += "Origin: " + origin + "\r\n";
    }
    return request + "\r\n";
}

// The status line the server answers with ("" when the connection closed without one).
QByteArray statusLine(QTcpSocket& socket) {
    QByteArray answer;
    spinUntil([&] {
        answer += socket.readAll();
        return answer.contains("\r\n") || socket.state() == QAbstractSocket::UnconnectedState;
    });
    return answer.left(answer.indexOf("\r\n"));
}

// A page's socket after its upgrade (the 101 read), or nullptr.
std::unique_ptr<QTcpSocket> rawPage(int port, const QHostAddress& source = {}) {
    auto socket = connectRaw(port, source);
    socket->write(upgradeRequest(port, {}));
    if (statusLine(*socket) != "HTTP/1.1 101 Switching Protocols") {
        return nullptr;
    }
    return socket;
}

bool closedWithin(QTcpSocket& socket, std::chrono::milliseconds timeout) {
    return spinUntil(
        [&] {
            socket.readAll();
            return socket.state() == QAbstractSocket::UnconnectedState;
        },
        timeout);
}

// A masked client frame (opcode, payload of at most 125 bytes).
QByteArray clientFrame(char opcode, const QByteArray& payload) {
    QByteArray frame;
    frame += static_cast<char>(0x80 | opcode);
    frame += static_cast<char>(0x80 | payload.size());
    const char mask[4] = {0x11, 0x22, 0x33, 0x44};
    frame.append(mask, 4);
    for (int i = 0; i < payload.size(); ++i) {
        frame += static_cast<char>(payload[i] ^ mask[i % 4]);
    }
    return frame;
}

class WebGuardsTest : public WebFixture {
  protected:
    void adjust(WebServer::Options& options) override {
        options.gateway.sendLimit = 256 * 1024;
        options.gateway.helloTimeoutMs = 300;
        options.limits.requestTimeoutMs = 400;
        options.limits.pagesPerAddress = 3;
        options.joinLink = [] { return QStringLiteral("http://192.0.2.7:50080/"); };
        options.history.version = [this] { return version.load(); };
        options.history.json = [this](std::optional<std::int64_t>) {
            ++builds;
            builtOn = std::this_thread::get_id();
            return std::optional<std::string>("{\"games\":[" + std::to_string(version) + "]}");
        };
    }

    std::atomic<std::uint64_t> version{1};
    std::atomic<int> builds{0};
    std::thread::id builtOn;
};

TEST_F(WebGuardsTest, OnlyTheTablesOwnOriginMayOpenAPage) {
    const QByteArray self = "http://127.0.0.1:" + QByteArray::number(port);
    const struct {
        QByteArray origin;
        QByteArray status;
    } cases[] = {
        {QByteArray(), "HTTP/1.1 101 Switching Protocols"},  // not a browser
        {self, "HTTP/1.1 101 Switching Protocols"},
        {"HTTP://127.0.0.1:" + QByteArray::number(port), "HTTP/1.1 101 Switching Protocols"},
        {"http://evil.example", "HTTP/1.1 403 Forbidden"},
        {"http://evil.example:" + QByteArray::number(port), "HTTP/1.1 403 Forbidden"},
        {"http://127.0.0.1:" + QByteArray::number(port + 1), "HTTP/1.1 403 Forbidden"},
        {"http://127.0.0.1", "HTTP/1.1 403 Forbidden"},
        {"null", "HTTP/1.1 403 Forbidden"},
        {self + "@evil.example", "HTTP/1.1 403 Forbidden"},
        {"http://localhost:" + QByteArray::number(port), "HTTP/1.1 403 Forbidden"},
    };
    for (const auto& each : cases) {
        auto socket = connectRaw(port);
        socket->write(upgradeRequest(port, each.origin));
        EXPECT_EQ(statusLine(*socket), each.status) << each.origin.constData();
        if (each.status.contains("403")) {
            // Refused before any upgrade: the connection ends, the gateway never saw it.
            EXPECT_TRUE(closedWithin(*socket, std::chrono::seconds(5)));
        }
    }
    EXPECT_EQ(web->gateway().sessionCount(), 0u);
}

TEST_F(WebGuardsTest, APageThatSendsPingsAndNeverReadsIsDroppedNotBuffered) {
    auto socket = rawPage(port);
    ASSERT_TRUE(socket);
    // Hello first, so that only the unsent pongs can end the page (not the hello time-out).
    socket->write(clientFrame(0x1, R"({"type":"hello","seat":"seat-pinger-0123456789"})"));
    socket->setReadBufferSize(1);
    const QByteArray ping = clientFrame(0x9, QByteArray(125, 'p'));
    QByteArray burst;
    for (int i = 0; i < 64; ++i) {
        burst += ping;
    }
    // Without the limit the server queues every pong: 32 MiB of pings would all be answered
    // into its memory. With it, the page is gone after a few times the 256 KiB limit.
    qint64 sent = 0;
    const qint64 bound = 32 << 20;
    QElapsedTimer timer;
    timer.start();
    while (sent < bound && socket->state() == QAbstractSocket::ConnectedState &&
           timer.elapsed() < 20000) {
        if (socket->bytesToWrite() < (1 << 16)) {
            socket->write(burst);
            sent += burst.size();
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    }
    EXPECT_EQ(socket->state(), QAbstractSocket::UnconnectedState) << "the page was not dropped";
    EXPECT_LT(sent, 8 * 256 * 1024);
    EXPECT_TRUE(spinUntil([&] { return web->listener()->connectionCount() == 0; }));
}

// The request time-out is the usual one here: the cap alone must end the body.
class WebBodyTest : public WebGuardsTest {
  protected:
    void adjust(WebServer::Options& options) override {
        WebGuardsTest::adjust(options);
        options.limits.requestTimeoutMs = 10000;
    }
};

TEST_F(WebBodyTest, AnEndlessBodyIsCutAtTheCapAndASmallOneIsNot) {
    const qint64 cap = WebListener::Limits().maxBodyBytes + WebListener::Limits().maxHeadBytes;
    const QByteArray heads[] = {
        "POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 1000000000000\r\n\r\n",
        "POST / HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n",
    };
    const QByteArray chunk =
        QByteArray::number(64 * 1024, 16) + "\r\n" + QByteArray(64 * 1024, 'b') + "\r\n";
    for (const QByteArray& head : heads) {
        auto socket = connectRaw(port);
        socket->write(head);
        qint64 sent = 0;
        QByteArray answer;
        QElapsedTimer timer;
        timer.start();
        while (sent < 64 * cap && socket->state() == QAbstractSocket::ConnectedState &&
               timer.elapsed() < 5000) {
            if (socket->bytesToWrite() < (1 << 16)) {
                socket->write(chunk);
                sent += chunk.size();
            }
            QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
            answer += socket->readAll();
        }
        EXPECT_EQ(socket->state(), QAbstractSocket::UnconnectedState) << head.constData();
        EXPECT_LT(sent, 8 * cap) << head.constData();
        EXPECT_TRUE(answer.isEmpty() || answer.startsWith("HTTP/1.1 413")) << answer.constData();
    }
    // Under the cap a body reaches the handler, which answers it.
    auto socket = connectRaw(port);
    socket->write("POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 524288\r\n\r\n" +
                  QByteArray(524288, 'b'));
    EXPECT_EQ(statusLine(*socket), "HTTP/1.1 405 Method Not Allowed");
}

TEST_F(WebGuardsTest, IdlePagesFromOneAddressLeaveRoomForAnother) {
    // Pages that never say hello are closed after the hello time-out.
    auto silent = rawPage(port);
    ASSERT_TRUE(silent);
    EXPECT_TRUE(closedWithin(*silent, std::chrono::seconds(5)));
    ASSERT_TRUE(spinUntil([&] { return web->listener()->connectionCount() == 0; }));

    // Three pages from 127.0.0.1 that said hello and sit idle: the address's share.
    std::vector<Page*> idle;
    for (int i = 0; i < 3; ++i) {
        idle.push_back(&lobbyPage("idle" + std::to_string(i)));
    }
    auto refused = connectRaw(port);
    refused->write(upgradeRequest(port, {}));
    EXPECT_EQ(statusLine(*refused), "HTTP/1.1 429 Too Many Requests");
    // Another address is served at once.
    const QHostAddress other(QStringLiteral("127.0.0.2"));
    auto page = rawPage(port, other);
    ASSERT_TRUE(page) << "a second address was refused";
    // The idle pages stay (they said hello); one closing gives its place back.
    spinUntil([] { return false; }, std::chrono::milliseconds(500));
    for (Page* each : idle) {
        EXPECT_FALSE(each->closed);
    }
    idle.front()->close();
    EXPECT_TRUE(spinUntil([&] {
        auto again = connectRaw(port);
        again->write(upgradeRequest(port, {}));
        return statusLine(*again) == "HTTP/1.1 101 Switching Protocols";
    }));
}

TEST_F(WebGuardsTest, HalfSentRequestsAndIdleConnectionsAreClosedAfterTheTimeout) {
    // A request still unfinished after the time-out, though it keeps trickling in.
    auto slow = connectRaw(port);
    QElapsedTimer timer;
    timer.start();
    slow->write("GET / HTTP/1.1\r\nHost: x\r\n");
    spinUntil(
        [&] {
            slow->write("X-Drip: 1\r\n");
            return slow->state() != QAbstractSocket::ConnectedState;
        },
        std::chrono::seconds(5));
    EXPECT_EQ(slow->state(), QAbstractSocket::UnconnectedState);
    EXPECT_GE(timer.elapsed(), 350);
    // A keep-alive connection answered and then idle.
    auto idle = connectRaw(port);
    idle->write("GET /pointlane.css HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_EQ(statusLine(*idle), "HTTP/1.1 200 OK");
    timer.restart();
    EXPECT_TRUE(closedWithin(*idle, std::chrono::seconds(5)));
    EXPECT_GE(timer.elapsed(), 300);
}

TEST_F(WebGuardsTest, TheJoinCodeIsAnSvgQrCodeOfTheLinkThePageWasReachedBy) {
    const struct {
        QByteArray host;
        std::string link;
    } cases[] = {
        {"table.example:8080", "http://table.example:8080/"},
        {"192.0.2.1:50080", "http://192.0.2.1:50080/"},
        // Reached on loopback: a phone needs the app's link.
        {"127.0.0.1:50080", "http://192.0.2.7:50080/"},
        {"localhost:50080", "http://192.0.2.7:50080/"},
        {"evil\"><script>", "http://192.0.2.7:50080/"},
    };
    for (const auto& each : cases) {
        auto socket = connectRaw(port);
        socket->write("GET /join.svg HTTP/1.1\r\nHost: " + each.host + "\r\n\r\n");
        QByteArray answer;
        ASSERT_TRUE(spinUntil([&] {
            answer += socket->readAll();
            return answer.contains("</svg>");
        })) << answer.constData();
        EXPECT_TRUE(answer.startsWith("HTTP/1.1 200 OK"));
        EXPECT_TRUE(answer.contains("Content-Type: image/svg+xml"));
        const QByteArray svg = answer.mid(answer.indexOf("\r\n\r\n") + 4);
        QXmlStreamReader xml(svg);
        std::string title;
        std::set<std::pair<int, int>> dark;
        int side = 0;
        while (!xml.atEnd()) {
            if (xml.readNext() != QXmlStreamReader::StartElement) {
                continue;
            }
            if (xml.name() == QLatin1String("svg")) {
                side = xml.attributes().value(QLatin1String("viewBox")).split(u' ')[2].toInt();
            } else if (xml.name() == QLatin1String("title")) {
                title = xml.readElementText().toStdString();
            } else if (xml.name() == QLatin1String("path")) {
                static const QRegularExpression square(QStringLiteral("M(\\d+) (\\d+)h1v1h-1z"));
                auto it = square.globalMatch(xml.attributes().value(QLatin1String("d")));
                while (it.hasNext()) {
                    const auto match = it.next();
                    dark.insert({match.captured(1).toInt() - 4, match.captured(2).toInt() - 4});
                }
            }
        }
        ASSERT_FALSE(xml.hasError()) << xml.errorString().toStdString();
        EXPECT_EQ(title, each.link);
        // A QR code: 21 + 4k modules a side, a finder pattern in three corners (a dark ring, a
        // light ring, a dark 3x3 core), and none in the fourth.
        const int size = side - 8;
        ASSERT_EQ((size - 21) % 4, 0) << size;
        const auto finderAt = [&](int x0, int y0) {
            for (int y = 0; y < 7; ++y) {
                for (int x = 0; x < 7; ++x) {
                    const int ring = std::max(std::abs(x - 3), std::abs(y - 3));
                    if ((ring != 2) != (dark.count({x0 + x, y0 + y}) == 1)) {
                        return false;
                    }
                }
            }
            return true;
        };
        EXPECT_TRUE(finderAt(0, 0) && finderAt(size - 7, 0) && finderAt(0, size - 7));
        EXPECT_FALSE(finderAt(size - 7, size - 7));
    }
}

TEST_F(WebGuardsTest, AnUnchangedHistoryIsAnswered304WithoutBuildingAnything) {
    const auto get = [&](const QByteArray& ifNoneMatch) {
        auto socket = connectRaw(port);
        QByteArray request = "GET /history.json HTTP/1.1\r\nHost: x\r\n";
        if (!ifNoneMatch.isEmpty()) {
            request += "If-None-Match: " + ifNoneMatch + "\r\n";
        }
        socket->write(request + "\r\n");
        QByteArray answer;
        spinUntil([&] {
            answer += socket->readAll();
            const int end = answer.indexOf("\r\n\r\n");
            if (end < 0) {
                return false;
            }
            static const QRegularExpression length(QStringLiteral("Content-Length: (\\d+)"));
            const auto match = length.match(QString::fromLatin1(answer.left(end)));
            return !match.hasMatch() || answer.size() >= end + 4 + match.captured(1).toInt();
        });
        return answer;
    };
    const auto etagOf = [](const QByteArray& answer) {
        static const QRegularExpression tag(QStringLiteral("ETag: (\"[^\"]+\")"));
        return tag.match(QString::fromLatin1(answer)).captured(1).toLatin1();
    };
    const QByteArray first = get({});
    ASSERT_TRUE(first.startsWith("HTTP/1.1 200 OK")) << first.constData();
    EXPECT_TRUE(first.endsWith("{\"games\":[1]}"));
    const QByteArray tag = etagOf(first);
    ASSERT_FALSE(tag.isEmpty());
    EXPECT_EQ(builds, 1);
    EXPECT_NE(builtOn, std::this_thread::get_id()) << "built on the Qt thread";

    const QByteArray same = get(tag);
    EXPECT_TRUE(same.startsWith("HTTP/1.1 304 Not Modified")) << same.constData();
    EXPECT_EQ(etagOf(same), tag);
    EXPECT_TRUE(same.endsWith("\r\n\r\n"));
    EXPECT_TRUE(get({}).endsWith("{\"games\":[1]}"));  // kept, not built again
    EXPECT_EQ(builds, 1);

    ++version;  // something was stored
    const QByteArray changed = get(tag);
    ASSERT_TRUE(changed.startsWith("HTTP/1.1 200 OK")) << changed.constData();
    EXPECT_TRUE(changed.endsWith("{\"games\":[2]}"));
    EXPECT_NE(etagOf(changed), tag);
    EXPECT_EQ(builds, 2);
    EXPECT_TRUE(get(etagOf(changed) + ", \"other\"").startsWith("HTTP/1.1 304"));
}

// The real server with its descriptors limited to limit (soft and hard, so that the start
// can't raise them), on free ports.
struct LimitedServer {
    pid_t pid = -1;
    int webPort = 0;
    TempDir home;

    explicit LimitedServer(int limit) {
        const std::string err = home.file("stderr");
        // The shell sets both limits, then becomes the server (same process id).
        const std::string script = "ulimit -n " + std::to_string(limit) +
                                   " && exec \"$0\" --headless --port 0 --web-port 0 "
                                   "2>\"$1\" >/dev/null";
        const std::string homeVariable = "HOME=" + home.path().string();
        const char* arguments[] = {"sh",        "-c",   script.c_str(), POINTLANE_BINARY,
                                   err.c_str(), nullptr};
        const char* environment[] = {homeVariable.c_str(), "PATH=/usr/bin:/bin", nullptr};
        if (posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char* const*>(arguments),
                        const_cast<char* const*>(environment)) != 0) {
            pid = -1;
            return;
        }
        static const QRegularExpression mark(QStringLiteral("Web table on port (\\d+)"));
        spinUntil([&] {
            const auto match = mark.match(QString::fromStdString(fileText(err)));
            webPort = match.hasMatch() ? match.captured(1).toInt() : 0;
            return webPort != 0;
        });
    }
    ~LimitedServer() {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    // User and system time so far, in seconds.
    double cpuSeconds() const {
        std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
        std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        std::istringstream fields(text.substr(text.rfind(')') + 2));
        std::string field;
        double ticks = 0;
        for (int i = 3; i <= 15 && fields >> field; ++i) {
            if (i == 14 || i == 15) {
                ticks += std::stod(field);
            }
        }
        return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
    }
};

TEST(WebDescriptorTest, OutOfDescriptorsTheServerWaitsInsteadOfSpinningAndServesAgainAfter) {
    LimitedServer server(40);
    ASSERT_NE(server.webPort, 0);
    // Its start's own work done, the server is idle (no CPU time over 300 ms).
    ASSERT_TRUE(spinUntil([&] {
        const double start = server.cpuSeconds();
        spinUntil([] { return false; }, std::chrono::milliseconds(300));
        return server.cpuSeconds() - start < 0.01;
    }));
    // Far more connections than the server has descriptors left.
    std::vector<std::unique_ptr<QTcpSocket>> flood;
    for (int i = 0; i < 60; ++i) {
        flood.push_back(std::make_unique<QTcpSocket>());
        flood.back()->connectToHost(QHostAddress::LocalHost, static_cast<quint16>(server.webPort));
    }
    spinUntil([&] {
        return std::all_of(flood.begin(), flood.end(), [](const auto& socket) {
            return socket->state() != QAbstractSocket::ConnectingState &&
                   socket->state() != QAbstractSocket::HostLookupState;
        });
    });
    // Out of descriptors with connections waiting, the server waits: a spinning accept takes
    // whatever CPU the machine gives it (close to a core when idle), waiting next to nothing.
    spinUntil([] { return false; }, std::chrono::milliseconds(300));
    const double before = server.cpuSeconds();
    spinUntil([] { return false; }, std::chrono::milliseconds(1500));
    EXPECT_LT(server.cpuSeconds() - before, 0.1) << "the server spins";
    flood.clear();
    // With the descriptors back, a new page is served.
    EXPECT_TRUE(spinUntil(
        [&] {
            auto socket = connectRaw(server.webPort);
            socket->write("GET /pointlane.css HTTP/1.1\r\nHost: x\r\n\r\n");
            return statusLine(*socket) == "HTTP/1.1 200 OK";
        },
        std::chrono::seconds(10)));
}

}  // namespace
}  // namespace pointlane::testkit
