#include "ServerProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

namespace pointlane::testkit {

namespace {
std::optional<int> decode(int status) {
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    if (WIFSIGNALED(status)) {
        return -WTERMSIG(status);
    }
    return std::nullopt;
}
}  // namespace

std::optional<int> listeningPortIn(const std::string& text) {
    static const std::string kMark = "Listening on port ";
    const auto at = text.find(kMark);
    if (at == std::string::npos) {
        return std::nullopt;
    }
    std::size_t end = at + kMark.size();
    int port = 0;
    bool digits = false;
    while (end < text.size() && text[end] >= '0' && text[end] <= '9') {
        port = port * 10 + (text[end] - '0');
        digits = true;
        ++end;
    }
    // A line still being written may end inside the number.
    if (!digits || end == text.size()) {
        return std::nullopt;
    }
    return port;
}

std::string fileText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

pid_t ServerProcess::spawn(const std::string& home, const std::vector<std::string>& arguments,
                           const std::string& binary, const std::string& out,
                           const std::string& err) {
    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        if (text.rfind("HOME=", 0) == 0 || text.rfind("DISPLAY=", 0) == 0 ||
            text.rfind("WAYLAND_DISPLAY=", 0) == 0 ||
            text.rfind("DBUS_SYSTEM_BUS_ADDRESS=", 0) == 0) {
            continue;
        }
        environment.push_back(text);
    }
    environment.push_back("HOME=" + home);
    // The server under test must not advertise itself through the machine's own mDNS
    // responder: point it at a bus that doesn't exist (the DNS-SD test gives it a private one).
    environment.push_back("DBUS_SYSTEM_BUS_ADDRESS=unix:path=" + home + "/no-bus");
    std::vector<char*> envp;
    for (auto& text : environment) {
        envp.push_back(text.data());
    }
    envp.push_back(nullptr);

    std::vector<std::string> args{binary};
    args.insert(args.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& text : args) {
        argv.push_back(text.data());
    }
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = -1;
    const int result =
        posix_spawn(&pid, binary.c_str(), &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    return result == 0 ? pid : -1;
}

std::unique_ptr<ServerProcess> ServerProcess::start(const std::string& home,
                                                    const std::vector<std::string>& extra,
                                                    const std::string& binary) {
    auto process = std::unique_ptr<ServerProcess>(new ServerProcess());
    process->outPath_ = home + "/server.out";
    process->errPath_ = home + "/server.err";
    std::vector<std::string> arguments{"--headless", "--port", "0"};
    // The web table takes any free port too, unless the caller says otherwise: tests never
    // claim the well-known port.
    const bool webChosen = std::any_of(extra.begin(), extra.end(), [](const std::string& a) {
        return a == "--no-web" || a.rfind("--web-port", 0) == 0;
    });
    if (!webChosen) {
        arguments.insert(arguments.end(), {"--web-port", "0"});
    }
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    process->pid_ = spawn(home, arguments, binary, process->outPath_, process->errPath_);
    if (process->pid_ == -1) {
        return nullptr;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline) {
        if (const auto port = listeningPortIn(process->diagnostics())) {
            process->port_ = *port;
            return process;
        }
        if (!process->running()) {
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    std::fprintf(stderr, "server did not start\nstdout:\n%s\nstderr:\n%s\n",
                 process->output().c_str(), process->diagnostics().c_str());
    return nullptr;
}

std::optional<int> ServerProcess::runToExit(const std::string& home,
                                            const std::vector<std::string>& arguments,
                                            std::string* output, std::chrono::milliseconds timeout,
                                            const std::string& outputFolder) {
    ServerProcess process;
    const std::string folder = outputFolder.empty() ? home : outputFolder;
    process.outPath_ = folder + "/run.out";
    process.errPath_ = folder + "/run.err";
    process.pid_ = spawn(home, arguments, POINTLANE_BINARY, process.outPath_, process.errPath_);
    if (process.pid_ == -1) {
        return std::nullopt;
    }
    auto status = process.waitForExit(timeout);
    if (output != nullptr) {
        *output = process.output();
    }
    return status;
}

ServerProcess::~ServerProcess() {
    if (pid_ != -1 && running()) {
        ::kill(pid_, SIGKILL);
        waitForExit(std::chrono::seconds(10));
    }
}

bool ServerProcess::running() {
    if (status_ || pid_ == -1) {
        return false;
    }
    int status = 0;
    const pid_t result = ::waitpid(pid_, &status, WNOHANG);
    if (result == pid_) {
        status_ = decode(status);
        if (!status_) {
            status_ = -1000;
        }
        return false;
    }
    return result == 0;
}

std::optional<int> ServerProcess::waitForExit(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (running()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return std::nullopt;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return status_;
}

void ServerProcess::signal(int number) const {
    if (pid_ != -1) {
        ::kill(pid_, number);
    }
}

std::string ServerProcess::output() const {
    return fileText(outPath_);
}

std::string ServerProcess::diagnostics() const {
    return fileText(errPath_);
}

}  // namespace pointlane::testkit
