// Play round trips against the real server on loopback, compared with a minimal framed fan-out
// server doing the same I/O in this process.
//
// A round trip: one client sends "play" on its connection and gets the answer, and the five
// registered clients' own servers each receive their notification. Latency runs from the
// request being sent to the fifth notification being received.
//
// Stalled push connections: the administrator and four players, two of whom stop reading their
// push connections. Big deals fill what those connections buffer; reported are the healthy
// players' delivery delay of the first notification that meets the stall (from the request
// being sent to the last healthy player having it), and the p99 of 200 plays afterwards
// (request sent to every healthy player notified), beside the p99 of the run without a stall.
//
// Usage: game_bench [round trips]   (default 5000; the server binary is started with a temporary
// HOME). Fewer than 200 round trips (a smoke run) also shorten the warm-up and the plays after the
// stall to that count. Exits with status 1 when a step fails.
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ClientConnection.h"
#include "ClientServer.h"
#include "PokerClient.h"
#include "ServerProcess.h"
#include "transport/Answer.h"
#include "transport/Frame.h"
#include "transport/Request.h"
#include "transport/Socket.h"
#include "transport/SocketFunctions.h"

namespace {

using namespace pointlane;
using Clock = std::chrono::steady_clock;

constexpr int kPlayers = 5;
constexpr int kWarmUp = 200;

// The least a server can do for the same exchange: read a request frame, write it to the five
// push connections, write a fixed answer.
class FanOutServer {
  public:
    explicit FanOutServer(const std::vector<int>& clientPorts) {
        for (int port : clientPorts) {
            auto push = Socket::create(-1);
            connect_socket(push->socketFileDescriptor(), "127.0.0.1", port);
            pushes_.push_back(push);
        }
        listener_ = Socket::create(-1);
        bind_socket_loopback(listener_->socketFileDescriptor(), 0);
        socket_listen(listener_->socketFileDescriptor());
        port_ = listener_->localPort();
        Answer answer;
        answer.token = std::string(32, 't');
        answer_ = *answer.json();
        thread_ = std::thread([this] { serve(); });
    }
    ~FanOutServer() {
        listener_->shutdown();
        if (connection_) {
            connection_->shutdown();
        }
        thread_.join();
    }
    int port() const { return port_; }

  private:
    void serve() {
        const int descriptor = accept_socket(listener_->socketFileDescriptor());
        if (descriptor == -1) {
            return;
        }
        connection_ = Socket::create(descriptor);
        while (auto body = receiveFrame(*connection_)) {
            for (auto& push : pushes_) {
                sendFrame(*push, *body);
            }
            sendFrame(*connection_, answer_);
        }
    }

