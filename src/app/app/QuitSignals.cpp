#include "app/QuitSignals.h"

#include <fcntl.h>
#include <unistd.h>

#include <QPointer>
#include <QSocketNotifier>
#include <atomic>
#include <cerrno>
#include <csignal>

#include "support/NoDestructor.h"

namespace pointlane {

namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM};

// The pipe from the signal handler to the event loop. It lives as long as the process: a
// signal may arrive on any thread at any moment, also while an instance is being destroyed, so
// its descriptors are never closed and can never be reused for something else under the
// handler's write.
struct SignalPipe {
    SignalPipe() {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) == 0) {
            readFd = fds[0];
            writeFd.store(fds[1]);
        }
    }
    int readFd = -1;
    std::atomic<int> writeFd{-1};
};

SignalPipe& signalPipe() {
    static NoDestructor<SignalPipe> pipe;
    return *pipe;
}

std::atomic<bool> active{false};  // one instance at a time
struct sigaction previous[2];

void onSignal(int signal) {
    const int savedErrno = errno;
    const int fd = signalPipe().writeFd.load();
    if (fd >= 0) {
        const unsigned char number = static_cast<unsigned char>(signal);
        // A full pipe means plenty of quit requests are already pending; losing one is fine.
        [[maybe_unused]] ssize_t ignored = write(fd, &number, 1);
    }
    errno = savedErrno;
}

// Reads what the pipe holds without waiting; calls each for every signal number read.
template <class Each>
void readPipe(int fd, Each&& each) {
    unsigned char numbers[64];
    for (;;) {
        const ssize_t count = read(fd, numbers, sizeof numbers);
        if (count > 0) {
            for (ssize_t i = 0; i < count; ++i) {
                if (!each(numbers[i])) {
                    return;
                }
            }
            continue;
        }
        if (count < 0 && errno == EINTR) {
            continue;
        }
        return;  // empty (EAGAIN) or closed
    }
}

}  // namespace

QuitSignals::QuitSignals(std::function<void(int)> onQuit, QObject* parent)
    : QObject(parent), onQuit_(std::move(onQuit)) {
    SignalPipe& pipe = signalPipe();
    if (pipe.readFd < 0 || active.exchange(true)) {
        return;
    }
    readFd_ = pipe.readFd;
    // A signal that reached an earlier instance after it stopped listening is not ours.
    readPipe(readFd_, [](unsigned char) { return true; });

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
    active.store(false);
}

void QuitSignals::readSignals() {
    // The callback may well delete this object (the application tears down on quit).
    QPointer<QuitSignals> self(this);
    readPipe(readFd_, [&](unsigned char number) {
        if (!self) {
            return false;
        }
        if (onQuit_) {
            onQuit_(number);
        }
        return true;
    });
}

}  // namespace pointlane
