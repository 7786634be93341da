#include "AvahiSandbox.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

extern char** environ;

namespace pointlane::testkit {

namespace {

constexpr const char* kBusVariable = "DBUS_SYSTEM_BUS_ADDRESS";
constexpr const char* kStartupLine = "Server startup complete";

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool writeFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    return static_cast<bool>(out);
}

// Full path of a program, looked up in PATH and in the system folders, which a test runner's
// PATH may lack.
std::string findExecutable(const std::string& name) {
    std::string path = std::getenv("PATH") ? std::getenv("PATH") : "";
    path += ":/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
    std::istringstream folders(path);
    std::string folder;
    while (std::getline(folders, folder, ':')) {
        if (folder.empty()) {
            continue;
        }
        const std::string candidate = folder + "/" + name;
        if (access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    return {};
}

// Starts argv[0] (a full path) with extra variables added to this process's environment, its
// standard output and error going to outputPath. -1 when it cannot be started.
pid_t spawn(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnvironment,
            const std::string& outputPath) {
    // Everything the child needs is prepared here: after fork only async-signal-safe calls.
    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        bool overridden = false;
        for (const auto& extra : extraEnvironment) {
            const auto equals = extra.find('=');
            if (text.compare(0, equals + 1, extra, 0, equals + 1) == 0) {
                overridden = true;
            }
        }
        if (!overridden) {
            environment.push_back(text);
        }
    }
    environment.insert(environment.end(), extraEnvironment.begin(), extraEnvironment.end());
    std::vector<char*> envp;
    for (auto& entry : environment) {
        envp.push_back(entry.data());
    }
    envp.push_back(nullptr);
    std::vector<std::string> arguments = argv;
    std::vector<char*> args;
    for (auto& argument : arguments) {
        args.push_back(argument.data());
    }
    args.push_back(nullptr);

    const int output = open(outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const int input = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (output < 0 || input < 0) {
        if (output >= 0) {
            close(output);
        }
        if (input >= 0) {
            close(input);
        }
        return -1;
    }
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        // Dies with the test thread that started it, even if the test crashes.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) {
            _exit(127);
        }
        dup2(input, 0);
        dup2(output, 1);
        dup2(output, 2);
        execve(args[0], args.data(), envp.data());
        _exit(127);
    }
    close(output);
    close(input);
    return pid;
}

// True once pid has ended (and is reaped); exitStatus gets its status.
bool reaped(pid_t pid, int* exitStatus) {
    int status = 0;
    const pid_t result = waitpid(pid, &status, WNOHANG);
    if (result == pid || (result < 0 && errno == ECHILD)) {
        if (exitStatus != nullptr) {
            *exitStatus = result == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
        return true;
    }
    return false;
}

int terminate(pid_t& pid) {
    if (pid <= 0) {
        return -1;
    }
    int exitStatus = -1;
    kill(pid, SIGTERM);
    if (!waitUntil([&] { return reaped(pid, &exitStatus); }, std::chrono::seconds(5))) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        exitStatus = -1;
    }
    pid = -1;
    return exitStatus;
}

// Full path of argv[0] when it is a bare name; empty when it cannot be found.
std::string resolveProgram(const std::string& program) {
    return program.find('/') == std::string::npos ? findExecutable(program) : program;
}

std::vector<std::string> splitEscaped(const std::string& line, char separator) {
    std::vector<std::string> fields(1);
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (line[i] == '\\' && i + 1 < line.size()) {
            fields.back() += line[i];
            fields.back() += line[++i];
        } else if (line[i] == separator) {
            fields.emplace_back();
        } else {
            fields.back() += line[i];
        }
    }
    return fields;
}

// avahi-browse writes "\DDD" (decimal) for unprintable bytes and spaces, "\." and "\\" for
// the label separators.
std::string unescape(const std::string& text) {
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            plain += text[i];
            continue;
        }
        if (i + 3 < text.size() && std::isdigit(static_cast<unsigned char>(text[i + 1])) &&
            std::isdigit(static_cast<unsigned char>(text[i + 2])) &&
            std::isdigit(static_cast<unsigned char>(text[i + 3]))) {
            plain += static_cast<char>(std::stoi(text.substr(i + 1, 3)));
            i += 3;
        } else {
            plain += text[++i];
        }
    }
    return plain;
}

}  // namespace

AvahiSandbox::AvahiSandbox() = default;

AvahiSandbox::~AvahiSandbox() {
    for (pid_t pid : processes_) {
        terminate(pid);
    }
    terminate(daemonPid_);
    terminate(busPid_);
    std::error_code ignored;
    std::filesystem::remove_all(std::filesystem::path(busSocketPath()).parent_path(), ignored);
    if (busAddressSet_) {
        if (savedBusAddress_) {
            setenv(kBusVariable, savedBusAddress_->c_str(), 1);
        } else {
            unsetenv(kBusVariable);
        }
    }
}

