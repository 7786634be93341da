#include "transport/RequestCode.h"

#include <gtest/gtest.h>
#include <string>

namespace pointlane {
namespace {

TEST(RequestCodeTest, ConvertsExactlyZeroToEight) {
    EXPECT_EQ(requestCodeFrom(0), RequestCode::loginAdmin);
    EXPECT_EQ(requestCodeFrom(7), RequestCode::playerRemoved);
    EXPECT_EQ(requestCodeFrom(8), RequestCode::cardElected);
    EXPECT_EQ(requestCodeFrom(9), std::nullopt);
    EXPECT_EQ(requestCodeFrom(-1), std::nullopt);
    EXPECT_EQ(requestCodeFrom(1LL << 32), std::nullopt);
    EXPECT_EQ(toString(RequestCode::initNewDeal), "initNewDeal");
}

}  // namespace
}  // namespace pointlane
