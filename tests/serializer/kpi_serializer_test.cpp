#include "serializer/kpi_serializer.h"

#include "tests/collector/collector_fixture.h"

namespace orb::test {
namespace {

class KPISerializerTest : public CollectorFixture {};

TEST_F(KPISerializerTest, FailedInitialisationGivesNothing) {
  kiv_collector& collector = MakeRegistered();
  const std::string missing = dir_.path() + "/missing";
  EXPECT_EQ(KPISerializer::Create({1, 4096, 4, missing.c_str(), &collector}), nullptr);
  EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "handleTmpFile: Failed to open cache dir " + missing +
                                            " - err: No such file or directory"));
  EXPECT_TRUE(
      Logged(ANDROID_LOG_ERROR, "KPISerializer::Create: Failed to initialze KPIFileSerializer"));
  EXPECT_EQ(KPISerializer::Create({1, 4096, 4, nullptr, &collector}), nullptr);

  EXPECT_EQ(KPISerializer::Create({2, 4096, 65, nullptr, &collector}), nullptr);
  EXPECT_TRUE(
      Logged(ANDROID_LOG_ERROR, "KPISerializer::Create: Failed to initialze KPIMemorySerializer"));
}

}  // namespace
}  // namespace orb::test
