// The server's entry point: a Qt event loop around AppDelegate, headless when asked to be or
// when there is no display.
#include <QApplication>
#include <QCoreApplication>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

#include "app/AppDelegate.h"
#include "app/CommandLine.h"
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

// `pointlane export [--format csv|json] [--game ID] [--output FILE]`; nothing when the
// arguments are not understood.
std::optional<pointlane::ExportOptions> exportOptions(int argc, char** argv) {
    pointlane::ExportOptions options;
    for (int i = 2; i < argc; ++i) {
        const std::string option = argv[i];
        if (i + 1 == argc) {
            return std::nullopt;
        }
        const std::string value = argv[++i];
        if (option == "--format" && (value == "csv" || value == "json")) {
            options.format = value == "csv" ? pointlane::ExportOptions::Format::csv
                                            : pointlane::ExportOptions::Format::json;
        } else if (option == "--game" && !value.empty() &&
                   value.find_first_not_of("0123456789") == std::string::npos &&
                   value.size() < 19) {
            options.gameId = std::stoll(value);
        } else if (option == "--output" && !value.empty()) {
            options.outputPath = value;
        } else {
            return std::nullopt;
        }
    }
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    using namespace pointlane;

    if (argc > 1 && std::string(argv[1]) == "export") {
        const auto options = exportOptions(argc, argv);
        if (!options) {
            std::fputs("Usage: pointlane export [--format csv|json] [--game ID] [--output FILE]\n",
                       stderr);
            return 2;
        }
        return exportHistory(*options);
    }

    const CommandLineResult parsed = CommandLine::parse(argc, argv);
    if (!parsed.ok()) {
        std::fprintf(stderr, "%s\n%s", parsed.error.c_str(), CommandLine::helpText().c_str());
        return 2;
    }
    const CommandLine& commandLine = *parsed.commandLine;
    if (commandLine.help) {
        std::fputs(CommandLine::helpText().c_str(), stdout);
        return EXIT_SUCCESS;
    }
    AppDelegate::Options options;
    options.port = commandLine.port;
    options.headless = commandLine.headless || !hasDisplay();
    options.monitor = commandLine.monitor;

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
