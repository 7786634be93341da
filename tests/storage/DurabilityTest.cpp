#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "StorageFixture.h"
#include "storage/PlayerInfo.h"
#include "storage/SQLite.h"

namespace pointlane {
namespace {

constexpr const char* kDbVariable = "POINTLANE_DURABILITY_DB";
constexpr const char* kFdVariable = "POINTLANE_DURABILITY_FD";

// The writer side runs in a fresh copy of this program (started by the test below), before
// gtest starts: it stores players one by one and reports each acknowledged id on the pipe,
// until it is killed.
struct DurabilityWriter {
    DurabilityWriter() {
        const char* db = std::getenv(kDbVariable);
        const char* fd = std::getenv(kFdVariable);
        if (db == nullptr || fd == nullptr) {
            return;
        }
        const int out = std::atoi(fd);
        if (!sqlm().open(db)) {
            _exit(3);
        }
        for (int i = 0; i < 1000000; ++i) {
            auto player = PlayerInfo::make("player " + std::to_string(i), "10.0.0.1");
            if (!player || !player->save()) {
                _exit(4);
            }
            const std::int64_t id = player->id;
            if (write(out, &id, sizeof id) != static_cast<ssize_t>(sizeof id)) {
                _exit(5);
            }
        }
        _exit(0);
    }
};
const DurabilityWriter writer;

class StorageDurabilityTest : public testing::StorageFixture {};

TEST_F(StorageDurabilityTest, EveryAcknowledgedSaveSurvivesAKilledProcess) {
    sqlm().close();
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(fds[0]);
        setenv(kDbVariable, path().c_str(), 1);
        setenv(kFdVariable, std::to_string(fds[1]).c_str(), 1);
        char program[] = "/proc/self/exe";
        char* args[] = {program, nullptr};
        execv(program, args);
        _exit(2);
    }
    close(fds[1]);

    // Kill it in the middle of its stream of saves.
    std::vector<std::int64_t> acknowledged;
    std::int64_t id = 0;
    while (acknowledged.size() < 150 && read(fds[0], &id, sizeof id) == sizeof id) {
        acknowledged.push_back(id);
    }
    kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << "writer ended by itself with status " << status;
    while (read(fds[0], &id, sizeof id) == sizeof id) {
        acknowledged.push_back(id);
    }
    close(fds[0]);
    ASSERT_GE(acknowledged.size(), 150u);

    // The ids are given in order: every acknowledged one is there when the last one is.
    ASSERT_TRUE(sqlm().open(path()));
    EXPECT_EQ(scalar("SELECT count(*) FROM PlayerInfo WHERE id <= " +
                     std::to_string(acknowledged.back())),
              static_cast<std::int64_t>(acknowledged.size()));
}

}  // namespace
}  // namespace pointlane
