// The server's entry point: a Qt event loop around AppDelegate, headless when asked to be or
// when there is no display.
#include <QApplication>
#include <QCoreApplication>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "app/AppDelegate.h"
#include "app/CommandLine.h"
#include "app/DescriptorLimit.h"
#include "app/ExportCommand.h"
#include "app/QtMainQueue.h"
#include "app/QuitSignals.h"
#include "support/MainQueue.h"

namespace {

bool hasDisplay() {
    const char* x11 = std::getenv("DISPLAY");
    const char* wayland = std::getenv("WAYLAND_DISPLAY");
    return (x11 != nullptr && *x11 != '\0') || (wayland != nullptr && *wayland != '\0');
}

}  // namespace

int main(int argc, char** argv) {
    using namespace pointlane;

    const CommandLineResult parsed = CommandLine::parse(argc, argv);
    if (!parsed.ok()) {
        std::fprintf(stderr, "pointlane: %s; try 'pointlane --help'\n", parsed.error.c_str());
        return 2;
    }
    const CommandLine& commandLine = *parsed.commandLine;
    if (commandLine.help) {
        std::fputs(CommandLine::helpText().c_str(), stdout);
        return EXIT_SUCCESS;
    }
    if (commandLine.version) {
        std::fputs(CommandLine::versionText().c_str(), stdout);
        return EXIT_SUCCESS;
    }
    if (commandLine.command == CommandLine::Command::exportHistory) {
        return exportHistory(commandLine.exportOptions);
    }
    // Pages, seats and clients each hold descriptors: the server may use all the system allows.
    DescriptorLimit::raiseToHardLimit();
    AppDelegate::Options options;
    options.port = commandLine.port;
    options.headless = commandLine.headless || !hasDisplay();
    options.monitor = commandLine.monitor;
    options.web = commandLine.web;
    options.webPort = commandLine.webPort;
    options.webGraceMs = commandLine.webGraceMs;

    std::unique_ptr<QCoreApplication> application;
    if (options.headless) {
        application = std::make_unique<QCoreApplication>(argc, argv);
    } else {
        auto desktop = std::make_unique<QApplication>(argc, argv);
        // The tray item keeps the application alive; closing the monitor window doesn't quit.
        desktop->setQuitOnLastWindowClosed(false);
        application = std::move(desktop);
    }
    // after() and mainAsync() run on this event loop from here on.
    MainQueue::install(std::make_shared<QtMainQueue>());

    int status = EXIT_SUCCESS;
    {
        auto delegate = AppDelegate::create(options);
        QuitSignals quitSignals([delegate](int) { delegate->quitDidClicked(); });
        delegate->applicationWillFinishLaunching();
        delegate->applicationDidFinishLaunching();
        status = application->exec();
        delegate->applicationWillTerminate();
    }

    // Connection threads are detached and may still be running; static destructors would race
    // them, so the process ends here, without running them, once everything is written out.
    std::fflush(stdout);
    std::fflush(stderr);
    std::_Exit(status);
}
