// The web port under hostile clients, against the real server: its resident memory under a
// ping flood and under endless request bodies (against the same server idle, in the same run),
// and how long a page from a second address waits while one address holds 70 idle pages
// (against the same page with no idle pages, in the same run).
//
// Ping flood: 8 pages say hello, then send pings and never read. Endless bodies: 8 requests
// with Content-Length 10^12 and 8 chunked, each sending for up to 5 s. The resident memory is
// sampled every 20 ms; a connection the server ends is counted as dropped.
//
// Usage: web_guard_bench [flood ms]   (default 5000; a temporary HOME; the server on free ports).
// Exits with status 1 when the server, a flooding page or a timed page could not be set up.
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QTcpSocket>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "BenchKit.h"
#include "ServerProcess.h"

namespace {

using namespace pointlane;
using Sockets = std::vector<std::unique_ptr<QTcpSocket>>;

constexpr int kFlooders = 8;
constexpr int kIdlePages = 70;
int floodMs = 5000;  // the first argument; a smoke run floods for less

// VmRSS of the process in MB.
double residentMb(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::atof(line.c_str() + 6) / 1024.0;
        }
    }
    return -1;
}

std::unique_ptr<QTcpSocket> connectTo(int port, const QHostAddress& source = {}) {
    auto socket = std::make_unique<QTcpSocket>();
    socket->setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, 4096);
    if (!source.isNull()) {
        socket->bind(source);
    }
    socket->connectToHost(QHostAddress::LocalHost, static_cast<quint16>(port));
    if (!socket->waitForConnected(5000)) {
        return nullptr;
    }
    return socket;
}

QByteArray maskedFrame(char opcode, const QByteArray& payload) {
    QByteArray frame;
    frame += static_cast<char>(0x80 | opcode);
    frame += static_cast<char>(0x80 | payload.size());
    const char mask[4] = {0x0f, 0x1e, 0x2d, 0x3c};
    frame.append(mask, 4);
    for (int i = 0; i < payload.size(); ++i) {
        frame += static_cast<char>(payload[i] ^ mask[i % 4]);
    }
    return frame;
}

// The status line of the answer to an upgrade ("" when none came).
QByteArray upgrade(QTcpSocket& socket, int port) {
    socket.write("GET /socket HTTP/1.1\r\nHost: 127.0.0.1:" + QByteArray::number(port) +
                 "\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Version: 13\r\n"
                 "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n");
    QByteArray answer;
    while (!answer.contains("\r\n\r\n") && socket.waitForReadyRead(5000)) {
        answer += socket.readAll();
    }
    return answer.left(answer.indexOf("\r\n"));
}

// A page that said hello and got its first message; nullptr when refused.
std::unique_ptr<QTcpSocket> helloPage(int port, int index, const QHostAddress& source = {},
                                      QByteArray* status = nullptr) {
    auto socket = connectTo(port, source);
    if (!socket) {
        return nullptr;
    }
    const QByteArray line = upgrade(*socket, port);
    if (status) {
        *status = line;
    }
    if (line != "HTTP/1.1 101 Switching Protocols") {
        return nullptr;
    }
    socket->write(maskedFrame(0x1, "{\"type\":\"hello\",\"tab\":\"bench-tab-" +
                                       QByteArray::number(index) + "-000000\"}"));
    if (!socket->waitForReadyRead(5000)) {
        return nullptr;
    }
    socket->readAll();
    return socket;
}

struct Flood {
    double peakMb = 0;
    int dropped = 0;
    double megabytesSent = 0;
};

