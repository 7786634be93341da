// A play through the web table against the same play through native clients, both against the
// real server on loopback, in one run.
//
// Web round: the first of five pages sends the browser message {"type":"play"} on its
// WebSocket; latency runs until the fifth page has the table that counts the card (the
// gateway's session sent the native play, the server pushed it to the five sessions, each sent
// its page a table). Native round (the baseline): the first of five native clients sends "play";
// latency runs until the fifth client's own server has the notification. Each web round starts
// on a new item (a seat plays once per item), put up outside the timed part.
//
// Usage: web_bench [rounds]   (default 200; two servers, each with a temporary HOME). Fewer than
// 20 rounds (a smoke run) also shorten the warm-up to that count. Exits with status 1 when a
// round fails.
#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>
#include <QWebSocket>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "BenchKit.h"
#include "ClientConnection.h"
#include "ClientServer.h"
#include "PokerClient.h"
#include "ServerProcess.h"

namespace {

using namespace pointlane;
using Clock = std::chrono::steady_clock;
using nlohmann::json;

constexpr int kPlayers = 5;
constexpr int kWarmUp = 20;
// Rounds played before the timed ones: a short run warms up as long as it measures.
int warmUp(int rounds) {
    return std::min(kWarmUp, rounds);
}
// Between rounds, on both sides alike.
constexpr int kPauseMs = 110;

// A page: a WebSocket whose messages are kept until taken.
class Page {
  public:
    explicit Page(int port) {
        QObject::connect(&socket_, &QWebSocket::textMessageReceived, [this](const QString& text) {
            json message = json::parse(text.toStdString(), nullptr, false);
            // A page's own part alone ("me") leaves the table it has as it was.
            if (message.is_discarded() || message.value("type", "") == "me") {
                return;
            }
            last = std::move(message);
            if (waiting_ && waiting_(last)) {
                waiting_ = nullptr;
                loop_.quit();
            }
        });
        QObject::connect(&socket_, &QWebSocket::connected, [this] { loop_.quit(); });
        socket_.open(QUrl(QStringLiteral("ws://127.0.0.1:%1/socket").arg(port)));
        if (socket_.state() != QAbstractSocket::ConnectedState) {
            QTimer::singleShot(10000, &loop_, &QEventLoop::quit);
            loop_.exec();
        }
    }
    void send(const json& message) {
        socket_.sendTextMessage(QString::fromStdString(message.dump()));
    }
    // Runs the event loop until a message satisfies done; false after ten seconds.
    bool waitFor(std::function<bool(const json&)> done) {
        if (!last.is_discarded() && done(last)) {
            return true;
        }
        bool ok = true;
        waiting_ = std::move(done);
        QTimer timer;
        timer.setSingleShot(true);
        QObject::connect(&timer, &QTimer::timeout, [&] {
            ok = false;
            loop_.quit();
        });
        timer.start(10000);
        loop_.exec();
        waiting_ = nullptr;
        return ok;
    }

    json last = json::object();

