// A native play's notification while history pages poll, against the same play without them,
// in one run against one real server whose database holds a long history (by default 1,000
// games x 20 deals x 5 elections, made with the schema script).
//
// Five native clients play; before each timed play the first one elects a card (stored, so
// the history changes every round) and every tenth round puts up a new item (stored too).
// Latency runs from the first client's "play" until the fifth client's own server has the
// notification. The rounds come in blocks of 20, alternately with and without five history
// pages, each asking for /history.json every 5 s as the page does (with its last ETag), so
// both sides see the same server, database and machine.
//
// Usage: history_bench [rounds per side] [games]   (defaults: 200, 1000)
#include <QCoreApplication>
#include <QTcpSocket>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "BenchKit.h"
#include "ClientServer.h"
#include "PokerClient.h"
#include "ServerProcess.h"
#include "app/SchemaLocation.h"
#include "storage/Deal.h"
#include "storage/Election.h"
#include "storage/Game.h"
#include "storage/SQLite.h"

namespace {

using namespace pointlane;
using Clock = std::chrono::steady_clock;

constexpr int kPlayers = 5;
constexpr int kPages = 5;
constexpr int kBlock = 20;
constexpr int kWarmUp = 20;
constexpr int kPauseMs = 110;
constexpr auto kPollEvery = std::chrono::seconds(5);

// The database the server will open: games x 20 deals x 5 elections, with the schema.
bool generate(const std::string& path, int games) {
    const auto schema = SchemaLocation::find();
    if (!schema) {
        std::fprintf(stderr, "no Schema.sql next to the program\n");
        return false;
    }
    sqlm().setSchemaPath(*schema);
    if (!sqlm().create(path)) {
        return false;
    }
    static const char* const kNames[] = {"\u0141ucja", "Bob", "Cy", "Dora", "\u017Baneta"};
    static const char* const kCards[] = {"1", "2", "3", "5", "8", "13", "?", "\u00BD", "0,5"};
    sqlm().execQuery("BEGIN");
    for (int g = 0; g < games; ++g) {
        auto game = Game::make("Sprint " + std::to_string(g), "Admin");
        if (!game || !game->save()) {
            return false;
        }
        for (int d = 0; d < 20; ++d) {
            auto deal = Deal::make(game->id, "Story " + std::to_string(d));
            if (!deal || !deal->save()) {
                return false;
            }
            for (int e = 0; e < 5; ++e) {
                auto election = Election::make(deal->id, kNames[e], kCards[(g + d + e) % 9]);
                if (!election || !election->save()) {
                    return false;
                }
            }
        }
    }
    sqlm().execQuery("COMMIT");
    sqlm().close();
    return true;
}

// Five history pages, each on its own thread, asking every 5 s while active.
class HistoryPages {
  public:
    explicit HistoryPages(int port) : port_(port) {
        for (int i = 0; i < kPages; ++i) {
            threads_.emplace_back([this, i] { run(i); });
        }
    }
    ~HistoryPages() {
        stop_ = true;
        for (auto& thread : threads_) {
            thread.join();
        }
    }
    void setActive(bool active) {
        active_ = active;
        if (!active) {
            // Nothing of theirs still running when the other side's block starts.
            while (busy_ > 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
        }
    }
    int full() const { return full_; }
    int unchanged() const { return unchanged_; }
    int failed() const { return failed_; }
    double megabytes() const { return static_cast<double>(bytes_) / 1e6; }

  private:
    void run(int index) {
        std::string tag;
        // Staggered like pages opened at different moments.
        auto next = Clock::now() + index * kPollEvery / kPages;
        while (!stop_) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            if (!active_ || Clock::now() < next) {
                continue;
            }
            next += kPollEvery;
            ++busy_;
            if (!active_) {
                --busy_;
                continue;
            }
            ask(tag);
            --busy_;
        }
    }
    void ask(std::string& tag) {
        QTcpSocket socket;
        socket.connectToHost(QStringLiteral("127.0.0.1"), static_cast<quint16>(port_));
        if (!socket.waitForConnected(5000)) {
            ++failed_;
            return;
        }
        std::string request =
            "GET /history.json HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port_) +
            "\r\nConnection: close\r\n";
        if (!tag.empty()) {
            request += "If-None-Match: " + tag + "\r\n";
        }
        socket.write(QByteArray::fromStdString(request + "\r\n"));
        QByteArray answer;
        while (socket.waitForReadyRead(30000) || socket.bytesAvailable() > 0) {
            answer += socket.readAll();
        }
        static const std::regex etag("\r\nETag: (\"[^\"]+\")");
        std::smatch match;
        const std::string text = answer.left(answer.indexOf("\r\n\r\n")).toStdString();
        if (answer.startsWith("HTTP/1.1 304")) {
            ++unchanged_;
        } else if (answer.startsWith("HTTP/1.1 200") && std::regex_search(text, match, etag)) {
            tag = match[1];
            ++full_;
            bytes_ += answer.size();
        } else {
            ++failed_;
        }
    }

