// A whole campaign over the bus. What becomes of it while services and clients
// are killed is in tests/faults/.
#include <gmock/gmock.h>
#include <signal.h>

#include "tests/integration/stack.h"
#include "tests/support/dump_lines.h"

namespace orb::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::HasSubstr;

class CampaignTest : public ::testing::Test {
 protected:
  // The probe registers under the name, in a data directory of that name.
  void Register(const std::string& name, const std::string& how) {
    ASSERT_EQ(client_.Ask("register " + name + " " + stack_.MakeDataDir(name) + how), "ok");
    ASSERT_TRUE(stack_.WaitRegistered(name));
  }

  void Ask(const std::string& command, const std::string& want) {
    EXPECT_EQ(client_.Ask(command), want) << command;
  }

  DumpLines Dump(const std::string& name = "radio") {
    return DumpLines(stack_.Ctl({"client", "dump", name}).out);
  }
  // Until the writer thread has nothing to do, or the HAL has given every slot back.
  bool WaitForWriter(const std::string& name = "radio") {
    return WaitFor([&] { return Dump(name).Value("queue").rfind("depth=0 ", 0) == 0; });
  }

  Stack stack_;
  Client client_ = stack_.StartClient();
};

// Two clients of one process, which dies: one writes files, the other slots.
TEST_F(CampaignTest, CarriesSamplesFromLogToDecodedRecords) {
  stack_.StartHal();
  stack_.StartManager();
  Register("radio", " async");
  Register("sensor", " sync slots 31 64");
  const std::string files = stack_.WriteCampaign("c.txtpb", {42, 77}, {1, 2}, 5, 4096);
  const std::string slots = stack_.WriteCampaign("slots.txtpb", {43}, {1}, 1, 4096);
  ASSERT_TRUE(stack_.StartCampaign("radio", files, {42, 77}, 9));
  ASSERT_TRUE(stack_.StartCampaign("sensor", slots, {43}, 10));
  Ask("campaign radio", "9");
  Ask("enabled radio 1", "1");
  Ask("log radio 1 3 7", "0");
  Ask("log radio 3 3 1", "-1");
  // Some 60 slots through 31: a slow HAL is waited for, because full slots lose records.
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(client_.Ask("log sensor 1 10 2"), "0");
    if (i % 20 == 19) {
      ASSERT_TRUE(WaitForWriter("sensor"));
    }
  }

  ASSERT_TRUE(WaitForWriter());
  ASSERT_EQ(stack_.Ctl({"campaign", "lic-stop", "radio", "77"}).exit_code, 0);
  EXPECT_THAT(stack_.Ctl({"client", "list"}).out, HasSubstr(" 9 running -77\n"));
  Ask("log radio 2 100 6", "0");  // The sixth closes the first window.
  ASSERT_TRUE(WaitForWriter());
  ASSERT_EQ(stack_.Ctl({"campaign", "lic-start", "radio", "77"}).exit_code, 0);
  Ask("log radio 2 10 3", "0");
  ASSERT_EQ(stack_.Ctl({"campaign", "stop", "radio"}).exit_code, 0);
  Ask("enabled radio 1", "0");
  EXPECT_EQ(Dump().Number("owner.42.sent", "samples"), 16u);
  EXPECT_EQ(Dump().Number("owner.77.sent", "samples"), 11u);
  EXPECT_EQ(Dump().Number("owner.77.lost.stopped", "samples"), 5u);
  EXPECT_THAT(stack_.Ctl({"client", "dump", "radio", "--json"}).out,
              ::testing::StartsWith(R"({"client":{"name":"radio","id":1,)"));
  EXPECT_EQ(stack_.Ctl({"client", "dump", "gps"}).exit_code, 1);
  Ask("deregister radio", "0");
  Ask("flush sensor", "0");
  EXPECT_TRUE(WaitFor([&] { return stack_.Sum(43, 1) == 1990; })) << "all but the open window";
  client_.process().Signal(SIGKILL);
  EXPECT_TRUE(WaitFor([&] {
    return stack_.LogOf("orb-hald").find("closed: its client died") != std::string::npos &&
           stack_.Ctl({"client", "list"}).out.find("sensor") == std::string::npos;
  }));

  EXPECT_EQ(stack_.Sum(42, 1), 21u);
  EXPECT_EQ(stack_.Sum(42, 2), 630u);
  EXPECT_EQ(stack_.Sum(77, 1), 21u);
  EXPECT_EQ(stack_.Sum(77, 2), 130u);
  for (const nlohmann::json& record : stack_.DecodeSpool()) {
    EXPECT_EQ(record["client"], record["lic_sn"] == 43 ? "sensor" : "radio");
    EXPECT_EQ(record["campaign_id"], record["lic_sn"] == 43 ? 10 : 9);
  }
}

