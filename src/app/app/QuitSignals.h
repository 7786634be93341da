#pragma once

#include <QObject>
#include <functional>

class QSocketNotifier;

namespace pointlane {

// Turns SIGINT and SIGTERM into a call of onQuit on the main thread. The signal handler only
// writes the signal number into a pipe (async-signal-safe); a socket notifier on the pipe's
// other end calls onQuit from the event loop, once per signal received.
//
// Main thread only. One instance at a time per process (signal dispositions are process
// wide); the destructor restores the dispositions found at installation.
class QuitSignals final : public QObject {
    Q_OBJECT

  public:
    explicit QuitSignals(std::function<void(int signal)> onQuit, QObject* parent = nullptr);
    ~QuitSignals() override;

    // False when the handlers could not be installed (no pipe, or another instance is active).
    bool isInstalled() const { return installed_; }

  private:
    void readSignals();

    std::function<void(int)> onQuit_;
    QSocketNotifier* notifier_ = nullptr;  // child of this object
    int readFd_ = -1;                      // the process-wide pipe's; never closed
    bool installed_ = false;
};

}  // namespace pointlane
