#include "app/CommandLine.h"

#include <gtest/gtest.h>

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

    EXPECT_EQ(defaults.commandLine->webPort, 50080);
    EXPECT_FALSE(defaults.commandLine->noWeb);
    auto web = CommandLine::parse({"--web-port", "0", "--no-web"});
    ASSERT_TRUE(web.ok()) << web.error;
    EXPECT_EQ(web.commandLine->webPort, 0);
    EXPECT_TRUE(web.commandLine->noWeb);
    EXPECT_EQ(CommandLine::parse({"--web-port=8080"}).commandLine->webPort, 8080);
    EXPECT_EQ(CommandLine::parse({"--web-port", "x"}).error,
              "invalid port 'x': expected a number from 0 to 65535");
    EXPECT_EQ(CommandLine::parse({"--web-port"}).error,
              "option --web-port needs a port number (0 to 65535)");

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

}  // namespace
}  // namespace pointlane