    std::vector<std::shared_ptr<Socket>> pushes_;
    std::shared_ptr<Socket> listener_;
    std::shared_ptr<Socket> connection_;
    Bytes answer_;
    int port_ = 0;
    std::thread thread_;
};

// Waits, in this thread, for each receiver to hold `expected` notifications; the latest time any
// of them got there, or nothing after the time-out.
std::optional<Clock::time_point> allReceived(std::vector<ClientServer*>& receivers,
                                             std::size_t expected) {
    for (auto* r : receivers) {
        if (!r->waitForCount(expected, std::chrono::seconds(20))) {
            return std::nullopt;
        }
    }
    return Clock::now();
}

struct Result {
    double perSecond = 0;
    double p50us = 0;
    double p99us = 0;
    bool ok = false;
};

// n round trips of `request` on connection, each complete when all receivers have one more
// notification than before.
Result measure(ClientConnection& connection, const Request& request,
               std::vector<std::unique_ptr<ClientServer>>& receivers, int n) {
    Result result;
    std::vector<double> latencies;
    latencies.reserve(n);
    std::vector<std::size_t> expected;
    for (auto& r : receivers) {
        expected.push_back(r->notifications().size());
    }
    const auto started = Clock::now();
    for (int i = 0; i < n; ++i) {
        const auto sent = Clock::now();
        auto answer = connection.request(request);
        if (!answer || answer->code != 0) {
            std::fprintf(stderr, "round trip %d: no answer\n", i);
            return result;
        }
        for (std::size_t k = 0; k < receivers.size(); ++k) {
            ++expected[k];
            if (!receivers[k]->waitForCount(expected[k], std::chrono::seconds(10))) {
                std::fprintf(stderr, "round trip %d: notification missing\n", i);
                return result;
            }
        }
        latencies.push_back(std::chrono::duration<double, std::micro>(Clock::now() - sent).count());
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - started).count();
    std::sort(latencies.begin(), latencies.end());
    result.perSecond = n / seconds;
    result.p50us = latencies[latencies.size() / 2];
    result.p99us = latencies[std::min(latencies.size() - 1, latencies.size() * 99 / 100)];
    result.ok = true;
    return result;
}

struct StallResult {
    double firstAffectedDeliveryMs = 0;  // healthy players' delay of the first stalled deal
    double firstAffectedAnswerMs = 0;    // that deal's answer
    double p99PlayUs = 0;                // plays afterwards
    int dealsToStall = 0;
    bool ok = false;
};

StallResult measureStall(const std::string& home, int plays) {
    StallResult result;
    auto started = testkit::ServerProcess::start(home);
    if (!started) {
        std::fprintf(stderr, "the server did not start\n");
        return result;
    }
    ClientServer::Options stalling;
    stalling.reads = false;
    stalling.receiveBufferSize = 4096;
    std::vector<std::unique_ptr<ClientServer>> receivers;
    std::vector<std::unique_ptr<PokerClient>> clients;
    std::vector<ClientServer*> healthy;
    std::vector<std::size_t> arrivals;  // playerAdded notifications each healthy player gets
    for (int i = 0; i < kPlayers; ++i) {
        const bool stalls = i == 2 || i == 3;
        receivers.push_back(stalls ? ClientServer::start(stalling) : ClientServer::start());
        clients.push_back(PokerClient::connect(started->port()));
        auto answer = i == 0
                          ? clients[i]->loginAdmin("Admin", "Bench", receivers[i]->port())
                          : clients[i]->loginPlayer("P" + std::to_string(i), receivers[i]->port());
        if (!answer || answer->code != 0) {
            std::fprintf(stderr, "login %d refused\n", i);
            return result;
        }
        if (!stalls) {
            healthy.push_back(receivers[i].get());
            arrivals.push_back(static_cast<std::size_t>(kPlayers - std::max(i, 1)));
        }
    }
    for (std::size_t k = 0; k < healthy.size(); ++k) {
        healthy[k]->waitForCount(arrivals[k]);
        healthy[k]->clear();
    }
    std::size_t expected = 0;
    // Deals until one is held up by the stalled connections (its answer takes 1.5 s or more;
    // an unhindered big deal takes well under a second).
    const std::string title(512 * 1024, 'x');
    Bytes data;
    const std::string dealText = R"({"title":")" + title + "\"}";
    data.assign(dealText.begin(), dealText.end());
    for (int i = 0; i < 32 && result.dealsToStall == 0; ++i) {
        const auto sent = Clock::now();
        Clock::time_point answered;
        bool answeredOk = false;
        std::thread answering([&] {
            auto answer = clients[0]->initNewDeal(data);
            answered = Clock::now();
            answeredOk = answer && answer->code == 0;
        });
        const auto delivered = allReceived(healthy, ++expected);
        answering.join();
        if (!delivered || !answeredOk) {
            std::fprintf(stderr, "deal %d: not delivered or not answered\n", i);
            return result;
        }
        if (answered - sent >= std::chrono::milliseconds(1500)) {
            result.dealsToStall = i + 1;
            result.firstAffectedDeliveryMs =
                std::chrono::duration<double, std::milli>(*delivered - sent).count();
            result.firstAffectedAnswerMs =
                std::chrono::duration<double, std::milli>(answered - sent).count();
        }
    }
    if (result.dealsToStall == 0) {
        std::fprintf(stderr, "the stalled connections never held a deal up\n");
        return result;
    }
    std::vector<double> latencies;
    for (int i = 0; i < plays; ++i) {
        const auto sent = Clock::now();
        auto answer = clients[1]->play();
        const auto delivered = allReceived(healthy, ++expected);
        if (!answer || answer->code != 0 || !delivered) {
            std::fprintf(stderr, "play %d: not delivered or not answered\n", i);
            return result;
        }
        latencies.push_back(std::chrono::duration<double, std::micro>(*delivered - sent).count());
    }
    std::sort(latencies.begin(), latencies.end());
    result.p99PlayUs = latencies[std::min(latencies.size() - 1, latencies.size() * 99 / 100)];
    result.ok = true;
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    const int n = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5000;
    const int warmUp = std::min(kWarmUp, n);

