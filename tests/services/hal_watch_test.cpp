// Campaigns that start beside a HAL that has just come, or one that hangs.
#include "services/manager/hal_watch.h"

#include <binder/Binder.h>
#include <gtest/gtest.h>
#include <orb_platform/local_service_manager.h>

#include "tests/services/campaign_manager_fixture.h"

namespace orb::manager {
namespace {

using android::sp;
using orb::test::FakeClient;
using orb::test::WaitFor;

constexpr const char* kHal = "vendor.nuv.orbsyshal_aidl.IOrbsyshal/default";

// Look-ups may be held up, as by a HAL that does not answer.
class Names : public orb_platform::LocalServiceManager {
 public:
  sp<android::IBinder> checkService(const android::String16& name) const override {
    Gate* const gate = gate_.exchange(nullptr);
    if (gate != nullptr) gate->Wait();
    return LocalServiceManager::checkService(name);
  }
  void HoldNext(Gate* gate) { gate_ = gate; }

 private:
  mutable std::atomic<Gate*> gate_{nullptr};
};

class HalWatchTest : public CampaignManagerTest {
 protected:
  HalWatchTest() {
    android::setDefaultServiceManager(names_);
    waits_ = {std::chrono::milliseconds(0), std::chrono::hours(1)};
    Restart();
  }
  ~HalWatchTest() override { android::setDefaultServiceManager(nullptr); }
  void StartHal() { names_->addService(android::String16(kHal), new android::BBinder()); }

  const sp<Names> names_ = new Names();
  std::atomic<int> attempts_{0};
};

TEST_F(HalWatchTest, ASessionThatBeginsWithANewHalBeginsOnce) {
  std::atomic<int> died{0};
  HalWatch watch([&] { manager_->HalCame(); }, [&] { ++died; });
  manager_->LookForHalWith([&] { watch.Look(); });
  client_->Say("client.name: \"slots\"\nclient.mode: slots\n");
  const std::string token = Register("slots", client_).token;
  // A client that is called for each HAL, after the other one: that is the order of tokens.
  const sp<FakeClient> last = new FakeClient();
  Run("last", new FakeClient());
  last->OnStart([&] {
    ++attempts_;
    return -5;
  });
  while (Register("last", last).token < token) {
  }
  for (int hal = 1; hal <= 3; ++hal) {
    ASSERT_TRUE(WaitFor([&] { return attempts_ > 0; }));
    attempts_ = 0;
    const size_t calls = client_->Calls().size();
    StartHal();
    ASSERT_EQ(Start("slots").status(), ControlReply::DONE);
    ASSERT_TRUE(WaitFor([&] { return attempts_ > 0; }));
    ASSERT_EQ(Switch("slots", 42, true), ControlReply::DONE);
    EXPECT_EQ(client_->Calls().size(), calls + 2) << "it was stopped and started again";
    ASSERT_EQ(manager_->StopCampaign("slots").status(), ControlReply::DONE);
    names_->Kill(kHal);
    ASSERT_TRUE(WaitFor([&] { return died == hal; }));
  }
}

TEST_F(HalWatchTest, NobodyWaitsForAHalThatHangs) {
  Gate gate;
  std::atomic<int> came{0};
  names_->HoldNext(&gate);
  HalWatch watch([&] { ++came; }, [] {});
  gate.WaitEntered();
  StartHal();
  watch.Look();
  EXPECT_EQ(came, 0);
  gate.Release();
  EXPECT_TRUE(WaitFor([&] { return came == 1; }));
}

}  // namespace
}  // namespace orb::manager
