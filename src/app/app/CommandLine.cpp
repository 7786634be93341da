#include "app/CommandLine.h"

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QStringList>
#include <charconv>

#include "app/Version.h"

namespace pointlane {

namespace {

// Where an option belongs: serving, `pointlane export`, or either.
enum class Scope { serve, exportHistory, any };

// One option as the parser and the help text see it.
struct OptionDefinition {
    std::string name;       // the long name, without dashes
    std::string shortName;  // one letter, or empty
    std::string valueName;  // empty for a flag
    std::string needs;      // what a missing value should have been
    std::string description;
    Scope scope;
    bool hidden = false;  // for tests: left out of the help text
};

const std::vector<OptionDefinition>& optionDefinitions() {
    static const std::vector<OptionDefinition> definitions = {
        {"headless", "", "", "",
         "run without tray icon or windows (the default when no display is available)",
         Scope::serve},
        {"port", "", "N", "a port number (0 to 65535)",
         "listen on TCP port N instead of " + std::to_string(CommandLine::kDefaultPort) +
             "; 0 picks any free port",
         Scope::serve},
        {"monitor", "", "", "", "open the monitor window at start", Scope::serve},
        {"web-port", "", "N", "a port number (0 to 65535)",
         "serve the web table on TCP port N instead of " +
             std::to_string(CommandLine::kDefaultWebPort) + "; 0 picks any free port",
         Scope::serve},
        {"no-web", "", "", "", "do not serve the web table", Scope::serve},
        {"web-grace-ms", "", "MS", "a number of milliseconds",
         "how long a player's web seat waits for its page", Scope::serve, true},
        {"format", "", "csv|json", "csv or json", "write CSV (the default) or JSON",
         Scope::exportHistory},
        {"game", "", "ID", "a game id", "only the game with this id (default: every game)",
         Scope::exportHistory},
        {"output", "", "FILE", "a file name", "write to FILE instead of standard output",
         Scope::exportHistory},
        {"help", "h", "", "", "print this text and exit", Scope::any},
        {"version", "v", "", "", "print the program's version and exit", Scope::any},
    };
    return definitions;
}

const OptionDefinition* findDefinition(const std::string& name) {
    for (const auto& definition : optionDefinitions()) {
        if (definition.name == name || definition.shortName == name) {
            return &definition;
        }
    }
    return nullptr;
}

// "--name" or "-name" as written, without any "=value" and without the dashes.
std::string optionName(const std::string& argument) {
    const std::size_t start = argument.find_first_not_of('-');
    if (start == std::string::npos) {
        return {};
    }
    return argument.substr(start, argument.find('=') - start);
}

std::string spelled(const OptionDefinition& definition) {
    return "--" + definition.name;
}

// Reads a whole number written as plain decimal digits, no sign or spaces, up to max.
template <typename Number>
std::optional<Number> parseNumber(const std::string& text, Number max) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
        return std::nullopt;
    }
    Number value = 0;
    const char* end = text.data() + text.size();
    auto [next, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || next != end || value > max) {
        return std::nullopt;
    }
    return value;
}

std::optional<std::uint16_t> parsePort(const std::string& text) {
    auto value = parseNumber<unsigned>(text, 65535);
    if (!value) {
        return std::nullopt;
    }
    return static_cast<std::uint16_t>(*value);
}

CommandLineResult failure(std::string message) {
    return {std::nullopt, std::move(message)};
}

// Says what the parser refused, naming the option as it was written.
std::string parseError(const QCommandLineParser& parser,
                       const std::vector<std::string>& arguments) {
    const QStringList unknown = parser.unknownOptionNames();
    if (!unknown.isEmpty()) {
        const std::string name = unknown.first().toLocal8Bit().toStdString();
        for (const auto& argument : arguments) {
            if (argument.size() > 1 && argument[0] == '-' && optionName(argument) == name) {
                return "unknown option '" + argument.substr(0, argument.find('=')) + "'";
            }
        }
        return "unknown option '" + name + "'";
    }
    // Otherwise a value is missing after an option that needs one, or was given to a flag;
    // the parser quotes the argument in question.
    const std::string text = parser.errorText().toLocal8Bit().toStdString();
    const std::size_t open = text.find('\'');
    const std::size_t close = text.rfind('\'');
    if (open != std::string::npos && close > open) {
        const OptionDefinition* definition =
            findDefinition(optionName(text.substr(open + 1, close - open - 1)));
        if (definition != nullptr && !definition->valueName.empty()) {
            return "option " + spelled(*definition) + " needs " + definition->needs;
        }
        if (definition != nullptr) {
            return "option " + spelled(*definition) + " takes no value";
        }
    }
    return text;
}

}  // namespace

