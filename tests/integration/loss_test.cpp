// The books of a real client against what its receiver decodes: samples logged =
// samples in decoded records + samples counted as lost, exactly, for each owner.
#include <gtest/gtest.h>
#include <signal.h>

#include <thread>

#include "tests/integration/stack.h"
#include "tests/support/dump_lines.h"

namespace orb::test {
namespace {

using std::chrono::seconds;

class LossBooksTest : public ::testing::Test {
 protected:
  LossBooksTest() {
    stack_.StartHal();
    stack_.StartManager();
  }
  void Ask(const std::string& command, const std::string& want) {
    EXPECT_EQ(client_.Ask(command), want) << command;
  }
  void Log(uint32_t kpi, int count) {
    Ask("log radio " + std::to_string(kpi) + " 1 " + std::to_string(count), "0");
    logged_ += static_cast<uint64_t>(count);
  }
  void LogBlob(uint32_t bytes, const char* want) {
    Ask("blob radio 3 " + std::to_string(bytes), want);
    ++logged_;
  }
  void Register(const std::string& options) {
    client_ = stack_.StartClient();
    Ask("register radio " + dir_ + " sync" + options, "ok");
  }
  DumpLines Dump() { return DumpLines(stack_.Ctl({"client", "dump", "radio"}).out); }
  bool WaitForWriter() {
    return WaitFor([&] { return Dump().Value("queue").rfind("depth=0 ", 0) == 0; });
  }
  void KillHal() {
    stack_.hal().Signal(SIGKILL);
    stack_.hal().Wait(seconds(5));
  }
  void Stop() { ASSERT_EQ(stack_.Ctl({"campaign", "stop", "radio"}).exit_code, 0); }

  // What each cause must have cost owner 42, at least.
  void ExpectBooks(const std::vector<uint64_t>& owners, const std::vector<const char*>& causes) {
    const DumpLines dump = Dump();
    EXPECT_EQ(dump.Number("samples", "logged"), logged_);
    for (const char* cause : causes) {
      EXPECT_GT(dump.Number(cause, "samples"), 0u) << cause;
    }
    const std::vector<Record> records = stack_.DecodeSpool();
    for (const uint64_t owner : owners) {
      SCOPED_TRACE(owner);
      uint64_t decoded = 0;
      for (const Record& record : records) {
        if (record.lic_sn == owner) decoded += record.kind == "blob" ? 1 : record.num_samples;
      }
      const std::string key = "owner." + std::to_string(owner);
      EXPECT_EQ(dump.Number(key + ".sent", "samples"), decoded);
      EXPECT_EQ(dump.Number(key, "samples"), decoded + dump.Number(key + ".lost", "samples"));
    }
  }