  private:
    QWebSocket socket_;
    QEventLoop loop_;
    std::function<bool(const json&)> waiting_;
};

std::nullopt_t failed(const char* side, int step) {
    std::fprintf(stderr, "%s rounds: step %d failed\n", side, step);
    return std::nullopt;
}

std::optional<std::vector<double>> webRounds(int rounds) {
    bench::TempHome home("web-bench");
    auto server = testkit::ServerProcess::start(home.path.string(), {"--web-port", "0"});
    if (!server) {
        return failed("web", 1);
    }
    std::optional<int> port;
    for (int i = 0; i < 500 && !port; ++i) {
        port = bench::webPortIn(server->diagnostics());
        if (!port) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    if (!port) {
        std::fprintf(stderr, "the web table did not start\n");
        return failed("web", 2);
    }
    std::vector<std::unique_ptr<Page>> pages;
    for (int i = 0; i < kPlayers; ++i) {
        pages.push_back(std::make_unique<Page>(*port));
        Page& page = *pages.back();
        const std::string name = "player" + std::to_string(i);
        page.send({{"type", "hello"}, {"seat", "bench-seat-00000000" + std::to_string(i)}});
        if (!page.waitFor([](const json& m) { return m.value("type", "") == "table"; })) {
            return failed("web", 3);
        }
        if (i == 0) {
            page.send({{"type", "start"}, {"name", name}, {"game", "Bench"}, {"deck", "standard"}});
        } else {
            page.send({{"type", "join"}, {"name", name}});
        }
        if (!page.waitFor([](const json& m) {
                return m.value("type", "") == "table" && m["me"].value("seat", "") == "seated";
            })) {
            return failed("web", 4);
        }
    }
    Page& first = *pages.front();
    Page& fifth = *pages.back();
    if (!fifth.waitFor([](const json& m) {
            return m.value("type", "") == "table" &&
                   m["table"].value("seats", json::array()).size() == kPlayers;
        })) {
        return failed("web", 5);
    }
    std::vector<double> micros;
    for (int round = 0; round < warmUp(rounds) + rounds; ++round) {
        const std::string item = "item " + std::to_string(round);
        first.send({{"type", "deal"}, {"title", item}});
        // A player picks a card once the item is on the page: the first page's and the fifth's.
        const auto title = [](const json& m) {
            if (m.value("type", "") != "table") {
                return std::string();
            }
            const json& current = m["table"]["current"];
            return current.is_object() ? current.value("title", "") : std::string();
        };
        const auto shown = [&](const json& m) { return title(m) == item; };
        if (!first.waitFor(shown) || !fifth.waitFor(shown)) {
            return failed("web", 6);
        }
        const auto started = Clock::now();
        first.send({{"type", "play"}, {"card", "5"}});
        if (!fifth.waitFor([&](const json& m) {
                return title(m) == item && m["table"].value("played", 0) == 1;
            })) {
            return failed("web", 7);
        }
        const double elapsed =
            std::chrono::duration<double, std::micro>(Clock::now() - started).count();
        if (round >= warmUp(rounds)) {
            micros.push_back(elapsed);
        }
        // Two messages a round: the pause keeps the page under the gateway's steady message
        // rate, so no page is taken for a flooding one.
        QEventLoop pause;
        QTimer::singleShot(kPauseMs, &pause, &QEventLoop::quit);
        pause.exec();
    }
    // The administrator's page ends the game (the event loop carries the message out) and the
    // server ends by itself.
    first.send({{"type", "leave"}});
    if (!first.waitFor([](const json& m) { return m.value("type", "") == "ended"; })) {
        return failed("web", 8);
    }
    if (server->waitForExit(std::chrono::seconds(10)) != std::optional<int>(0)) {
        return failed("web", 9);
    }
    return micros;
}

std::optional<std::vector<double>> nativeRounds(int rounds) {
    bench::TempHome home("web-bench");
    auto server = testkit::ServerProcess::start(home.path.string(), {"--no-web"});
    if (!server) {
        return failed("native", 1);
    }
    std::vector<std::unique_ptr<ClientServer>> pushes;
    std::vector<std::unique_ptr<PokerClient>> clients;
    for (int i = 0; i < kPlayers; ++i) {
        pushes.push_back(ClientServer::start());
        clients.push_back(PokerClient::connect(server->port()));
        if (!pushes.back() || !clients.back()) {
            return failed("native", 2);
        }
        const std::string name = "player" + std::to_string(i);
        const auto answer = i == 0
                                ? clients.back()->loginAdmin(name, "Bench", pushes.back()->port())
                                : clients.back()->loginPlayer(name, pushes.back()->port());
        if (!answer || answer->code != 0) {
            return failed("native", 3);
        }
    }
    ClientServer& fifth = *pushes.back();
    if (!fifth.waitForCount(1)) {  // its own playerAdded
        return failed("native", 4);
    }
    PokerClient& first = *clients.front();
    std::vector<double> micros;
    for (int round = 0; round < warmUp(rounds) + rounds; ++round) {
        fifth.clear();
        Request play;
        play.request = RequestCode::play;
        play.token = first.token();
        const auto started = Clock::now();
        if (!first.connection().send(play) || !fifth.waitForCount(1)) {
            return failed("native", 5);
        }
        const double elapsed =
            std::chrono::duration<double, std::micro>(Clock::now() - started).count();
        if (!first.connection().receiveAnswer()) {
            return failed("native", 6);
        }
        if (round >= warmUp(rounds)) {
            micros.push_back(elapsed);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(kPauseMs));
    }
    const auto bye = first.logout();
    if (!bye || bye->code != 0 ||
        server->waitForExit(std::chrono::seconds(10)) != std::optional<int>(0)) {
        return failed("native", 7);
    }
    return micros;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 200;
    const auto native = nativeRounds(rounds);
    const auto web = webRounds(rounds);
    if (!native || !web) {
        std::fprintf(stderr, "web_bench: a round failed\n");
        return EXIT_FAILURE;
    }
    const bench::Figures n = bench::figures(*native);
    const bench::Figures w = bench::figures(*web);
    std::printf("play to the fifth player's notification, five players, %d rounds each\n", rounds);
    std::printf("  native clients (baseline): p50 %8.1f us   p99 %8.1f us\n", n.p50, n.p99);
    std::printf("  web pages (WebSocket):     p50 %8.1f us   p99 %8.1f us\n", w.p50, w.p99);
    std::printf("  web / native:              p50 %8.2fx    p99 %8.2fx\n", w.p50 / n.p50,
                w.p99 / n.p99);
    return EXIT_SUCCESS;
}
