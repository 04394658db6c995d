// Records through shared-memory slots, over the bus, with HALs that die.
#include <gtest/gtest.h>
#include <signal.h>

#include "tests/integration/stack.h"

namespace orb::test {
namespace {

using std::chrono::seconds;

class SlotsTest : public ::testing::Test {
 protected:
  SlotsTest() { stack_.StartManager(); }

  // Registers in this process and starts a campaign of KPI 1 for one LicSN.
  void Start(Client* client, const std::string& name, uint64_t lic_sn, int slots = 4) {
    const std::string dir = stack_.MakeDataDir(name);
    ASSERT_EQ(client->Ask("register " + name + " " + dir + " sync slots " + std::to_string(slots) +
                          " 64"),
              "ok");
    StartCampaign(name, lic_sn);
  }
  void StartCampaign(const std::string& name, uint64_t lic_sn) {
    const std::string file = stack_.WriteCampaign(name + ".txtpb", {lic_sn}, {1}, 1, 4096);
    ASSERT_TRUE(stack_.StartCampaign(name, file, {lic_sn}, 5));
  }
  void StopCampaign(const std::string& name) {
    ASSERT_EQ(stack_.Ctl({"campaign", "stop", name}).exit_code, 0);
  }
  uint64_t Sum(uint64_t lic_sn) { return SumOf(stack_.DecodeSpool(), lic_sn, 1); }
  bool WaitForLog(const std::string& text) {
    return WaitFor([&] { return stack_.LogOf("client1").find(text) != std::string::npos; });
  }

  Stack stack_;
};

TEST_F(SlotsTest, CarriesEverySampleThroughAHalThatKeepsUp) {
  stack_.StartHal();
  Client client = stack_.StartClient();
  Start(&client, "radio", 42, 31);
  Start(&client, "sensor", 43, 31);
  // Some 60 slots each.
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(client.Ask("log radio 1 1 2"), "0");
    ASSERT_EQ(client.Ask("log sensor 1 10 2"), "0");
  }
  StopCampaign("radio");
  EXPECT_EQ(Sum(42), 200u);
  EXPECT_EQ(client.Ask("deregister sensor"), "0");
  EXPECT_EQ(Sum(43), 2000u);
  EXPECT_EQ(client.Ask("deregister radio"), "0");
}

TEST_F(SlotsTest, TheNextSessionFindsAHalThatCameBack) {
  stack_.StartHal();
  Client client = stack_.StartClient();
  Start(&client, "radio", 42);
  EXPECT_EQ(client.Ask("log radio 1 1 2"), "0");
  EXPECT_EQ(client.Ask("flush radio"), "0");
  ASSERT_TRUE(WaitForLog("LTC-Profiling: Free Slot 0 ")) << "nothing is pending any more";
  stack_.hal().Signal(SIGKILL);
  stack_.hal().Wait(seconds(5));
  EXPECT_EQ(client.Ask("log radio 1 100 2"), "0");
  EXPECT_EQ(client.Ask("flush radio"), "0");
  ASSERT_TRUE(WaitForLog("SendSlot failed - dropping data"));
  StopCampaign("radio");

  stack_.StartHal();
  const std::string file = stack_.WriteCampaign("again.txtpb", {42}, {1}, 1, 4096);
  // The HAL may still be on its way to the bus.
  ASSERT_TRUE(WaitFor([&] { return stack_.StartCampaign("radio", file, {42}, 6); }));
  EXPECT_EQ(client.Ask("log radio 1 10 2"), "0");
  StopCampaign("radio");
  EXPECT_EQ(Sum(42), 1u + 20u) << "the first window, and those after the return";
  EXPECT_EQ(client.Ask("deregister radio"), "0");
}

// Slots that a dead HAL had are never completed: their session stays short of
// them, and its stop would wait for ever. Everybody else goes on.
TEST_F(SlotsTest, AHalThatDiesWithSlotsPendingHurtsOnlyTheirSession) {
  ChildProcess holding = stack_.StartHoldingHal();
  Client client = stack_.StartClient();
  Start(&client, "radio", 42);
  const std::string most_of_a_slot(60, 'x');
  for (const char* want : {"0", "0", "0", "0", "-1", "-1"}) {
    EXPECT_EQ(client.Ask("buf radio " + most_of_a_slot), want);
  }
  holding.Signal(SIGKILL);
  holding.Wait(seconds(5));
  ASSERT_TRUE(WaitForLog("Orbsyshal Server has died"));
  EXPECT_EQ(client.Ask("buf radio " + most_of_a_slot), "-1");
  EXPECT_EQ(client.Ask("flush radio"), "0");

  stack_.StartHal();
  ASSERT_EQ(client.Ask("register sensor " + stack_.MakeDataDir("sensor") + " sync slots 4 64"),
            "ok");
  const std::string file = stack_.WriteCampaign("sensor.txtpb", {43}, {1}, 1, 4096);
  ASSERT_TRUE(WaitFor([&] { return stack_.StartCampaign("sensor", file, {43}, 6); }));
  EXPECT_EQ(client.Ask("buf radio " + most_of_a_slot), "-1") << "no foreign completion freed one";
  EXPECT_EQ(client.Ask("log sensor 1 10 20"), "0");
  StopCampaign("sensor");
  EXPECT_EQ(Sum(43), 200u);
  EXPECT_EQ(client.Ask("deregister sensor"), "0");
  EXPECT_EQ(Sum(42), 0u);
  EXPECT_TRUE(client.process().Running());
}

}  // namespace
}  // namespace orb::test
