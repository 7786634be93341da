#include "app/QuitSignals.h"

#include <fcntl.h>
#include <unistd.h>

#include <QPointer>
#include <QSocketNotifier>
#include <atomic>
#include <cerrno>
#include <csignal>

namespace pointlane {

namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM};

// The handler can reach nothing but globals; -1 while no instance is installed.
std::atomic<int> writeFd{-1};
struct sigaction previous[2];

void onSignal(int signal) {
    const int savedErrno = errno;
    const int fd = writeFd.load();
    if (fd >= 0) {
        const unsigned char number = static_cast<unsigned char>(signal);
        // A full pipe means plenty of quit requests are already pending; losing one is fine.
        [[maybe_unused]] ssize_t ignored = write(fd, &number, 1);
    }
    errno = savedErrno;
}

}  // namespace

QuitSignals::QuitSignals(std::function<void(int)> onQuit, QObject* parent)
    : QObject(parent), onQuit_(std::move(onQuit)) {
    if (writeFd.load() >= 0) {
        return;
    }
    int fds[2];
    if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
        return;
    }
    readFd_ = fds[0];
    writeFd.store(fds[1]);

    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (std::size_t i = 0; i < std::size(kSignals); ++i) {
        sigaction(kSignals[i], &action, &previous[i]);
    }

    notifier_ = new QSocketNotifier(readFd_, QSocketNotifier::Read, this);
    connect(notifier_, &QSocketNotifier::activated, this, &QuitSignals::readSignals);
    installed_ = true;
}

QuitSignals::~QuitSignals() {
    if (!installed_) {
        return;
    }
    for (std::size_t i = 0; i < std::size(kSignals); ++i) {
        sigaction(kSignals[i], &previous[i], nullptr);
    }
    delete notifier_;
    const int fd = writeFd.exchange(-1);
    close(fd);
    close(readFd_);
}

void QuitSignals::readSignals() {
    // The callback may well delete this object (the application tears down on quit).
    QPointer<QuitSignals> self(this);
    unsigned char numbers[64];
    for (;;) {
        const ssize_t count = read(readFd_, numbers, sizeof numbers);
        if (count > 0) {
            for (ssize_t i = 0; i < count; ++i) {
                if (!self) {
                    return;
                }
                if (onQuit_) {
                    onQuit_(numbers[i]);
                }
            }
            if (!self) {
                return;
            }
            continue;
        }
        if (count < 0 && errno == EINTR) {
            continue;
        }
        break;  // empty (EAGAIN) or closed
    }
}

}  // namespace pointlane
