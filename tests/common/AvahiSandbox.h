#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "TestKit.h"

namespace pointlane::testkit {

// One resolved DNS-SD service as avahi-browse reports it.
struct BrowsedService {
    std::string interfaceName;  // "lo"
    std::string protocol;       // "IPv4"
    std::string name;           // unescaped, e.g. "Pointlane #2"
    std::string type;           // "_pointlane._tcp"
    std::string domain;         // "local"
    std::string host;
    std::string address;
    int port = 0;
};

// What a command run to its end left behind.
struct CommandResult {
    int exitStatus = -1;  // -1 when it did not exit normally (signal, time-out, no exec)
    std::string output;   // standard output and standard error, interleaved
};

// A private DNS-SD world for tests: a D-Bus system bus and an Avahi daemon that no other
// process on the machine sees, and whose mDNS traffic cannot leave the machine.
//
// How it works:
// - dbus-daemon runs with a config written to a temporary folder that allows everything and
//   listens on the socket file <tmp>/pointlane-dnssd-<pid>/bus. A socket file (not an abstract
//   socket) is reachable from every network namespace, so the code under test needs nothing but
//   DBUS_SYSTEM_BUS_ADDRESS=unix:path=<that file>; usePrivateBus() sets that in this process,
//   environment() gives it to child processes (the server binary, avahi-browse). The path is
//   the same for every sandbox of one process because libdbus reads the variable only once per
//   process; a sandbox whose bus is not started leaves nothing listening there (the state of a
//   machine without a bus). Hence one sandbox at a time per process.
// - avahi-daemon runs inside `unshare --net --mount`: a fresh network namespace whose only
//   interface is its own loopback, brought up with the MULTICAST flag so that mDNS works on it,
//   and a private tmpfs on /run, so the daemon's fixed pid file and socket
//   (/run/avahi-daemon/...) neither clash with a system daemon nor with a parallel test. Its
//   config allows only "lo", IPv4, D-Bus on, no wide area. Its multicast packets therefore stay
//   inside the namespace; it talks to the outside only through the bus socket file.
// - browse() runs `avahi-browse -r -t -p <type>` against the private bus: the daemon in the
//   namespace does the browsing and resolving, and sees services registered through it.
// - Every child is killed when the sandbox goes (SIGTERM, then SIGKILL), and also when the
//   thread that started it dies (PR_SET_PDEATHSIG), so a crashing test leaves no daemon behind.
//   usePrivateBus() restores the previous DBUS_SYSTEM_BUS_ADDRESS on destruction.
//
// Needs root (or CAP_SYS_ADMIN) for the namespaces, and dbus-daemon, avahi-daemon, avahi-utils,
// unshare (util-linux) and ip (iproute2). start() answers false with skipReason() where that is
// not available; tests then call GTEST_SKIP() << sandbox.skipReason().
//
// Test thread only: not thread safe. Declare it before any object that talks to the bus, so it
// outlives them.
class AvahiSandbox {
  public:
    AvahiSandbox();
    ~AvahiSandbox();
    AvahiSandbox(const AvahiSandbox&) = delete;
    AvahiSandbox& operator=(const AvahiSandbox&) = delete;

    // startBus() then startDaemon().
    bool start();
    // The private bus alone: the state of a machine whose Avahi daemon is not running.
    bool startBus();
    // The Avahi daemon on the running private bus; waits until it has finished starting up.
    bool startDaemon();
    // Ends the Avahi daemon (the bus stays), as when the system daemon is stopped.
    void stopDaemon();
    bool daemonRunning() const { return daemonPid_ > 0; }

    // Why the sandbox could not be set up; empty when it could.
    const std::string& skipReason() const { return skipReason_; }

    // "unix:path=<tmp>/pointlane-dnssd-<pid>/bus".
    std::string busAddress() const;
    static std::string busSocketPath();
    // Points this process's D-Bus clients at the private bus until the sandbox goes.
    void usePrivateBus();
    // Variables a child process needs to reach the private bus, as NAME=value.
    std::vector<std::string> environment() const;

    // Runs argv (looked up in PATH) with environment() added, to its end or the time-out.
    CommandResult run(const std::vector<std::string>& argv,
                      std::chrono::milliseconds timeout = std::chrono::seconds(20)) const;

    // Starts argv (looked up in PATH) with environment() added, its standard output and error
    // going to outputPath, and returns at once; -1 when it cannot be started. The process is
    // ended by stopProcess() or, at the latest, with the sandbox. For running the server
    // binary against the private bus.
    pid_t startProcess(const std::vector<std::string>& argv, const std::string& outputPath);
    // SIGTERM, then SIGKILL after five seconds; waits for the end. Returns the exit status, -1
    // when the process did not exit normally.
    int stopProcess(pid_t pid);

    // The services of type currently known, resolved (one entry per interface and protocol).
    // Empty when avahi-browse fails; the failure is added to lastBrowseError().
    std::vector<BrowsedService> browse(const std::string& type) const;
    const std::string& lastBrowseError() const { return lastBrowseError_; }

    // Everything the daemons wrote so far, for failure messages.
    std::string daemonLog() const;

  private:
    bool fail(std::string reason);

    TempDir dir_;
    pid_t busPid_ = -1;
    pid_t daemonPid_ = -1;
    std::vector<pid_t> processes_;  // started by startProcess(), not yet stopped
    std::string skipReason_;
    std::optional<std::string> savedBusAddress_;
    bool busAddressSet_ = false;
    mutable std::string lastBrowseError_;
};

// Turns avahi-browse's parsable output into services; only resolved ("=") lines count.
std::vector<BrowsedService> parseAvahiBrowse(const std::string& output);

}  // namespace pointlane::testkit
