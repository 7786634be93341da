#include "app/CommandLine.h"

#include <charconv>

namespace pointlane {

namespace {

// Reads a port number in 0..65535 written as plain decimal digits.
std::optional<std::uint16_t> parsePort(const std::string& text) {
    if (text.empty() || text.size() > 5) {
        return std::nullopt;
    }
    unsigned value = 0;
    const char* end = text.data() + text.size();
    auto [next, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || next != end || value > 65535) {
        return std::nullopt;
    }
    return static_cast<std::uint16_t>(value);
}

CommandLineResult failure(std::string message) {
    return {std::nullopt, std::move(message)};
}

}  // namespace

CommandLineResult CommandLine::parse(const std::vector<std::string>& arguments) {
    CommandLine options;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (argument == "--headless") {
            options.headless = true;
        } else if (argument == "--monitor") {
            options.monitor = true;
        } else if (argument == "--help" || argument == "-h") {
            options.help = true;
        } else if (argument == "--port" || argument.rfind("--port=", 0) == 0) {
            std::string value;
            if (argument == "--port") {
                if (i + 1 == arguments.size()) {
                    return failure("option --port needs a port number (0 to 65535)");
                }
                value = arguments[++i];
            } else {
                value = argument.substr(std::string("--port=").size());
            }
            auto port = parsePort(value);
            if (!port) {
                return failure("invalid port '" + value + "': expected a number from 0 to 65535");
            }
            options.port = *port;
        } else if (argument == "--no-web") {
            options.noWeb = true;
        } else if (argument == "--web-port" || argument.rfind("--web-port=", 0) == 0) {
            std::string value;
            if (argument == "--web-port") {
                if (i + 1 == arguments.size()) {
                    return failure("option --web-port needs a port number (0 to 65535)");
                }
                value = arguments[++i];
            } else {
                value = argument.substr(std::string("--web-port=").size());
            }
            auto port = parsePort(value);
            if (!port) {
                return failure("invalid port '" + value + "': expected a number from 0 to 65535");
            }
            options.webPort = *port;
        } else if (argument.rfind("-", 0) == 0) {
            return failure("unknown option '" + argument + "'");
        } else {
            return failure("unexpected argument '" + argument + "'");
        }
    }
    // The monitor is a window; a headless run has nowhere to show it.
    if (options.headless && options.monitor && !options.help) {
        return failure("options --headless and --monitor cannot be used together");
    }
    return {options, {}};
}

CommandLineResult CommandLine::parse(int argc, const char* const* argv) {
    std::vector<std::string> arguments;
    for (int i = 1; i < argc; ++i) {
        arguments.emplace_back(argv[i]);
    }
    return parse(arguments);
}

std::string CommandLine::helpText(const std::string& programName) {
    return "Usage: " + programName +
           " [--headless] [--port N] [--web-port N] [--no-web] [--monitor] [--help]\n"
           "\n"
           "Runs the Pointlane planning-poker server and advertises it on the local network.\n"
           "\n"
           "Options:\n"
           "  --headless  run without tray icon or windows (the default when no display is\n"
           "              available)\n"
           "  --port N    listen on TCP port N instead of 50000; 0 picks any free port\n"
           "  --web-port N  serve the web table on TCP port N instead of 50080; 0 picks any\n"
           "              free port\n"
           "  --no-web    don't serve the web table\n"
           "  --monitor   open the monitor window at start\n"
           "  --help, -h  print this text and exit\n";
}

}  // namespace pointlane
