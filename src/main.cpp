// Serves the request protocol on a port in the foreground until the process is stopped.
// Connections are answered by dispatch alone, so every request gets "unknownRequest" or
// nothing until the game's handlers are wired in.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "game/PokerThread.h"
#include "transport/Server.h"

namespace {

constexpr int kDefaultPort = 50000;

class DispatchOnlyDelegate final : public pointlane::ServerDelegate {
  public:
    std::shared_ptr<pointlane::ServerThread> serverThread(
        std::shared_ptr<pointlane::Socket> socket) override {
        return std::make_shared<pointlane::PokerThread>(std::move(socket),
                                                        pointlane::PokerThread::Handlers{});
    }
};

int usage(const char* program) {
    std::fprintf(stderr, "usage: %s [--port N] [--headless]   (N from 1 to 65535)\n", program);
    return 2;
}

bool parsePort(const char* text, int& port) {
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || value < 1 || value > 65535) {
        return false;
    }
    port = static_cast<int>(value);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    int port = kDefaultPort;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--port") == 0 && i + 1 < argc) {
            if (!parsePort(argv[++i], port)) {
                return usage(argv[0]);
            }
        } else if (std::strncmp(argv[i], "--port=", 7) == 0) {
            if (!parsePort(argv[i] + 7, port)) {
                return usage(argv[0]);
            }
        } else if (std::strcmp(argv[i], "--headless") == 0) {
            // Always headless for now.
        } else {
            return usage(argv[0]);
        }
    }

    auto delegate = std::make_shared<DispatchOnlyDelegate>();
    const std::shared_ptr<pointlane::Server> server = pointlane::Server::create(delegate);
    if (!server) {
        std::fprintf(stderr, "Can't create the server socket\n");
        return 1;
    }
    server->runOnPort(port);
    return 1;  // the accept loop only ends when binding or listening failed
}