CommandLineResult CommandLine::parse(const std::vector<std::string>& arguments) {
    QCommandLineParser parser;
    // "-port 80" reads as "--port 80"; single-letter options still work ("-h").
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    for (const auto& definition : optionDefinitions()) {
        QStringList names{QString::fromStdString(definition.name)};
        if (!definition.shortName.empty()) {
            names.prepend(QString::fromStdString(definition.shortName));
        }
        parser.addOption(QCommandLineOption(names, QString::fromStdString(definition.description),
                                            QString::fromStdString(definition.valueName)));
    }
    QStringList list{QStringLiteral("pointlane")};
    for (const auto& argument : arguments) {
        list << QString::fromLocal8Bit(argument);
    }
    if (!parser.parse(list)) {
        return failure(parseError(parser, arguments));
    }
    auto values = [&](const std::string& name) {
        std::vector<std::string> result;
        for (const auto& value : parser.values(QString::fromStdString(name))) {
            result.push_back(value.toLocal8Bit().toStdString());
        }
        return result;
    };

    CommandLine options;
    options.help = parser.isSet(QStringLiteral("help"));
    options.version = parser.isSet(QStringLiteral("version"));
    if (options.help || options.version) {
        return {options, {}};
    }

    const QStringList positional = parser.positionalArguments();
    for (qsizetype i = 0; i < positional.size(); ++i) {
        if (i == 0 && positional[i] == QStringLiteral("export")) {
            options.command = Command::exportHistory;
        } else {
            return failure("unexpected argument '" + positional[i].toLocal8Bit().toStdString() +
                           "'");
        }
    }

    // Every value given is checked; the last one counts, as with most tools.
    for (const auto& value : values("port")) {
        auto port = parsePort(value);
        if (!port) {
            return failure("invalid port '" + value + "': expected a number from 0 to 65535");
        }
        options.port = *port;
    }
    for (const auto& value : values("web-port")) {
        auto port = parsePort(value);
        if (!port) {
            return failure("invalid web port '" + value + "': expected a number from 0 to 65535");
        }
        options.webPort = *port;
    }
    for (const auto& value : values("web-grace-ms")) {
        auto ms = parseNumber<unsigned>(value, 3600 * 1000);
        if (!ms) {
            return failure("invalid web grace '" + value +
                           "': expected milliseconds up to an hour");
        }
        options.webGraceMs = static_cast<int>(*ms);
    }
    for (const auto& value : values("format")) {
        if (value == "csv") {
            options.exportOptions.format = ExportOptions::Format::csv;
        } else if (value == "json") {
            options.exportOptions.format = ExportOptions::Format::json;
        } else {
            return failure("invalid format '" + value + "': expected csv or json");
        }
    }
    for (const auto& value : values("game")) {
        auto id = parseNumber<std::int64_t>(value, INT64_MAX);
        if (!id || *id == 0) {
            return failure("invalid game id '" + value + "': expected a positive whole number");
        }
        options.exportOptions.gameId = *id;
    }
    for (const auto& value : values("output")) {
        if (value.empty()) {
            return failure("option --output needs a file name");
        }
        options.exportOptions.outputPath = value;
    }
    options.headless = parser.isSet(QStringLiteral("headless"));
    options.monitor = parser.isSet(QStringLiteral("monitor"));
    options.web = !parser.isSet(QStringLiteral("no-web"));

    // Options of serving mean nothing to export, and the other way round.
    for (const auto& definition : optionDefinitions()) {
        if (definition.scope == Scope::any ||
            !parser.isSet(QString::fromStdString(definition.name))) {
            continue;
        }
        if (definition.scope == Scope::exportHistory && options.command != Command::exportHistory) {
            return failure("option " + spelled(definition) + " only applies to export");
        }
        if (definition.scope == Scope::serve && options.command == Command::exportHistory) {
            return failure("option " + spelled(definition) + " does not apply to export");
        }
    }
    // The monitor is a window; a headless run has nowhere to show it.
    if (options.headless && options.monitor) {
        return failure("options --headless and --monitor cannot be used together");
    }
    if (!options.web && !values("web-port").empty()) {
        return failure("options --no-web and --web-port cannot be used together");
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
    auto usage = [&](const std::string& lead, Scope scope) {
        std::string line = lead;
        for (const auto& definition : optionDefinitions()) {
            if (definition.scope == scope && !definition.hidden) {
                line += " [" + spelled(definition) + (definition.valueName.empty() ? "" : " ") +
                        definition.valueName + "]";
            }
        }
        return line + "\n";
    };
    // Names in the first column, descriptions wrapped in the second.
    constexpr std::size_t kColumn = 22;
    constexpr std::size_t kWidth = 79;
    auto table = [&](const std::string& title, Scope scope) {
        std::string text = "\n" + title + ":\n";
        for (const auto& definition : optionDefinitions()) {
            if (definition.scope != scope || definition.hidden) {
                continue;
            }
            std::string line = "  " + spelled(definition) +
                               (definition.valueName.empty() ? "" : " " + definition.valueName) +
                               (definition.shortName.empty() ? "" : ", -" + definition.shortName);
            line += std::string(line.size() < kColumn ? kColumn - line.size() : 1, ' ');
            std::size_t start = 0;
            const std::string& words = definition.description;
            while (start < words.size()) {
                std::size_t end = words.size();
                if (line.size() + (end - start) > kWidth) {
                    end = words.rfind(' ', start + (kWidth - line.size()));
                    end = (end == std::string::npos || end <= start) ? words.size() : end;
                }
                text += line + words.substr(start, end - start) + "\n";
                start = words.find_first_not_of(' ', end);
                start = start == std::string::npos ? words.size() : start;
                line = std::string(kColumn, ' ');
            }
        }
        return text;
    };
    return usage("Usage: " + programName, Scope::serve) +
           usage("       " + programName + " export", Scope::exportHistory) + "       " +
           programName + " --help | --version\n" +
           "\n"
           "Runs the Pointlane planning-poker server and advertises it with DNS-SD.\n"
           "With export, writes the stored games, deals and elections instead.\n" +
           table("Server options", Scope::serve) +
           table("Export options (" + programName + " export)", Scope::exportHistory) +
           table("Other options", Scope::any);
}

std::string CommandLine::versionText() {
    return std::string("pointlane ") + POINTLANE_VERSION + "\n";
}

}  // namespace pointlane
