#include "app/CommandLine.h"

#include <gtest/gtest.h>

#include <cstdint>

#include "app/Version.h"

namespace pointlane {
namespace {

TEST(CommandLineTest, ParsesOptionsAndReportsBadInputAsMessages) {
    auto defaults = CommandLine::parse(std::vector<std::string>{});
    ASSERT_TRUE(defaults.ok());
    EXPECT_FALSE(defaults.commandLine->headless);
    EXPECT_FALSE(defaults.commandLine->monitor);
    EXPECT_FALSE(defaults.commandLine->help);
    EXPECT_EQ(defaults.commandLine->port, 50000);

    auto all = CommandLine::parse({"--headless", "--port", "0"});
    ASSERT_TRUE(all.ok()) << all.error;
    EXPECT_TRUE(all.commandLine->headless);
    EXPECT_EQ(all.commandLine->port, 0);

    auto joined = CommandLine::parse({"--port=65535", "--monitor"});
    ASSERT_TRUE(joined.ok()) << joined.error;
    EXPECT_EQ(joined.commandLine->port, 65535);
    EXPECT_TRUE(joined.commandLine->monitor);

    // The last --port wins, as with most tools.
    auto twice = CommandLine::parse({"--port", "1", "--port", "2"});
    ASSERT_TRUE(twice.ok());
    EXPECT_EQ(twice.commandLine->port, 2);

    const char* argv[] = {"pointlane", "--help"};
    auto help = CommandLine::parse(2, argv);
    ASSERT_TRUE(help.ok());
    EXPECT_TRUE(help.commandLine->help);
    const std::string text = CommandLine::helpText();
    for (const char* option : {"--headless", "--port", "--monitor", "--help", "50000"}) {
        EXPECT_NE(text.find(option), std::string::npos) << option;
    }

    struct Bad {
        std::vector<std::string> arguments;
        std::string message;
    };
    const Bad bad[] = {
        {{"--verbose"}, "unknown option '--verbose'"},
        {{"-x"}, "unknown option '-x'"},
        {{"serve"}, "unexpected argument 'serve'"},
        {{"--port"}, "option --port needs a port number (0 to 65535)"},
        {{"--port", "65536"}, "invalid port '65536': expected a number from 0 to 65535"},
        {{"--port", "-1"}, "invalid port '-1': expected a number from 0 to 65535"},
        {{"--port", "80a"}, "invalid port '80a': expected a number from 0 to 65535"},
        {{"--port", " 80"}, "invalid port ' 80': expected a number from 0 to 65535"},
        {{"--port", "+80"}, "invalid port '+80': expected a number from 0 to 65535"},
        {{"--port", "4294967376"}, "invalid port '4294967376': expected a number from 0 to 65535"},
        {{"--port="}, "invalid port '': expected a number from 0 to 65535"},
        {{"--headless", "--monitor"}, "options --headless and --monitor cannot be used together"},
    };
    for (const auto& [arguments, message] : bad) {
        auto result = CommandLine::parse(arguments);
        EXPECT_FALSE(result.ok()) << arguments.front();
        EXPECT_EQ(result.error, message);
    }
}

TEST(CommandLineTest, ReadsTheWebOptionsTheExportSubcommandAndTheVersion) {
    auto defaults = CommandLine::parse(std::vector<std::string>{});
    ASSERT_TRUE(defaults.ok());
    EXPECT_EQ(defaults.commandLine->command, CommandLine::Command::serve);
    EXPECT_EQ(defaults.commandLine->webPort, 50080);
    EXPECT_TRUE(defaults.commandLine->web);
    EXPECT_FALSE(defaults.commandLine->version);

    auto web = CommandLine::parse({"--web-port=0", "--headless", "-port", "7"});
    ASSERT_TRUE(web.ok()) << web.error;
    EXPECT_EQ(web.commandLine->webPort, 0);
    EXPECT_EQ(web.commandLine->port, 7);
    auto noWeb = CommandLine::parse({"--no-web"});
    ASSERT_TRUE(noWeb.ok()) << noWeb.error;
    EXPECT_FALSE(noWeb.commandLine->web);

    // Bare export: CSV of every game to standard output; options may come on either side.
    auto bare = CommandLine::parse({"export"});
    ASSERT_TRUE(bare.ok()) << bare.error;
    EXPECT_EQ(bare.commandLine->command, CommandLine::Command::exportHistory);
    EXPECT_EQ(bare.commandLine->exportOptions.format, ExportOptions::Format::csv);
    EXPECT_FALSE(bare.commandLine->exportOptions.gameId);
    EXPECT_FALSE(bare.commandLine->exportOptions.outputPath);
    auto full = CommandLine::parse(
        {"--format", "json", "export", "--game=9223372036854775807", "--output", "out file"});
    ASSERT_TRUE(full.ok()) << full.error;
    EXPECT_EQ(full.commandLine->command, CommandLine::Command::exportHistory);
    EXPECT_EQ(full.commandLine->exportOptions.format, ExportOptions::Format::json);
    EXPECT_EQ(full.commandLine->exportOptions.gameId, INT64_MAX);
    EXPECT_EQ(full.commandLine->exportOptions.outputPath, "out file");

    // --version and --help win over everything but an argument the parser can't read.
    for (const auto& arguments : std::vector<std::vector<std::string>>{
             {"--version"}, {"-v"}, {"export", "--version"}, {"--headless", "--monitor", "-v"}}) {
        auto version = CommandLine::parse(arguments);
        ASSERT_TRUE(version.ok()) << version.error;
        EXPECT_TRUE(version.commandLine->version);
    }
    EXPECT_EQ(CommandLine::versionText(), "pointlane " POINTLANE_VERSION "\n");
    EXPECT_FALSE(CommandLine::parse({"--version", "--bogus"}).ok());

    const std::string help = CommandLine::helpText();
    for (const char* word : {"--web-port", "50080", "--no-web", "export", "--format", "csv|json",
                             "--game", "--output", "--version"}) {
        EXPECT_NE(help.find(word), std::string::npos) << word;
    }
    for (std::size_t start = 0, end; start < help.size(); start = end + 1) {
        end = help.find('\n', start);
        EXPECT_LE(end - start, 79u) << help.substr(start, end - start);
    }

    struct Bad {
        std::vector<std::string> arguments;
        std::string message;
    };
    const Bad bad[] = {
        {{"--web-port", "x"}, "invalid web port 'x': expected a number from 0 to 65535"},
        {{"--web-port"}, "option --web-port needs a port number (0 to 65535)"},
        {{"--no-web", "--web-port", "1"},
         "options --no-web and --web-port cannot be used together"},
        {{"--no-web=yes"}, "option --no-web takes no value"},
        {{"--verbose=1"}, "unknown option '--verbose'"},
        {{"export", "--format", "xml"}, "invalid format 'xml': expected csv or json"},
        {{"export", "--format", "CSV"}, "invalid format 'CSV': expected csv or json"},
        {{"export", "--format"}, "option --format needs csv or json"},
        {{"export", "--game", "x1"}, "invalid game id 'x1': expected a positive whole number"},
        {{"export", "--game", "-3"}, "invalid game id '-3': expected a positive whole number"},
        {{"export", "--game", "0"}, "invalid game id '0': expected a positive whole number"},
        {{"export", "--game", "9223372036854775808"},
         "invalid game id '9223372036854775808': expected a positive whole number"},
        {{"export", "--output="}, "option --output needs a file name"},
        {{"export", "--output"}, "option --output needs a file name"},
        {{"export", "games"}, "unexpected argument 'games'"},
        {{"export", "--port", "1"}, "option --port does not apply to export"},
        {{"--headless", "export"}, "option --headless does not apply to export"},
        {{"--game", "1"}, "option --game only applies to export"},
        {{"--output", "x"}, "option --output only applies to export"},
    };
    for (const auto& [arguments, message] : bad) {
        auto result = CommandLine::parse(arguments);
        EXPECT_FALSE(result.ok()) << arguments.front();
        EXPECT_EQ(result.error, message);
    }
}

}  // namespace
}  // namespace pointlane