    int port_;
    std::vector<std::thread> threads_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> active_{false};
    std::atomic<int> busy_{0};
    std::atomic<int> full_{0};
    std::atomic<int> unchanged_{0};
    std::atomic<int> failed_{0};
    std::atomic<long long> bytes_{0};
};

int fail(const char* what) {
    std::fprintf(stderr, "history_bench: %s\n", what);
    return EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    const int rounds = argc > 1 ? std::max(kBlock, std::atoi(argv[1])) : 200;
    const int games = argc > 2 ? std::max(1, std::atoi(argv[2])) : 1000;
    bench::TempHome home("history-bench");
    std::filesystem::create_directories(home.path / ".Pointlane");
    const std::string database = (home.path / ".Pointlane" / "Pointlane.sqlite").string();
    const auto made = Clock::now();
    if (!generate(database, games)) {
        return fail("can't generate the database");
    }
    std::printf("database: %d games x 20 deals x 5 elections, %.1f MB, made in %.1f s\n", games,
                static_cast<double>(std::filesystem::file_size(database)) / 1e6,
                std::chrono::duration<double>(Clock::now() - made).count());

    auto server = testkit::ServerProcess::start(home.path.string(), {"--web-port", "0"});
    if (!server) {
        return fail("the server did not start");
    }
    std::optional<int> webPort;
    for (int i = 0; i < 500 && !webPort; ++i) {
        webPort = bench::webPortIn(server->diagnostics());
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (!webPort) {
        return fail("the web table did not start");
    }
    std::vector<std::unique_ptr<ClientServer>> pushes;
    std::vector<std::unique_ptr<PokerClient>> clients;
    for (int i = 0; i < kPlayers; ++i) {
        pushes.push_back(ClientServer::start());
        clients.push_back(PokerClient::connect(server->port()));
        if (!pushes.back() || !clients.back()) {
            return fail("a client did not connect");
        }
        const std::string name = "player" + std::to_string(i);
        const auto answer = i == 0
                                ? clients.back()->loginAdmin(name, "Bench", pushes.back()->port())
                                : clients.back()->loginPlayer(name, pushes.back()->port());
        if (!answer || answer->code != 0) {
            return fail("a login was refused");
        }
    }
    ClientServer& fifth = *pushes.back();
    PokerClient& first = *clients.front();
    HistoryPages pages(*webPort);
    std::vector<double> without;
    std::vector<double> with;
    for (int round = 0; static_cast<int>(std::min(without.size(), with.size())) < rounds; ++round) {
        const bool polling = (round / kBlock) % 2 == 1;
        if (round % kBlock == 0) {
            pages.setActive(polling);
        }
        // Stored rows: the history changes every round.
        if (round % 10 == 0) {
            fifth.clear();
            if (!first.initNewDeal("Story " + std::to_string(round)) || !fifth.waitForCount(1)) {
                return fail("a deal failed");
            }
        }
        fifth.clear();
        if (!first.cardElected("player0", "5") || !fifth.waitForCount(1)) {
            return fail("an election failed");
        }
        fifth.clear();
        Request play;
        play.request = RequestCode::play;
        play.token = first.token();
        const auto started = Clock::now();
        if (!first.connection().send(play) || !fifth.waitForCount(1)) {
            return fail("a play failed");
        }
        const double elapsed =
            std::chrono::duration<double, std::micro>(Clock::now() - started).count();
        if (!first.connection().receiveAnswer()) {
            return fail("a play was not answered");
        }
        if (round >= 2 * kWarmUp) {
            (polling ? with : without).push_back(elapsed);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(kPauseMs));
    }
    pages.setActive(false);
    without.resize(static_cast<std::size_t>(rounds));
    with.resize(static_cast<std::size_t>(rounds));
    const bench::Figures bare = bench::figures(without);
    const bench::Figures loaded = bench::figures(with);
    std::printf("play to the fifth player's notification, %d rounds each side\n", rounds);
    std::printf("  without history pages (baseline): p50 %8.1f us   p99 %8.1f us\n", bare.p50,
                bare.p99);
    std::printf("  with %d history pages polling:    p50 %8.1f us   p99 %8.1f us\n", kPages,
                loaded.p50, loaded.p99);
    std::printf("  with / without:                   p50 %8.2fx    p99 %8.2fx\n",
                loaded.p50 / bare.p50, loaded.p99 / bare.p99);
    std::printf("  history answers: %d full (%.1f MB), %d unchanged (304), %d failed\n",
                pages.full(), pages.megabytes(), pages.unchanged(), pages.failed());
    // The pages ask as soon as their block starts, so even a short run has answers.
    if (pages.full() == 0 || pages.failed() != 0) {
        return fail("the history pages did not get their answers");
    }
    const auto bye = first.logout();
    if (!bye || bye->code != 0 || server->waitForExit(std::chrono::seconds(10)) != 0) {
        return fail("the game did not end with the administrator's logout");
    }
    return EXIT_SUCCESS;
}
