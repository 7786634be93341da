#pragma once

#include <gtest/gtest.h>

#include <string>

#include "TestKit.h"
#include "storage/SQLite.h"

namespace pointlane::testing {

// Every test gets a fresh database file in its own folder: the shared connection is closed
// and re-created there from the schema script next to the test program.
class StorageFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        sqlm().drain();
        sqlm().close();
        sqlm().resetSchemaPath();
        path_ = dir_.file("Pointlane.sqlite");
        ASSERT_TRUE(sqlm().create(path_));
    }
    void TearDown() override {
        sqlm().drain();
        sqlm().close();
        sqlm().resetSchemaPath();
    }
    const std::string& path() const { return path_; }
    testkit::TempDir dir_;

  private:
    std::string path_;
};

}  // namespace pointlane::testing