TEST_F(CampaignTest, DeregistersWithinOneRetryAtEveryStageOfRegistration) {
  const std::string begin = "register radio " + stack_.MakeDataDir("radio") + " async";
  const auto lines = [&](const std::string& text) { return stack_.CountInLog("client1", text); };
  // De-registers as soon as the client has logged the stage so often; "" is at once.
  const auto register_and_leave = [&](const std::string& stage, size_t times = 1) {
    const size_t before = lines(stage);
    ASSERT_EQ(client_.Ask(begin), "ok");
    ASSERT_TRUE(WaitFor([&] { return stage.empty() || lines(stage) >= before + times; })) << stage;
    const auto left = std::chrono::steady_clock::now();
    EXPECT_NE(client_.Ask("deregister radio", seconds(20)), "gone");
    EXPECT_LT(std::chrono::steady_clock::now() - left, seconds(5)) << stage;
  };
  constexpr const char* called = "registerClient: called";
  constexpr const char* waits = "waiting for 1 seconds before retrying";
  for (const char* stage : {"", called, waits}) register_and_leave(stage);
  register_and_leave(called, 2);  // The first retry.
  stack_.StartManager();
  for (const char* stage :
       {"", called, "got new instance of orb client", "registerClient success"}) {
    register_and_leave(stage);
  }
  // A manager that hangs inside the registration, and then dies.
  stack_.manager().Signal(SIGSTOP);
  const size_t before = lines(called);
  ASSERT_EQ(client_.Ask(begin), "ok");
  ASSERT_TRUE(WaitFor([&] { return lines(called) > before; }));
  ASSERT_TRUE(client_.process().Send("deregister radio"));
  stack_.manager().Signal(SIGKILL);
  EXPECT_TRUE(client_.process().ReadLine(seconds(20)).has_value());
}

TEST_F(CampaignTest, SlotsGoOnWithTheNextHal) {
  stack_.StartManager();
  Register("sensor", " sync slots 31 64");
  const std::string file = stack_.WriteCampaign("slots.txtpb", {43}, {1}, 1, 4096);
  EXPECT_FALSE(stack_.StartCampaign("sensor", file, {43}, 10)) << "there is no HAL yet";
  const auto arrives = [&] {
    const uint64_t before = stack_.Sum(43, 1);
    return WaitFor([&] {
      client_.Ask("log sensor 1 10 2");
      client_.Ask("flush sensor");
      return stack_.Sum(43, 1) > before;
    });
  };
  stack_.StartHal();
  ASSERT_TRUE(WaitFor([&] { return stack_.StartCampaign("sensor", file, {43}, 10); }));
  ASSERT_TRUE(arrives());
  stack_.hal().Signal(SIGKILL);
  stack_.hal().Wait(seconds(5));
  stack_.StartHal();
  EXPECT_TRUE(arrives()) << "and nobody has done anything";
  EXPECT_THAT(stack_.LogOf("orb-managerd"),
              HasSubstr("client sensor: campaign 10 begins again, its slots went with a HAL"));
}

// Two samples of the window add up to more than the library can square.
TEST_F(CampaignTest, AClientThatDiesOfItsCampaignIsNotGivenItForEver) {
  stack_.StartManager();
  const std::string file = stack_.path("c.txtpb");
  WriteFile(file,
            "threshold_size: 4096\n"
            "kpi_cfgs { kpi_id: 1 type: KPI_NUMERIC sub_type: GAUGE sample_window: 2\n"
            "  g_cfg { report_stdev: true } }\n");
  const auto listed = [&](const std::string& what) {
    return WaitFor([&] {
      return stack_.Ctl({"client", "list"}).out.find(what) != std::string::npos;
    });
  };
  Register("radio", " sync");
  ASSERT_TRUE(stack_.StartCampaign("radio", file, {42}, 9));
  for (int life = 1; life <= 3; ++life) {
    ASSERT_TRUE(listed(" 9 running")) << "life " << life;
    EXPECT_EQ(client_.Ask("log radio 1 2000000000 3"), "gone");
    ASSERT_TRUE(WaitFor([&] {
      return stack_.Ctl({"client", "list", "--json"}).out.find(R"("connected":true)") ==
             std::string::npos;
    }));
    client_ = stack_.StartClient();
    if (life < 3) Register("radio", " sync");
  }
  EXPECT_TRUE(listed(" 9 quarantined")) << "also while the client is away";
  EXPECT_THAT(stack_.LogOf("orb-managerd"), HasSubstr("campaign 9 is in quarantine"));
  stack_.manager().Signal(SIGKILL);
  stack_.manager().Wait(seconds(5));
  stack_.StartManager();
  Register("radio", " sync");
  EXPECT_THAT(stack_.Ctl({"client", "list", "--json"}).out,
              HasSubstr(R"("session":"quarantined","campaign":9)"));
  Ask("log radio 1 2000000000 3", "-1");
  EXPECT_EQ(stack_.Ctl({"campaign", "release", "radio"}).out, "released\n");
  EXPECT_TRUE(listed(" 9 running"));
  EXPECT_EQ(stack_.Ctl({"campaign", "release", "radio"}).exit_code, 1);
}

