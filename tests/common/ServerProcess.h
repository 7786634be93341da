#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace pointlane::testkit {

// The real server binary run as a child process with its own HOME, headless, on a free port.
// Standard output and standard error go to files in that HOME. The destructor kills a child
// that is still running.
class ServerProcess final {
  public:
    // Starts the binary with --headless --port 0 (plus extra arguments) and waits until it
    // reports the port it listens on. nullptr (with the output printed) when it doesn't.
    static std::unique_ptr<ServerProcess> start(const std::string& home,
                                                const std::vector<std::string>& extra = {},
                                                const std::string& binary = POINTLANE_BINARY);
    // Starts the binary and waits only for it to end (for start-up failures). Its output files
    // (run.out, run.err) go to outputFolder, or to home when that is empty.
    static std::optional<int> runToExit(
        const std::string& home, const std::vector<std::string>& arguments,
        std::string* output = nullptr, std::chrono::milliseconds timeout = std::chrono::seconds(20),
        const std::string& outputFolder = {});
    ~ServerProcess();
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    int port() const { return port_; }
    pid_t pid() const { return pid_; }

    // The exit status once the process has ended (-signal when a signal ended it); nothing
    // when it is still running after the time-out.
    std::optional<int> waitForExit(std::chrono::milliseconds timeout = std::chrono::seconds(20));
    bool running();
    void signal(int number) const;

    std::string output() const;       // standard output so far
    std::string diagnostics() const;  // standard error so far (the tracer's lines)

  private:
    ServerProcess() = default;
    static pid_t spawn(const std::string& home, const std::vector<std::string>& arguments,
                       const std::string& binary, const std::string& out, const std::string& err);

    pid_t pid_ = -1;
    std::optional<int> status_;
    int port_ = 0;
    std::string outPath_;
    std::string errPath_;
};

// The port in the server's "Listening on port N" line, once the text holds one.
std::optional<int> listeningPortIn(const std::string& text);

// The text of a file, empty when it can't be read.
std::string fileText(const std::string& path);

}  // namespace pointlane::testkit
