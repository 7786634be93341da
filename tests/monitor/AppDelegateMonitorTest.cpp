#include <QAction>
#include <QSystemTrayIcon>
#include <chrono>
#include <cstdlib>
#include <string>

#include "MonitorFixture.h"
#include "app/AppDelegate.h"
#include "monitor/DataWindowController.h"
#include "monitor/JoinCodeWindow.h"
#include "monitor/StackedView.h"
#include "monitor/StatusItem.h"
#include "transport/Socket.h"
#include "transport/SocketFunctions.h"

namespace pointlane {
namespace {

using testkit::MonitorFixture;

// The application in desktop mode, with its home folder in the test's temporary folder; the
// database is the fixture's.
class AppDelegateMonitorTest : public MonitorFixture {
  protected:
    void SetUp() override {
        MonitorFixture::SetUp();
        const char* home = std::getenv("HOME");
        savedHome = home != nullptr ? home : "";
        setenv("HOME", dir.path().c_str(), 1);
        AppDelegate::Options options;
        options.headless = false;
        delegate = AppDelegate::create(options);
    }

    void TearDown() override {
        delegate.reset();
        setenv("HOME", savedHome.c_str(), 1);
        MonitorFixture::TearDown();
    }

    // Chooses "Show monitor" in the tray menu and returns what went to standard output.
    std::string chooseShowMonitor() {
        testing::internal::CaptureStdout();
        delegate->trayItem()->showAction()->trigger();
        return testing::internal::GetCapturedStdout();
    }

    std::string savedHome;
    std::shared_ptr<AppDelegate> delegate;
};

TEST_F(AppDelegateMonitorTest, ShowMonitorOpensOneWindowAndASecondChoiceDoesNothing) {
    ASSERT_NE(delegate->trayItem(), nullptr);
    EXPECT_EQ(delegate->monitorWindow(), nullptr);

    EXPECT_EQ(chooseShowMonitor(), "status\n");
    DataWindowController* window = delegate->monitorWindow();
    ASSERT_NE(window, nullptr);
    EXPECT_TRUE(window->isVisible());
    EXPECT_EQ(window->windowTitle(), QStringLiteral("Pointlane v.1.0 Base"));
    EXPECT_EQ(window->delegate, delegate.get());
    EXPECT_EQ(window->stackedView->index, StackedViewIndex::players);

    // Hidden behind another window, it is not brought forward by a second choice either.
    window->hide();
    EXPECT_EQ(chooseShowMonitor(), "");
    EXPECT_EQ(delegate->monitorWindow(), window);
    EXPECT_FALSE(window->isVisible());
}

TEST_F(AppDelegateMonitorTest, ClosedWindowIsDroppedAfterATenthOfASecondAndThenBuiltAfresh) {
    ASSERT_EQ(chooseShowMonitor(), "status\n");
    QPointer<DataWindowController> first = delegate->monitorWindow();
    ASSERT_TRUE(first);

    const auto closedAt = std::chrono::steady_clock::now();
    first->close();
    // Within the tenth of a second the closed window's controller is still held: a choice
    // now does nothing.
    EXPECT_EQ(chooseShowMonitor(), "");
    EXPECT_EQ(delegate->monitorWindow(), first.data());

    ASSERT_TRUE(pumpUntil([&] { return delegate->monitorWindow() == nullptr; }));
    EXPECT_GE(std::chrono::steady_clock::now() - closedAt, std::chrono::milliseconds(100));
    EXPECT_TRUE(first.isNull()) << "the controller and its window are destroyed";

    EXPECT_EQ(chooseShowMonitor(), "status\n");
    ASSERT_NE(delegate->monitorWindow(), nullptr);
    EXPECT_TRUE(delegate->monitorWindow()->isVisible());
}

TEST_F(AppDelegateMonitorTest, LaunchShowsTheTrayItemBeforeTheListenerStarts) {
    if (QSystemTrayIcon::isSystemTrayAvailable()) {
        GTEST_SKIP() << "the tray item says nothing when it can be shown";
    }
    // A port that is taken makes the listener speak at once; the tray item, which the
    // offscreen platform cannot show, must have spoken before.
    auto taken = Socket::create(-1);
    ASSERT_TRUE(taken);
    ASSERT_EQ(bind_socket_loopback(taken->socketFileDescriptor(), 0), 0);
    ASSERT_EQ(socket_listen(taken->socketFileDescriptor()), 0);
    AppDelegate::Options options;
    options.headless = false;
    options.port = taken->localPort();
    delegate.reset();  // one server per data folder: the first lets go of it
    delegate = AppDelegate::create(options);

    testing::internal::CaptureStdout();
    delegate->applicationDidFinishLaunching();
    const std::string out = testing::internal::GetCapturedStdout();
    taken.reset();
    const auto tray = out.find("No system tray available");
    const auto listener = out.find("Can't bind server socket to port");
    ASSERT_NE(tray, std::string::npos) << out;
    ASSERT_NE(listener, std::string::npos) << out;
    EXPECT_LT(tray, listener) << out;
}

TEST_F(AppDelegateMonitorTest, ShowJoinCodeOpensOneWindowWithTheCodeOfTheLink) {
    delegate->showJoinCode();
    JoinCodeWindow* window = delegate->joinCodeWindow();
    ASSERT_NE(window, nullptr);
    EXPECT_TRUE(window->isVisible());
    EXPECT_EQ(window->link(), delegate->phoneJoinLink());
    delegate->showJoinCode();
    EXPECT_EQ(delegate->joinCodeWindow(), window);

    // The image is the code: white quiet zone, then a finder pattern's dark ring, light ring
    // and dark core along the top-left diagonal, eight pixels a module.
    const QImage image = JoinCodeWindow::codeImage(QStringLiteral("http://192.0.2.7:50080/"));
    ASSERT_FALSE(image.isNull());
    EXPECT_EQ(image.width(), image.height());
    const auto darkAt = [&](int module) {
        return image.pixelColor(module * 8 + 4, module * 8 + 4) == Qt::black;
    };
    const bool expected[] = {false, false, false, false, true, false,
                             true,  true,  true,  false, true};
    for (int module = 0; module < 11; ++module) {
        EXPECT_EQ(darkAt(module), expected[module]) << module;
    }
    EXPECT_TRUE(JoinCodeWindow::codeImage(QString()).isNull());
}

}  // namespace
}  // namespace pointlane