  Stack stack_;
  Client client_;
  const std::string dir_ = stack_.MakeDataDir("data");
  uint64_t logged_ = 0;
};

TEST_F(LossBooksTest, OfFilesMatchWhatIsDecoded) {
  Register("");
  const std::string file = stack_.path("c.txtpb");
  WriteFile(file,
            "threshold_size: 4194304 threshold_time: 60\n"
            "kpi_cfgs { kpi_id: 1 type: KPI_NUMERIC sub_type: COUNTER sample_window: 3 }\n"
            "kpi_cfgs { kpi_id: 2 type: KPI_NUMERIC sub_type: GAUGE sample_window: 4\n"
            "  g_cfg { report_mean: true } }\n"
            "kpi_cfgs { kpi_id: 3 type: KPI_BLOB\n"
            "  b_cfg { single_sample_size_threshold_bytes: 2000 sample_rate: 1 } }\n"
            "kpi_cfgs { kpi_id: 4 type: KPI_NUMERIC sub_type: HISTOGRAM sample_window: 500\n"
            "  h_cfg { bucket_bounds: [0, 10] } }\n"
            "lic_sn_kpi_maps { lic_sn: 42 kpi_ids: [1, 2, 3, 4] }\n"
            "lic_sn_kpi_maps { lic_sn: 77 kpi_ids: [1] encrypt: true }\n");
  ASSERT_TRUE(stack_.StartCampaign("radio", file, {42, 77}, 9));

  Ask("hammer radio 4 4", "ok");
  Log(2, 21);
  ASSERT_TRUE(WaitFor([&] { return Dump().Number("owner.42.open", "records") > 8; }));
  logged_ += std::stoull(client_.Ask("calm"));
  Ask("flush radio", "0");
  ASSERT_TRUE(WaitForWriter());

  KillHal();
  Log(1, 20);
  Ask("flush radio", "0");
  ASSERT_TRUE(WaitFor([&] { return Dump().Number("owner.42.lost.hal", "samples") > 0; }));
  stack_.StartHal();
  // Flush until the HAL is back on the bus.
  const uint64_t arrived = Dump().Number("owner.42.sent", "events");
  ASSERT_TRUE(WaitFor([&] {
    Log(1, 3);
    Ask("flush radio", "0");
    return WaitForWriter() && Dump().Number("owner.42.sent", "events") > arrived;
  }));

  // Eight blobs fit, the ninth in part, the tenth not at all.
  Ask("limit 16384", "ok");
  for (int i = 0; i < 10; ++i) LogBlob(1900, "0");
  Ask("flush radio", "0");
  ASSERT_TRUE(WaitForWriter());
  EXPECT_EQ(Dump().Number("owner.42.lost.short_write", "records"), 2u);
  Ask("limit 0", "ok");

  LogBlob(2001, "-1");
  ASSERT_EQ(stack_.Ctl({"campaign", "lic-stop", "radio", "42"}).exit_code, 0);
  Log(1, 10);
  ASSERT_TRUE(WaitForWriter());
  ASSERT_EQ(stack_.Ctl({"campaign", "lic-start", "radio", "42"}).exit_code, 0);
  Log(1, 10);
  Stop();
  ExpectBooks({42, 77},
              {"owner.42.lost.hal", "owner.42.lost.short_write", "owner.42.lost.oversize",
               "owner.42.lost.stopped", "owner.42.lost.no_record", "owner.77.lost.no_key"});
  EXPECT_EQ(stack_.Ctl({"client", "dump", "radio", "--json"})
                .out.rfind(R"({"client":{"name":"radio","id":1,)", 0),
            0u);
  EXPECT_EQ(stack_.Ctl({"client", "dump", "gps"}).exit_code, 1);
}

TEST_F(LossBooksTest, OfSlotsMatchWhatIsDecoded) {
  Register(" slots 4 64");
  const std::string file = stack_.path("c.txtpb");
  WriteFile(file,
            "threshold_size: 4096 threshold_time: 60\n"
            "kpi_cfgs { kpi_id: 1 type: KPI_NUMERIC sub_type: COUNTER sample_window: 2 }\n"
            "kpi_cfgs { kpi_id: 3 type: KPI_BLOB\n"
            "  b_cfg { single_sample_size_threshold_bytes: 2000 sample_rate: 1 } }\n"
            "lic_sn_kpi_maps { lic_sn: 42 kpi_ids: [1, 3] }\n");
  ASSERT_TRUE(stack_.StartCampaign("radio", file, {42}, 5));
  Log(1, 101);
  LogBlob(400, "-1");
  Ask("flush radio", "0");
  ASSERT_TRUE(WaitFor([&] { return Dump().Number("owner.42.under_way", "records") == 0; }));
  KillHal();
  Log(1, 100);
  ASSERT_TRUE(WaitFor([&] { return Dump().Number("owner.42.lost.slot_refused", "samples") > 0; }));
  Stop();

  stack_.StartHal();
  ASSERT_TRUE(WaitFor([&] { return stack_.StartCampaign("radio", file, {42}, 6); }));
  Log(1, 50);
  Stop();
  ExpectBooks({42}, {"owner.42.lost.slot_refused", "owner.42.lost.oversize"});
}

// A HAL that never confirms hangs the end of the session, and so the client's
// answers: what it waits for can still be seen.
TEST_F(LossBooksTest, ShowASessionThatCannotEnd) {
  KillHal();
  ChildProcess holding = stack_.StartHoldingHal();
  Register(" slots 4 64");
  const std::string file = stack_.WriteCampaign("c.txtpb", {42}, {1}, 1, 4096);
  ASSERT_TRUE(stack_.StartCampaign("radio", file, {42}, 5));
  Log(1, 3);
  Ask("flush radio", "0");
  ASSERT_TRUE(WaitFor([&] { return Dump().Number("owner.42.under_way", "samples") == 2; }));
  std::thread stopping([this] { stack_.Ctl({"campaign", "stop", "radio"}); });
  EXPECT_TRUE(WaitFor([&] { return Dump().Value("session.state") == "busy"; }));
  EXPECT_GE(Dump().Number("owner.42.under_way", "samples"), 2u);
  client_.process().Signal(SIGKILL);
  stopping.join();
}

}  // namespace
}  // namespace orb::test