// Sends from every socket for up to floodMs (never reading), sampling the server's memory.
Flood flood(pid_t pid, Sockets& sockets, const QByteArray& unit) {
    Flood result;
    QElapsedTimer timer;
    timer.start();
    // What reached the system, not what waits in the clients' own buffers.
    qint64 sent = 0;
    for (auto& socket : sockets) {
        QObject::connect(socket.get(), &QTcpSocket::bytesWritten,
                         [&sent](qint64 bytes) { sent += bytes; });
    }
    while (timer.elapsed() < floodMs) {
        bool open = false;
        for (auto& socket : sockets) {
            if (socket->state() != QAbstractSocket::ConnectedState) {
                continue;
            }
            open = true;
            if (socket->bytesToWrite() < (1 << 18)) {
                socket->write(unit);
            }
            socket->waitForBytesWritten(0);
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
        result.peakMb = std::max(result.peakMb, residentMb(pid));
        if (!open) {
            break;
        }
    }
    for (auto& socket : sockets) {
        socket->disconnect();
        socket->waitForReadyRead(0);
        result.dropped += socket->state() != QAbstractSocket::ConnectedState ? 1 : 0;
    }
    result.megabytesSent = static_cast<double>(sent) / 1e6;
    return result;
}

// Milliseconds from connecting until a page from source has its first message: the median
// of five pages, each closed before the next.
double pageWaitMs(int port, int firstIndex, const QHostAddress& source) {
    std::vector<double> samples;
    for (int i = 0; i < 5; ++i) {
        QElapsedTimer timer;
        timer.start();
        auto page = helloPage(port, firstIndex + i, source);
        samples.push_back(page ? static_cast<double>(timer.nsecsElapsed()) / 1e6 : -1);
    }
    std::sort(samples.begin(), samples.end());
    return samples[samples.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    if (argc > 1) {
        floodMs = std::max(1, std::atoi(argv[1]));
    }
    bench::TempHome home("guard-bench");
    auto server = testkit::ServerProcess::start(home.path.string(), {"--web-port", "0"});
    if (!server) {
        std::fprintf(stderr, "web_guard_bench: the server did not start\n");
        return EXIT_FAILURE;
    }
    std::optional<int> port;
    for (int i = 0; i < 500 && !port; ++i) {
        port = bench::webPortIn(server->diagnostics());
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (!port) {
        std::fprintf(stderr, "web_guard_bench: the web table did not start\n");
        return EXIT_FAILURE;
    }
    const pid_t pid = server->pid();
    const double idleMb = residentMb(pid);

    // Ping flood.
    Sockets pingers;
    for (int i = 0; i < kFlooders; ++i) {
        if (auto page = helloPage(*port, i)) {
            page->setReadBufferSize(1);
            pingers.push_back(std::move(page));
        }
    }
    QByteArray pings;
    for (int i = 0; i < 256; ++i) {
        pings += maskedFrame(0x9, QByteArray(125, 'p'));
    }
    const bool allPingers = pingers.size() == static_cast<std::size_t>(kFlooders);
    const Flood pingFlood = flood(pid, pingers, pings);
    pingers.clear();

    // Endless bodies.
    Sockets bodies;
    const QByteArray chunk =
        QByteArray::number(64 * 1024, 16) + "\r\n" + QByteArray(64 * 1024, 'b') + "\r\n";
    for (int i = 0; i < 2 * kFlooders; ++i) {
        if (auto socket = connectTo(*port)) {
            socket->write(
                i % 2 == 0 ? "POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 1000000000000\r\n\r\n"
                           : "POST / HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n");
            bodies.push_back(std::move(socket));
        }
    }
    const bool allBodies = bodies.size() == static_cast<std::size_t>(2 * kFlooders);
    const Flood bodyFlood = flood(pid, bodies, chunk);
    bodies.clear();

    // A second address while the first holds 70 idle pages.
    const QHostAddress first(QStringLiteral("127.0.0.1"));
    const QHostAddress second(QStringLiteral("127.0.0.2"));
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const double bareMs = pageWaitMs(*port, 900, second);
    Sockets idle;
    int refused = 0;
    for (int i = 0; i < kIdlePages; ++i) {
        QByteArray status;
        if (auto page = helloPage(*port, 100 + i, first, &status)) {
            idle.push_back(std::move(page));
        } else {
            ++refused;
        }
    }
    const double heldMs = pageWaitMs(*port, 910, second);

    std::printf("server resident memory (VmRSS), idle (baseline): %6.1f MB\n", idleMb);
    std::printf(
        "  ping flood, %d unread pages, %.0f MB of pings written by the clients: peak %6.1f MB, %d "
        "of %d "
        "dropped\n",
        kFlooders, pingFlood.megabytesSent, pingFlood.peakMb, pingFlood.dropped, kFlooders);
    std::printf(
        "  endless bodies, %d requests (half Content-Length, half chunked), %.0f MB "
        "written by the clients: peak %6.1f MB, %d of %d cut\n",
        2 * kFlooders, bodyFlood.megabytesSent, bodyFlood.peakMb, bodyFlood.dropped, 2 * kFlooders);
    std::printf("a page from 127.0.0.2 until its first message (median of 5):\n");
    std::printf("  no idle pages (baseline):                 %8.2f ms\n", bareMs);
    std::printf("  %d idle pages from 127.0.0.1 (%zu held, %d refused): %8.2f ms\n", kIdlePages,
                idle.size(), refused, heldMs);
    idle.clear();
    if (!allPingers || !allBodies || bareMs < 0 || heldMs < 0) {
        std::fprintf(stderr, "web_guard_bench: a flooding or timed page could not be opened\n");
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
