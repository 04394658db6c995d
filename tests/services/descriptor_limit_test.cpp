#include "services/common/descriptor_limit.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

namespace orb::services {
namespace {

TEST(DescriptorLimitTest, IsRaisedToWhatTheProcessMayHave) {
  const rlimit limit{64, 512};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  EXPECT_EQ(DescriptorsForClients(), 8U);
  EXPECT_EQ(RaiseDescriptorLimit(), 512U);
  EXPECT_EQ(DescriptorsForClients(), 64U);
  EXPECT_EQ(RaiseDescriptorLimit(), 512U);
}

}  // namespace
}  // namespace orb::services
