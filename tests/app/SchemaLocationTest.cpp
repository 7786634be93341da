#include "app/SchemaLocation.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "ServerProcess.h"
#include "TestKit.h"

namespace pointlane {
namespace {

constexpr const char* kLookupOut = "POINTLANE_SCHEMA_LOOKUP_OUT";
// In a copy of this program started by a test below: write what the lookup finds, before gtest
// starts.
[[maybe_unused]] const bool schemaLookupChild = [] {
    if (const char* out = std::getenv(kLookupOut)) {
        std::ofstream(out) << SchemaLocation::find().value_or("<none>");
        _exit(0);
    }
    return false;
}();

TEST(SchemaLocationTest, FoundNextToTheProgramAndInAnInstalledTreeMovedElsewhere) {
    const auto self = std::filesystem::read_symlink("/proc/self/exe");
    EXPECT_EQ(SchemaLocation::find(), (self.parent_path() / "Schema.sql").string());

    // prefix/bin/<this program> and prefix/share/pointlane/Schema.sql, nowhere near where the
    // build would have installed them.
    const std::filesystem::path prefix =
        std::filesystem::path(POINTLANE_BINARY_DIR) / ("relocated-" + std::to_string(getpid()));
    std::filesystem::create_directories(prefix / "bin");
    std::filesystem::create_directories(prefix / "share" / "pointlane");
    std::ofstream((prefix / "share" / "pointlane" / "Schema.sql").string())
        << "CREATE TABLE M (x);";
    const auto program = prefix / "bin" / "app_tests";
    std::error_code linked;
    std::filesystem::create_hard_link(self, program, linked);
    if (linked) {
        std::filesystem::copy_file(self, program);
    }
    testkit::TempDir dir;
    const std::string out = dir.file("found");
    const int status = std::system(
        (std::string(kLookupOut) + "='" + out + "' '" + program.string() + "'").c_str());
    std::filesystem::remove_all(prefix);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(testkit::fileText(out), (prefix / "share" / "pointlane" / "Schema.sql").string());
}

}  // namespace
}  // namespace pointlane
