#include "support/Tracer.h"

#include <gtest/gtest.h>

#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "../storage/Shape.h"
#include "TestKit.h"

namespace pointlane {
namespace {

// Keeps every line a tracer hands over.
class CapturingStream final : public TracerStream {
  public:
    void write(const std::string& text) override {
        std::lock_guard lock(mutex_);
        lines_.push_back(text);
    }
    std::vector<std::string> lines() const {
        std::lock_guard lock(mutex_);
        return lines_;
    }

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

struct AppDelegate {};

TEST(TracerTest, InformationAndStopLinesHaveTheirShapeOnTheMainThread) {
    auto stream = std::make_shared<CapturingStream>();
    {
        Tracer tracer(stream);
        EXPECT_EQ(tracer.level, 0);
        tracer.info("AppDelegate", "Database opened (/tmp/x.sqlite)", "openDatabase()", 42);
        tracer.info(AppDelegate{}, std::nullopt, "applicationWillTerminate()", 7);
        POINTLANE_TRACE_TO(tracer, "Macro", std::optional<std::string>("via macro"));
    }
    const auto lines = stream->lines();
    ASSERT_EQ(lines.size(), 4u);
    // gtest runs the tests on the process's first thread.
    EXPECT_TRUE(testing::hasShape(
        lines[0],
        "%%:%%:%%.%%% (1m) (I) AppDelegate:openDatabase() (42) Database opened (/tmp/x.sqlite)"))
        << lines[0];
    EXPECT_TRUE(testing::hasShape(
        lines[1], "%%:%%:%%.%%% (1m) (I) AppDelegate:applicationWillTerminate() (7)"))
        << lines[1];
    EXPECT_TRUE(testing::hasShape(lines[2], "* (1m) (I) Macro:TestBody() (#) via macro"))
        << lines[2];
    // Destruction ends the output with exactly one stop line.
    EXPECT_TRUE(testing::hasShape(lines[3], "%%:%%:%%.%%% (1m) (STOP)")) << lines[3];
}

TEST(TracerTest, OtherThreadsGetSmallStableNumbersWithoutTheMainMark) {
    auto stream = std::make_shared<CapturingStream>();
    Tracer tracer(stream);
    std::string first;
    std::string second;
    std::thread worker([&] {
        first = threadInfo();
        second = threadInfo();
        tracer.info("Worker", "x", "run()", 1);
    });
    worker.join();
    EXPECT_EQ(first, second);
    ASSERT_FALSE(first.empty());
    EXPECT_EQ(first.find('m'), std::string::npos);
    EXPECT_GT(std::stoi(first), 1);
    std::string other;
    std::thread([&] { other = threadInfo(); }).join();
    EXPECT_NE(other, first);
    EXPECT_EQ(threadInfo(), "1m");
    const auto lines = stream->lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find(" (" + first + ") (I) Worker:run() (1) x"), std::string::npos);
}

TEST(TracerTest, StreamsWriteWhereTheyShould) {
    // No stream, and the discarding stream: nothing happens, nothing fails.
    {
        Tracer silent(std::shared_ptr<TracerStream>{});
        silent.info("X", "y", "f()", 1);
        silent.stop();
        Tracer network(TraceType::network);
        network.info("X", "y", "f()", 1);
    }
    EXPECT_EQ(traceTypeFrom(0), TraceType::console);
    EXPECT_EQ(traceTypeFrom(2), TraceType::network);
    EXPECT_FALSE(traceTypeFrom(3).has_value());
    EXPECT_FALSE(traceTypeFrom(-1).has_value());

    testkit::TempDir dir;
    const std::string path = dir.file("trace.log");
    {
        Tracer file(TraceType::file, path);
        file.info("FileUser", "one", "f()", 1);
        file.info("FileUser", "two", "f()", 2);
    }  // the stream's queue finishes its lines before it goes
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    ASSERT_EQ(lines.size(), 3u);  // appended, not replaced
    EXPECT_NE(lines[0].find("FileUser:f() (1) one"), std::string::npos);
    EXPECT_NE(lines[1].find("FileUser:f() (2) two"), std::string::npos);
    EXPECT_NE(lines[2].find("(STOP)"), std::string::npos);

    ::testing::internal::CaptureStderr();
    Console().write("");
    Console().write("line");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "\nline\n");
}

}  // namespace
}  // namespace pointlane
