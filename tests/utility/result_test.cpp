#include "utility/result.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>

namespace orb {
namespace {

using Owned = std::unique_ptr<int>;

TEST(ResultTest, HoldsAValueThatCanBeTaken) {
  Result<Owned> result = std::make_unique<int>(7);
  ASSERT_TRUE(result.ok());
  EXPECT_EQ(**result, 7);
  const Owned taken = *std::move(result);
  EXPECT_EQ(*taken, 7);
  EXPECT_TRUE(Result<void>().ok());
}

TEST(ResultTest, HoldsTheReasonWithItsErrno) {
  const Result<Owned> result = SystemError("cannot use /spool", EACCES);
  ASSERT_FALSE(result.ok());
  EXPECT_EQ(result.error().text, "cannot use /spool: Permission denied");
  EXPECT_EQ(result.error().number, EACCES);
  EXPECT_FALSE(Result<void>(result.error()).ok());
}

TEST(ResultDeathTest, TakingWhatIsNotThereEndsTheProcess) {
  EXPECT_DEATH(**Result<Owned>(Error{"none"}), "");
  EXPECT_DEATH(static_cast<void>(Result<int>(7).error()), "");
  EXPECT_DEATH(static_cast<void>(Result<void>().error()), "");
}

}  // namespace
}  // namespace orb
