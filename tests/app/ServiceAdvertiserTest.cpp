#include "app/ServiceAdvertiser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>

#include "AvahiSandbox.h"
#include "TestKit.h"

namespace pointlane {
namespace {

using testkit::AvahiSandbox;
using testkit::BrowsedService;
using testkit::waitUntil;

constexpr const char* kType = "_pointlane._tcp";
constexpr const char* kNoDaemonLine =
    "DNS-SD: no Avahi daemon reachable; the service is not advertised\n";

// Registration and mDNS probing take a couple of seconds; browsing takes about one.
constexpr auto kPatience = std::chrono::seconds(20);

std::optional<BrowsedService> find(const std::vector<BrowsedService>& services,
                                   const std::string& name) {
    for (const auto& service : services) {
        if (service.name == name) {
            return service;
        }
    }
    return std::nullopt;
}

int countOf(const std::string& text, const std::string& part) {
    int count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

bool becomes(const ServiceAdvertiser& advertiser, ServiceAdvertiser::State state) {
    return waitUntil([&] { return advertiser.state() == state; }, kPatience);
}

TEST(ServiceAdvertiserTest, PublishedServiceIsBrowsableAndGoesAwayOnStop) {
    AvahiSandbox sandbox;
    if (!sandbox.start()) {
        GTEST_SKIP() << sandbox.skipReason();
    }
    sandbox.usePrivateBus();

    ServiceAdvertiser advertiser("local.", kType, "Pointlane", 50123);
    EXPECT_EQ(advertiser.state(), ServiceAdvertiser::State::stopped);
    ASSERT_TRUE(advertiser.publish());
    ASSERT_TRUE(becomes(advertiser, ServiceAdvertiser::State::established)) << sandbox.daemonLog();
    EXPECT_EQ(advertiser.registeredName(), "Pointlane");

    std::optional<BrowsedService> seen;
    ASSERT_TRUE(waitUntil(
        [&] { return (seen = find(sandbox.browse(kType), "Pointlane")).has_value(); }, kPatience))
        << sandbox.lastBrowseError() << sandbox.daemonLog();
    EXPECT_EQ(seen->port, 50123);
    EXPECT_EQ(seen->type, kType);
    EXPECT_EQ(seen->domain, "local");
    EXPECT_EQ(seen->interfaceName, "lo");

    advertiser.stop();
    EXPECT_EQ(advertiser.state(), ServiceAdvertiser::State::stopped);
    EXPECT_EQ(advertiser.registeredName(), "");
    advertiser.stop();  // a second stop changes nothing
    EXPECT_TRUE(waitUntil([&] { return !find(sandbox.browse(kType), "Pointlane"); }, kPatience))
        << sandbox.lastBrowseError();

    // Published again after a stop, it comes back.
    ASSERT_TRUE(advertiser.publish());
    EXPECT_TRUE(
        waitUntil([&] { return find(sandbox.browse(kType), "Pointlane").has_value(); }, kPatience));
}

TEST(ServiceAdvertiserTest, SecondServiceWithTheSameNameIsRenamedAndBothAreListed) {
    AvahiSandbox sandbox;
    if (!sandbox.start()) {
        GTEST_SKIP() << sandbox.skipReason();
    }
    sandbox.usePrivateBus();

    ServiceAdvertiser first("local.", kType, "Pointlane", 50001);
    ASSERT_TRUE(first.publish());
    ASSERT_TRUE(becomes(first, ServiceAdvertiser::State::established)) << sandbox.daemonLog();
    ServiceAdvertiser second("local.", kType, "Pointlane", 50002);
    ASSERT_TRUE(second.publish());
    ASSERT_TRUE(becomes(second, ServiceAdvertiser::State::established)) << sandbox.daemonLog();
    EXPECT_EQ(first.registeredName(), "Pointlane");
    EXPECT_EQ(second.registeredName(), "Pointlane #2");

    std::vector<BrowsedService> services;
    ASSERT_TRUE(waitUntil(
        [&] {
            services = sandbox.browse(kType);
            return find(services, "Pointlane") && find(services, "Pointlane #2");
        },
        kPatience))
        << sandbox.lastBrowseError();
    EXPECT_EQ(find(services, "Pointlane")->port, 50001);
    EXPECT_EQ(find(services, "Pointlane #2")->port, 50002);

    // The renamed one withdrawn, the original stays.
    second.stop();
    EXPECT_TRUE(waitUntil(
        [&] {
            services = sandbox.browse(kType);
            return find(services, "Pointlane") && !find(services, "Pointlane #2");
        },
        kPatience));
}

TEST(ServiceAdvertiserTest, NameHeldByAnotherProgramIsAvoided) {
    AvahiSandbox sandbox;
    if (!sandbox.start()) {
        GTEST_SKIP() << sandbox.skipReason();
    }
    sandbox.usePrivateBus();
    testkit::TempDir dir;
    const pid_t other = sandbox.startProcess({"avahi-publish", "-s", "Pointlane", kType, "4567"},
                                             dir.file("publish.out"));
    ASSERT_GT(other, 0);
    ASSERT_TRUE(
        waitUntil([&] { return find(sandbox.browse(kType), "Pointlane").has_value(); }, kPatience))
        << sandbox.lastBrowseError();

    ServiceAdvertiser advertiser("local.", kType, "Pointlane", 50555);
    ASSERT_TRUE(advertiser.publish());
    ASSERT_TRUE(becomes(advertiser, ServiceAdvertiser::State::established));
    EXPECT_EQ(advertiser.registeredName(), "Pointlane #2");
    std::vector<BrowsedService> services;
    ASSERT_TRUE(waitUntil(
        [&] {
            services = sandbox.browse(kType);
            return find(services, "Pointlane") && find(services, "Pointlane #2");
        },
        kPatience));
    EXPECT_EQ(find(services, "Pointlane")->port, 4567);
    EXPECT_EQ(find(services, "Pointlane #2")->port, 50555);
    sandbox.stopProcess(other);
}

TEST(ServiceAdvertiserTest, WithoutAnyBusItSaysSoOnceAndCarriesOn) {
    AvahiSandbox sandbox;  // nothing started: its bus address leads nowhere
    sandbox.usePrivateBus();

    testing::internal::CaptureStdout();
    {
        ServiceAdvertiser advertiser("local.", kType, "Pointlane", 50000);
        EXPECT_TRUE(advertiser.publish());
        EXPECT_TRUE(becomes(advertiser, ServiceAdvertiser::State::waitingForDaemon));
        EXPECT_TRUE(advertiser.publish());  // already under way
    }
    const std::string output = testing::internal::GetCapturedStdout();
    EXPECT_EQ(output, kNoDaemonLine);
}

TEST(ServiceAdvertiserTest, DaemonStartedLaterOrRestartedGetsTheServiceAgain) {
    AvahiSandbox sandbox;
    if (!sandbox.startBus()) {
        GTEST_SKIP() << sandbox.skipReason();
    }
    sandbox.usePrivateBus();

    testing::internal::CaptureStdout();
    std::string output;
    {
        ServiceAdvertiser advertiser("local.", kType, "Pointlane", 50321);
        ASSERT_TRUE(advertiser.publish());
        EXPECT_TRUE(becomes(advertiser, ServiceAdvertiser::State::waitingForDaemon));

        if (!sandbox.startDaemon()) {
            testing::internal::GetCapturedStdout();
            GTEST_SKIP() << sandbox.skipReason();
        }
        EXPECT_TRUE(becomes(advertiser, ServiceAdvertiser::State::established))
            << sandbox.daemonLog();
        EXPECT_TRUE(waitUntil([&] { return find(sandbox.browse(kType), "Pointlane").has_value(); },
                              kPatience));

        sandbox.stopDaemon();
        EXPECT_TRUE(becomes(advertiser, ServiceAdvertiser::State::waitingForDaemon));
        ASSERT_TRUE(sandbox.startDaemon()) << sandbox.skipReason();
        EXPECT_TRUE(becomes(advertiser, ServiceAdvertiser::State::established))
            << sandbox.daemonLog();
        auto seen = std::optional<BrowsedService>();
        EXPECT_TRUE(
            waitUntil([&] { return (seen = find(sandbox.browse(kType), "Pointlane")).has_value(); },
                      kPatience));
        if (seen) {
            EXPECT_EQ(seen->port, 50321);
        }
    }
    output = testing::internal::GetCapturedStdout();
    // Once for the missing daemon at start, once when it went away.
    EXPECT_EQ(countOf(output, kNoDaemonLine), 2) << output;
}

}  // namespace
}  // namespace pointlane
