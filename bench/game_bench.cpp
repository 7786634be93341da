// Play round trips against the real server on loopback, compared with a minimal framed fan-out
// server doing the same I/O in this process.
//
// A round trip: one client sends "play" on its connection and gets the answer, and the five
// registered clients' own servers each receive their notification. Latency runs from the
// request being sent to the fifth notification being received.
//
// Usage: game_bench [round trips]   (the server binary is started with a temporary HOME)
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

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
#include "transport/Answer.h"
#include "transport/Frame.h"
#include "transport/Request.h"
#include "transport/Socket.h"
#include "transport/SocketFunctions.h"

extern char** environ;

namespace {

using namespace pointlane;
using Clock = std::chrono::steady_clock;

constexpr int kPlayers = 5;
constexpr int kWarmUp = 200;

std::string fileText(const std::string& path) {
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// The server binary with its own HOME; killed when the object goes.
class ServerProcess {
  public:
    explicit ServerProcess(const std::string& home) {
        const std::string err = home + "/server.err";
        std::vector<std::string> environment{"HOME=" + home};
        for (char** e = environ; *e != nullptr; ++e) {
            const std::string entry = *e;
            if (entry.rfind("HOME=", 0) != 0 && entry.rfind("DISPLAY=", 0) != 0) {
                environment.push_back(entry);
            }
        }
        std::vector<char*> envp;
        for (auto& e : environment) {
            envp.push_back(e.data());
        }
        envp.push_back(nullptr);
        std::vector<std::string> args{POINTLANE_BINARY, "--headless", "--port", "0"};
        std::vector<char*> argv;
        for (auto& a : args) {
            argv.push_back(a.data());
        }
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err.c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (posix_spawn(&pid_, POINTLANE_BINARY, &actions, nullptr, argv.data(), envp.data()) !=
            0) {
            pid_ = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
        const auto deadline = Clock::now() + std::chrono::seconds(20);
        while (pid_ != -1 && Clock::now() < deadline) {
            const std::string text = fileText(err);
            const auto at = text.find("Listening on port ");
            const auto end = at == std::string::npos ? at : text.find('\n', at);
            if (end != std::string::npos) {
                port_ = std::atoi(text.c_str() + at + 18);
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    ~ServerProcess() {
        if (pid_ != -1) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    int port() const { return port_; }

  private:
    pid_t pid_ = -1;
    int port_ = 0;
};

void noDelay(int descriptor) {
    const int on = 1;
    ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

bool writeFrame(Socket& socket, const Bytes& body) {
    Bytes frame = frameHeader(static_cast<std::int32_t>(body.size()));
    frame.insert(frame.end(), body.begin(), body.end());
    return socket.writeData(frame);
}

// The least a server can do for the same exchange: read a request frame, write it to the five
// push connections, write a fixed answer.
class FanOutServer {
  public:
    explicit FanOutServer(const std::vector<int>& clientPorts) {
        for (int port : clientPorts) {
            auto push = Socket::create(-1);
            connect_socket(push->socketFileDescriptor(), "127.0.0.1", port);
            noDelay(push->socketFileDescriptor());
            pushes_.push_back(push);
        }
        listener_ = Socket::create(-1);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(listener_->socketFileDescriptor(), reinterpret_cast<sockaddr*>(&address),
               sizeof address);
        ::listen(listener_->socketFileDescriptor(), 4);
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
        noDelay(descriptor);
        while (auto body = receiveFrame(*connection_)) {
            for (auto& push : pushes_) {
                writeFrame(*push, *body);
            }
            writeFrame(*connection_, answer_);
        }
    }

    std::vector<std::shared_ptr<Socket>> pushes_;
    std::shared_ptr<Socket> listener_;
    std::shared_ptr<Socket> connection_;
    Bytes answer_;
    int port_ = 0;
    std::thread thread_;
};

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

}  // namespace

int main(int argc, char** argv) {
    const int n = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5000;

    std::string home = (std::filesystem::temp_directory_path() / "pointlane-bench-XXXXXX").string();
    if (mkdtemp(home.data()) == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    Result server;
    Result baseline;
    {
        ServerProcess process(home);
        if (process.port() == 0) {
            std::fprintf(stderr, "the server did not start\n");
            return 1;
        }
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
        measure(clients[0]->connection(), play, receivers, kWarmUp);
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
        measure(*connection, play, receivers, kWarmUp);
        baseline = measure(*connection, play, receivers, n);
        connection->close();
    }
    std::filesystem::remove_all(home);
    if (!server.ok || !baseline.ok) {
        return 1;
    }
    std::printf("round trips: %d (after %d warm-up), %d notifications each\n", n, kWarmUp,
                kPlayers);
    std::printf("server   : %9.0f round trips/s   p50 %7.1f us   p99 %7.1f us\n", server.perSecond,
                server.p50us, server.p99us);
    std::printf("fan-out  : %9.0f round trips/s   p50 %7.1f us   p99 %7.1f us\n",
                baseline.perSecond, baseline.p50us, baseline.p99us);
    std::printf("ratio    : %.2f (server / fan-out, target >= 0.70)\n",
                server.perSecond / baseline.perSecond);
    return 0;
}