bool AvahiSandbox::fail(std::string reason) {
    if (skipReason_.empty()) {
        skipReason_ = "DNS-SD sandbox unavailable: " + std::move(reason);
    }
    return false;
}

bool AvahiSandbox::start() {
    return startBus() && startDaemon();
}

bool AvahiSandbox::startBus() {
    if (busPid_ > 0) {
        return true;
    }
    const std::string dbusDaemon = findExecutable("dbus-daemon");
    if (dbusDaemon.empty()) {
        return fail("dbus-daemon is not installed (package dbus)");
    }
    const std::string config = dir_.file("bus.conf");
    const std::string socketPath = busSocketPath();
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(socketPath).parent_path(), ignored);
    std::filesystem::remove(socketPath, ignored);  // left by an earlier bus of this process
    const std::string text =
        "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
        " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
        "<busconfig>\n"
        "  <type>system</type>\n"
        "  <listen>unix:path=" +
        socketPath +
        "</listen>\n"
        "  <auth>EXTERNAL</auth>\n"
        "  <policy context=\"default\">\n"
        "    <allow user=\"*\"/>\n"
        "    <allow own=\"*\"/>\n"
        "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
        "    <allow eavesdrop=\"true\"/>\n"
        "  </policy>\n"
        "</busconfig>\n";
    if (!writeFile(config, text)) {
        return fail("cannot write " + config);
    }
    busPid_ = spawn({dbusDaemon, "--config-file=" + config, "--nofork", "--nopidfile"}, {},
                    dir_.file("bus.log"));
    if (busPid_ <= 0) {
        return fail("cannot start dbus-daemon");
    }
    const bool listening =
        waitUntil([&] { return access(socketPath.c_str(), F_OK) == 0 || reaped(busPid_, nullptr); },
                  std::chrono::seconds(10));
    if (!listening || access(socketPath.c_str(), F_OK) != 0) {
        terminate(busPid_);
        return fail("dbus-daemon did not start: " + readFile(dir_.file("bus.log")));
    }
    return true;
}

bool AvahiSandbox::startDaemon() {
    if (daemonPid_ > 0) {
        return true;
    }
    if (busPid_ <= 0 && !startBus()) {
        return false;
    }
    const std::string unshare = findExecutable("unshare");
    const std::string shell = findExecutable("sh");
    const std::string mount = findExecutable("mount");
    const std::string ip = findExecutable("ip");
    const std::string avahiDaemon = findExecutable("avahi-daemon");
    if (unshare.empty() || mount.empty() || shell.empty()) {
        return fail("unshare/mount are not installed (package util-linux)");
    }
    if (ip.empty()) {
        return fail("ip is not installed (package iproute2)");
    }
    if (avahiDaemon.empty()) {
        return fail("avahi-daemon is not installed (package avahi-daemon)");
    }
    if (findExecutable("avahi-browse").empty()) {
        return fail("avahi-browse is not installed (package avahi-utils)");
    }
    const std::string config = dir_.file("avahi-daemon.conf");
    // Host address records stay on: resolving a service needs the host's address.
    const std::string text =
        "[server]\n"
        "use-ipv4=yes\n"
        "use-ipv6=no\n"
        "allow-interfaces=lo\n"
        "enable-dbus=yes\n"
        "ratelimit-interval-usec=0\n"
        "[wide-area]\n"
        "enable-wide-area=no\n"
        "[publish]\n"
        "publish-addresses=yes\n"
        "publish-hinfo=no\n"
        "publish-workstation=no\n"
        "publish-domain=no\n"
        "publish-aaaa-on-ipv4=no\n"
        "[reflector]\n"
        "enable-reflector=no\n";
    if (!writeFile(config, text)) {
        return fail("cannot write " + config);
    }
    static int generation = 0;
    const std::string log = dir_.file("avahi-" + std::to_string(++generation) + ".log");
    const std::string script = mount + " -t tmpfs tmpfs /run && " + ip +
                               " link set lo up multicast on && exec " + avahiDaemon + " -f " +
                               config + " --no-drop-root --no-chroot --no-rlimits";
    daemonPid_ =
        spawn({unshare, "--net", "--mount", "--", shell, "-c", script}, environment(), log);
    if (daemonPid_ <= 0) {
        return fail("cannot start avahi-daemon");
    }
    int exitStatus = 0;
    bool ended = false;
    const bool started = waitUntil(
        [&] {
            ended = reaped(daemonPid_, &exitStatus);
            return ended || readFile(log).find(kStartupLine) != std::string::npos;
        },
        std::chrono::seconds(15));
    if (!started || ended) {
        if (ended) {
            daemonPid_ = -1;
        } else {
            terminate(daemonPid_);
        }
        return fail("avahi-daemon in a private network namespace did not start (needs root): " +
                    readFile(log));
    }
    return true;
}

