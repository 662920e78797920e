#include "platform/TaskGroup.h"

#include <gtest/gtest.h>

namespace quorva {
namespace {

TEST(TaskGroupDeathTest, LeavingMoreOftenThanEnteringAborts) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    TaskGroup group;
    group.enter();
    group.leave();
    EXPECT_DEATH(group.leave(), "TaskGroup: leave\\(\\) without a matching enter\\(\\)");
}

} // namespace
} // namespace quorva