    std::string home = (std::filesystem::temp_directory_path() / "pointlane-bench-XXXXXX").string();
    if (mkdtemp(home.data()) == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    Result server;
    Result baseline;
    {
        auto started = testkit::ServerProcess::start(home);
        if (!started) {
            std::fprintf(stderr, "the server did not start\n");
            return 1;
        }
        testkit::ServerProcess& process = *started;
        // The administrator and four players, each with its own client server.
        std::vector<std::unique_ptr<ClientServer>> receivers;
        std::vector<std::unique_ptr<PokerClient>> clients;
        for (int i = 0; i < kPlayers; ++i) {
            receivers.push_back(ClientServer::start());
            clients.push_back(PokerClient::connect(process.port()));
            auto answer =
                i == 0 ? clients[i]->loginAdmin("Admin", "Bench", receivers[i]->port())
                       : clients[i]->loginPlayer("P" + std::to_string(i), receivers[i]->port());
            if (!answer || answer->code != 0) {
                std::fprintf(stderr, "login %d refused\n", i);
                return 1;
            }
        }
        for (int i = 0; i < kPlayers; ++i) {
            receivers[i]->waitForCount(kPlayers - (i == 0 ? 1 : i));
        }
        Request play;
        play.request = RequestCode::play;
        play.token = clients[0]->token();
        measure(clients[0]->connection(), play, receivers, warmUp);
        server = measure(clients[0]->connection(), play, receivers, n);
    }
    {
        std::vector<std::unique_ptr<ClientServer>> receivers;
        std::vector<int> ports;
        for (int i = 0; i < kPlayers; ++i) {
            receivers.push_back(ClientServer::start());
            ports.push_back(receivers[i]->port());
        }
        FanOutServer fanOut(ports);
        auto connection = ClientConnection::connect(fanOut.port());
        Request play;
        play.request = RequestCode::play;
        play.token = std::string(32, 't');
        measure(*connection, play, receivers, warmUp);
        baseline = measure(*connection, play, receivers, n);
        connection->close();
    }
    const int stallPlays = std::min(200, n);
    std::filesystem::create_directories(home + "/stall");
    const StallResult stall = measureStall(home + "/stall", stallPlays);
    std::filesystem::remove_all(home);
    if (!server.ok || !baseline.ok || !stall.ok) {
        return 1;
    }
    std::printf("round trips: %d (after %d warm-up), %d notifications each\n", n, warmUp, kPlayers);
    std::printf("server   : %9.0f round trips/s   p50 %7.1f us   p99 %7.1f us\n", server.perSecond,
                server.p50us, server.p99us);
    std::printf("fan-out  : %9.0f round trips/s   p50 %7.1f us   p99 %7.1f us\n",
                baseline.perSecond, baseline.p50us, baseline.p99us);
    std::printf("ratio    : %.2f (server / fan-out, target >= 0.70)\n",
                server.perSecond / baseline.perSecond);
    std::printf("stalled  : 2 of 5 push connections stop reading; deal %d met the stall\n",
                stall.dealsToStall);
    std::printf(
        "  first affected deal: healthy players had it after %8.1f ms, answered after "
        "%8.1f ms\n",
        stall.firstAffectedDeliveryMs, stall.firstAffectedAnswerMs);
    std::printf("  %d plays afterwards: p99 %7.1f us (without a stall: p99 %7.1f us)\n", stallPlays,
                stall.p99PlayUs, server.p99us);
    return 0;
}
