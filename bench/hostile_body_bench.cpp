// Memory under hostile frames: 100 connections to the real server each send a complete 1 MiB
// body at once, and the server's peak resident memory (VmHWM) is compared with its idle figure.
//
// Round 1, the target (< 512 MB): half the bodies are "[" repeated, half are {"a": repeated.
// Round 2, for information: flat bodies ([{},{},...]), shallow but with many values.
// Each round runs a fresh server, so that each peak is its own.
//
// Usage: hostile_body_bench [connections]   (default 100). Exits with status 1 when a round
// fails or a body goes unanswered.
// POINTLANE_SERVER=path measures another server binary.
#include <signal.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ClientConnection.h"
#include "ServerProcess.h"

namespace {

using namespace pointlane;

constexpr std::size_t kBodySize = 1 << 20;

// A field of /proc/<pid>/status in kB, -1 when missing.
long statusKb(pid_t pid, const std::string& field) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);) {
        if (line.rfind(field + ":", 0) == 0) {
            return std::atol(line.c_str() + field.size() + 1);
        }
    }
    return -1;
}

Bytes repeated(const std::string& unit) {
    Bytes body;
    body.reserve(kBodySize);
    while (body.size() + unit.size() <= kBodySize) {
        body.insert(body.end(), unit.begin(), unit.end());
    }
    body.resize(kBodySize, ' ');
    return body;
}

struct Round {
    bool ok = false;
    long idleKb = 0;
    long peakKb = 0;
    int answered = 0;
};

Round run(const std::string& binary, int connections, const std::function<Bytes(int)>& bodyFor) {
    Round round;
    char pattern[] = "/tmp/pointlane-hostile-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        return round;
    }
    const std::string home = pattern;
    {
        auto process = testkit::ServerProcess::start(home, {}, binary);
        if (!process) {
            return round;
        }
        round.idleKb = statusKb(process->pid(), "VmHWM");
        std::vector<std::unique_ptr<ClientConnection>> clients;
        std::vector<Bytes> bodies;
        for (int i = 0; i < connections; ++i) {
            clients.push_back(ClientConnection::connect(process->port(), "127.0.0.1", 120.0));
            bodies.push_back(bodyFor(i));
            if (!clients.back()) {
                std::fprintf(stderr, "connection %d failed\n", i);
                return round;
            }
        }
        std::atomic<int> ready{0};
        std::atomic<int> answered{0};
        std::vector<std::thread> senders;
        for (int i = 0; i < connections; ++i) {
            senders.emplace_back([&, i] {
                ++ready;
                while (ready.load() < connections) {
                    std::this_thread::yield();
                }
                if (clients[i]->sendBody(bodies[i])) {
                    auto answer = clients[i]->receiveAnswer();
                    if (answer && answer->message == AnswerMessage::unknownRequest) {
                        ++answered;
                    }
                }
            });
        }
        for (auto& sender : senders) {
            sender.join();
        }
        round.peakKb = statusKb(process->pid(), "VmHWM");
        round.answered = answered.load();
        round.ok = round.idleKb > 0 && round.peakKb > 0;
        process->signal(SIGKILL);
        process->waitForExit();
    }
    std::filesystem::remove_all(home);
    return round;
}

void print(const char* name, const Round& round, int connections) {
    std::printf("%-34s idle %7.1f MB   peak %7.1f MB   answered unknownRequest %d/%d\n", name,
                round.idleKb / 1024.0, round.peakKb / 1024.0, round.answered, connections);
}

}  // namespace

int main(int argc, char** argv) {
    const int connections = argc > 1 ? std::max(1, std::atoi(argv[1])) : 100;
    const char* other = std::getenv("POINTLANE_SERVER");
    const std::string binary = other != nullptr ? other : POINTLANE_BINARY;

    const Bytes brackets = repeated("[");
    const Bytes keys = repeated("{\"a\":");
    const Bytes flat = [] {
        std::string text = "[";
        while (text.size() + 6 < kBodySize) {
            text += "{},";
        }
        text += "{}]";
        text.resize(kBodySize, ' ');
        return Bytes(text.begin(), text.end());
    }();
    const Round deep =
        run(binary, connections, [&](int i) { return i % 2 == 0 ? brackets : keys; });
    const Round wide = run(binary, connections, [&](int) { return flat; });
    if (!deep.ok || !wide.ok) {
        std::fprintf(stderr, "a round failed\n");
        return 1;
    }
    // A server that drops a hostile body's connection without its answer (or ends) has not
    // taken the load measured here.
    if (deep.answered != connections || wide.answered != connections) {
        std::fprintf(stderr, "unknownRequest answered: deep %d/%d, wide %d/%d\n", deep.answered,
                     connections, wide.answered, connections);
        return 1;
    }
    std::printf("server %s, %d connections, 1 MiB bodies at once\n", binary.c_str(), connections);
    print("deep: [[[... and {\"a\":{\"a\":...", deep, connections);
    print("wide: [{},{},...] (information)", wide, connections);
    std::printf("target: peak < 512 MB for the deep bodies\n");
    return 0;
}
