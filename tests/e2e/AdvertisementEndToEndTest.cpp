#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "AvahiSandbox.h"
#include "ServerProcess.h"
#include "TestKit.h"

namespace pointlane {
namespace {

using testkit::AvahiSandbox;
using testkit::BrowsedService;
using testkit::fileText;
using testkit::TempDir;
using testkit::waitUntil;

constexpr auto kPatience = std::chrono::seconds(20);

// Sets an environment variable for the life of the object, then puts the old value back.
class ScopedVariable {
  public:
    ScopedVariable(const char* name, const std::string& value) : name_(name) {
        if (const char* old = std::getenv(name)) {
            old_ = old;
        }
        ::setenv(name, value.c_str(), 1);
    }
    ~ScopedVariable() {
        if (old_) {
            ::setenv(name_, old_->c_str(), 1);
        } else {
            ::unsetenv(name_);
        }
    }

  private:
    const char* name_;
    std::optional<std::string> old_;
};

std::optional<BrowsedService> pointlaneService(const AvahiSandbox& sandbox) {
    for (const auto& service : sandbox.browse("_pointlane._tcp")) {
        if (service.name == "Pointlane") {
            return service;
        }
    }
    return std::nullopt;
}

TEST(AdvertisementEndToEndTest, ServedPortIsAdvertisedAndWithdrawnWhenTheServerQuits) {
    AvahiSandbox sandbox;
    if (!sandbox.start()) {
        GTEST_SKIP() << sandbox.skipReason();
    }
    TempDir home;
    const std::string log = home.file("server.log");
    pid_t pid = -1;
    {
        ScopedVariable homeForServer("HOME", home.path().string());
        pid = sandbox.startProcess({POINTLANE_BINARY, "--headless", "--port", "0"}, log);
    }
    ASSERT_NE(pid, -1);

    int port = 0;
    ASSERT_TRUE(waitUntil(
        [&] {
            port = testkit::listeningPortIn(fileText(log)).value_or(0);
            return port != 0;
        },
        kPatience))
        << fileText(log);

    std::optional<BrowsedService> seen;
    ASSERT_TRUE(
        waitUntil([&] { return (seen = pointlaneService(sandbox)).has_value(); }, kPatience))
        << sandbox.lastBrowseError() << fileText(log) << sandbox.daemonLog();
    EXPECT_EQ(seen->port, port);
    EXPECT_EQ(seen->type, "_pointlane._tcp");
    EXPECT_EQ(seen->domain, "local");

    EXPECT_EQ(sandbox.stopProcess(pid), 0) << fileText(log);
    EXPECT_TRUE(waitUntil([&] { return !pointlaneService(sandbox); }, kPatience))
        << sandbox.lastBrowseError();
}

}  // namespace
}  // namespace pointlane
