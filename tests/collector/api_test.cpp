#include "tests/collector/collector_fixture.h"

namespace orb::test {
namespace {

// Through the process-wide client, on a bus that does not exist.
class ApiTest : public CollectorFixture {
 protected:
  ApiTest() {
    setenv("ORB_BUS_ADDRESS", ("unix:path=" + data_dir_ + "no-bus").c_str(), 1);
    WriteConf("register_max_retries=2\nregister_retry_wait_sec=-1\n");
  }
};

TEST_F(ApiTest, FailedSynchronousRegistrationGivesNull) {
  cfg_.custom_session_format = 1;
  EXPECT_EQ(kiv_register(&cfg_), nullptr);
  EXPECT_TRUE(Logged(ANDROID_LOG_INFO, "orb_register: custom_session_format 1"));
  EXPECT_EQ(log_.Count("radio: MGR registration failed"), 2u);
  EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "radio: registration failed -1"));
}

TEST_F(ApiTest, RawDataIsAnnouncedInTheLogEvenWithoutCollector) {
  EXPECT_EQ(kiv_log_buf(nullptr, nullptr, 0), -1);
  EXPECT_TRUE(Logged(ANDROID_LOG_INFO, "orb_log_buf: called"));
}

}  // namespace
}  // namespace orb::test
