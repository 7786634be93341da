#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "app/ExportCommand.h"

namespace pointlane {

struct CommandLineResult;

// What the program was started for, read from its arguments:
//   pointlane [--headless] [--port N] [--monitor] [--web-port N] [--no-web]
//   pointlane export [--format csv|json] [--game ID] [--output FILE]
//   pointlane --help | --version
// A plain value; parsing has no side effects and is safe on any thread.
class CommandLine {
  public:
    static constexpr std::uint16_t kDefaultPort = 50000;
    static constexpr std::uint16_t kDefaultWebPort = 50080;

    enum class Command { serve, exportHistory };

    Command command = Command::serve;
    bool help = false;     // print the usage text and leave
    bool version = false;  // print "pointlane <version>" and leave

    // Serving.
    bool headless = false;              // no tray icon or windows even when a display is present
    bool monitor = false;               // open the monitor window right after start
    std::uint16_t port = kDefaultPort;  // 0 lets the system pick a free port
    std::uint16_t webPort = kDefaultWebPort;  // the web table's port; 0 picks a free one
    bool web = true;                          // false with --no-web: no web table at all
    int webGraceMs = 60000;  // --web-grace-ms (for tests): how long a web seat waits for its page

    // `pointlane export`.
    ExportOptions exportOptions;

    // Parses the arguments that follow the program name.
    static CommandLineResult parse(const std::vector<std::string>& arguments);
    // Parses main()'s arguments, skipping argv[0].
    static CommandLineResult parse(int argc, const char* const* argv);

    // The usage text printed for --help; it names every option and the subcommand.
    static std::string helpText(const std::string& programName = "pointlane");
    // "pointlane <version>" and a line break, printed for --version.
    static std::string versionText();
};

// Outcome of parsing: the options, or one line saying what was wrong with the arguments.
struct CommandLineResult {
    std::optional<CommandLine> commandLine;
    std::string error;  // empty when commandLine is set

    bool ok() const { return commandLine.has_value(); }
};

}  // namespace pointlane
