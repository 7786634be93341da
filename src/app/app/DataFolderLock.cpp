#include "app/DataFolderLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

namespace pointlane {

namespace {

// The holder writes its pid right after locking; give it a moment before saying "unknown".
constexpr auto kPidWait = std::chrono::seconds(1);

std::string holderPid(int descriptor) {
    const auto deadline = std::chrono::steady_clock::now() + kPidWait;
    for (;;) {
        char text[32] = {};
        const ssize_t got = ::pread(descriptor, text, sizeof(text) - 1, 0);
        std::string pid;
        for (ssize_t i = 0; i < got && text[i] >= '0' && text[i] <= '9'; ++i) {
            pid += text[i];
        }
        if (!pid.empty() || std::chrono::steady_clock::now() >= deadline) {
            return pid.empty() ? "unknown" : pid;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

}  // namespace

std::unique_ptr<DataFolderLock> DataFolderLock::acquire(const std::string& path,
                                                        std::string& refusal) {
    const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (descriptor == -1) {
        refusal = "Can't lock the data folder (" + path + "): " + std::strerror(errno);
        return nullptr;
    }
    int locked;
    do {
        locked = ::flock(descriptor, LOCK_EX | LOCK_NB);
    } while (locked == -1 && errno == EINTR);
    if (locked == -1) {
        const int error = errno;
        if (error == EWOULDBLOCK) {
            const std::string folder = path.substr(0, path.find_last_of('/'));
            refusal = "Another Pointlane (process " + holderPid(descriptor) +
                      ") is already serving from " + folder + "; this one stops.";
        } else {
            refusal = "Can't lock the data folder (" + path + "): " + std::strerror(error);
        }
        ::close(descriptor);
        return nullptr;
    }
    const std::string pid = std::to_string(::getpid()) + "\n";
    if (::ftruncate(descriptor, 0) != 0 ||
        ::pwrite(descriptor, pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
        // The lock holds all the same; only the name in a second server's line is missing.
    }
    return std::unique_ptr<DataFolderLock>(new DataFolderLock(descriptor));
}

DataFolderLock::~DataFolderLock() {
    ::close(descriptor_);  // releases the lock
}

}  // namespace pointlane