TEST_F(CampaignTest, RefusesBadInputWithAReason) {
  stack_.StartHal();
  stack_.StartManager();
  Register("radio", " async");
  const std::string good = stack_.WriteCampaign("good.txtpb", {42}, {1}, 1, 4096);
  const std::string small = stack_.WriteCampaign("small.txtpb", {42}, {1}, 1, 99);
  const std::string bad = stack_.path("bad.txtpb");
  WriteFile(bad, "threshold_size: \"many\"\n");
  const struct {
    std::string command;
    int exit_code;
    const char* reason;
  } kCases[] = {
      {"start gps " + good + " --lic 42", 1, "gps"},
      {"start radio " + bad + " --lic 42", 1, "bad.txtpb"},
      {"start radio " + small + " --lic 42", 1, "-1"},
      {"start radio /nonexistent --lic 42", 1, "open"},
      {"start radio " + good + " --lic 42:" + good + ":gcm", 2, "no P-256 public key"},
      {"stop gps", 1, "gps"},
      {"", 2, "orbctl campaign --help"},
      {"strat radio " + good, 2, "strat"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.command);
    std::vector<std::string> args = {"campaign"};
    std::istringstream words(c.command);
    for (std::string word; words >> word;) args.push_back(word);
    const CommandResult result = stack_.Ctl(args);
    EXPECT_EQ(result.exit_code, c.exit_code) << result.err;
    EXPECT_THAT(result.err, HasSubstr(c.reason));
  }
  EXPECT_TRUE(stack_.StartCampaign("radio", good, {42}, 1)) << "the refusals left no trace";
}

// Samples logged = samples in decoded records + samples counted as lost, exactly,
// for each owner.
class LossBooksTest : public CampaignTest {
 protected:
  void Log(uint32_t kpi, uint64_t count) {
    Ask("log radio " + std::to_string(kpi) + " 1 " + std::to_string(count), "0");
    logged_ += count;
  }
  void LogBlob(uint32_t bytes, const char* want) {
    Ask("blob radio 3 " + std::to_string(bytes), want);
    ++logged_;
  }

  uint64_t logged_ = 0;
};

TEST_F(LossBooksTest, MatchWhatIsDecoded) {
  stack_.StartHal();
  stack_.StartManager();
  Register("radio", " sync");
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

  Log(4, 1234);
  Log(2, 21);
  Ask("flush radio", "0");
  ASSERT_TRUE(WaitForWriter());

  stack_.hal().Signal(SIGKILL);
  stack_.hal().Wait(seconds(5));
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
  Ask("limit size 16384", "ok");
  for (int i = 0; i < 10; ++i) LogBlob(1900, "0");
  Ask("flush radio", "0");
  ASSERT_TRUE(WaitForWriter());
  EXPECT_EQ(Dump().Number("owner.42.lost.short_write", "records"), 2u);
  Ask("limit size -1", "ok");

  LogBlob(2001, "-1");
  ASSERT_EQ(stack_.Ctl({"campaign", "lic-stop", "radio", "42"}).exit_code, 0);
  Log(1, 10);
  ASSERT_TRUE(WaitForWriter());
  ASSERT_EQ(stack_.Ctl({"campaign", "lic-start", "radio", "42"}).exit_code, 0);
  Log(1, 10);
  ASSERT_EQ(stack_.Ctl({"campaign", "stop", "radio"}).exit_code, 0);

  const DumpLines dump = Dump();
  EXPECT_EQ(dump.Number("samples", "logged"), logged_);
  for (const char* loss : {"42.lost.hal", "42.lost.short_write", "42.lost.oversize",
                           "42.lost.stopped", "42.lost.no_record", "77.lost.no_key"}) {
    EXPECT_GT(dump.Number(std::string("owner.") + loss, "samples"), 0u) << loss;
  }
  std::map<uint64_t, uint64_t> decoded;
  for (const nlohmann::json& record : stack_.DecodeSpool()) {
    decoded[record["lic_sn"]] +=
        record["kind"] == "blob" ? 1 : record["num_samples"].get<uint64_t>();
  }
  for (const char* owner : {"owner.42", "owner.77"}) {
    const uint64_t arrived_samples = decoded[std::stoull(owner + 6)];
    EXPECT_EQ(dump.Number(owner + std::string(".sent"), "samples"), arrived_samples);
    EXPECT_EQ(dump.Number(owner, "samples"),
              arrived_samples + dump.Number(owner + std::string(".lost"), "samples"));
  }
}

}  // namespace
}  // namespace orb::test