void AvahiSandbox::stopDaemon() {
    terminate(daemonPid_);
}

std::string AvahiSandbox::busSocketPath() {
    return (std::filesystem::temp_directory_path() /
            ("pointlane-dnssd-" + std::to_string(getpid())) / "bus")
        .string();
}

std::string AvahiSandbox::busAddress() const {
    return "unix:path=" + busSocketPath();
}

void AvahiSandbox::usePrivateBus() {
    if (!busAddressSet_) {
        if (const char* previous = std::getenv(kBusVariable)) {
            savedBusAddress_ = previous;
        }
        busAddressSet_ = true;
    }
    setenv(kBusVariable, busAddress().c_str(), 1);
}

std::vector<std::string> AvahiSandbox::environment() const {
    return {std::string(kBusVariable) + "=" + busAddress()};
}

CommandResult AvahiSandbox::run(const std::vector<std::string>& argv,
                                std::chrono::milliseconds timeout) const {
    CommandResult result;
    if (argv.empty()) {
        return result;
    }
    std::vector<std::string> resolved = argv;
    resolved[0] = resolveProgram(argv[0]);
    if (resolved[0].empty()) {
        result.output = argv[0] + ": not found";
        return result;
    }
    static int counter = 0;
    const std::string outputPath = dir_.file("run-" + std::to_string(++counter) + ".out");
    pid_t pid = spawn(resolved, environment(), outputPath);
    if (pid <= 0) {
        result.output = "cannot start " + argv[0];
        return result;
    }
    int exitStatus = -1;
    if (!waitUntil([&] { return reaped(pid, &exitStatus); }, timeout)) {
        terminate(pid);
        exitStatus = -1;
    }
    result.exitStatus = exitStatus;
    result.output = readFile(outputPath);
    std::remove(outputPath.c_str());
    return result;
}

pid_t AvahiSandbox::startProcess(const std::vector<std::string>& argv,
                                 const std::string& outputPath) {
    if (argv.empty()) {
        return -1;
    }
    std::vector<std::string> resolved = argv;
    resolved[0] = resolveProgram(argv[0]);
    if (resolved[0].empty()) {
        return -1;
    }
    const pid_t pid = spawn(resolved, environment(), outputPath);
    if (pid > 0) {
        processes_.push_back(pid);
    }
    return pid;
}

int AvahiSandbox::stopProcess(pid_t pid) {
    const auto known = std::find(processes_.begin(), processes_.end(), pid);
    if (known == processes_.end()) {
        return -1;
    }
    processes_.erase(known);
    return terminate(pid);
}

std::vector<BrowsedService> AvahiSandbox::browse(const std::string& type) const {
    const CommandResult result = run({"avahi-browse", "-r", "-t", "-p", type});
    if (result.exitStatus != 0) {
        lastBrowseError_ += "avahi-browse failed (" + std::to_string(result.exitStatus) +
                            "): " + result.output + "\n";
        return {};
    }
    return parseAvahiBrowse(result.output);
}

std::string AvahiSandbox::daemonLog() const {
    std::string text = "--- dbus-daemon:\n" + readFile(dir_.file("bus.log"));
    for (const auto& entry : std::filesystem::directory_iterator(dir_.path())) {
        if (entry.path().filename().string().rfind("avahi-", 0) == 0 &&
            entry.path().extension() == ".log") {
            text +=
                "--- " + entry.path().filename().string() + ":\n" + readFile(entry.path().string());
        }
    }
    return text;
}

std::vector<BrowsedService> parseAvahiBrowse(const std::string& output) {
    std::vector<BrowsedService> services;
    std::istringstream lines(output);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.rfind("=;", 0) != 0) {
            continue;
        }
        const auto fields = splitEscaped(line, ';');
        if (fields.size() < 9) {
            continue;
        }
        BrowsedService service;
        service.interfaceName = fields[1];
        service.protocol = fields[2];
        service.name = unescape(fields[3]);
        service.type = fields[4];
        service.domain = fields[5];
        service.host = unescape(fields[6]);
        service.address = fields[7];
        try {
            service.port = std::stoi(fields[8]);
        } catch (...) {
            continue;
        }
        services.push_back(std::move(service));
    }
    return services;
}

}  // namespace pointlane::testkit
