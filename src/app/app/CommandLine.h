#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace pointlane {

struct CommandLineResult;

// The options the server is started with: `pointlane [--headless] [--port N] [--web-port N]
// [--no-web] [--monitor] [--help]`. A plain value; parsing has no side effects and is safe on any thread.
class CommandLine {
  public:
    static constexpr std::uint16_t kDefaultPort = 50000;

    bool headless = false;              // no tray icon or windows even when a display is present
    bool monitor = false;               // open the monitor window right after start
    bool help = false;                  // print the usage text and leave
    std::uint16_t port = kDefaultPort;  // 0 lets the system pick a free port
    int webPort = 50080;                // the web table's port; 0 lets the system pick one
    bool noWeb = false;                 // no web table

    // Parses the arguments that follow the program name.
    static CommandLineResult parse(const std::vector<std::string>& arguments);
    // Parses main()'s arguments, skipping argv[0].
    static CommandLineResult parse(int argc, const char* const* argv);

    // The usage text printed for --help and after a parse error.
    static std::string helpText(const std::string& programName = "pointlane");
};

// Outcome of parsing: the options, or a message saying what was wrong with the arguments.
struct CommandLineResult {
    std::optional<CommandLine> commandLine;
    std::string error;  // empty when commandLine is set

    bool ok() const { return commandLine.has_value(); }
};

}  // namespace pointlane
