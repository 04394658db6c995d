// Trials of campaigns: what is reported is what was logged, and what is in the
// spool; and a fault costs what it costs on a device.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

#include "tests/support/child_process.h"
#include "tests/support/json_lines.h"

namespace orb::orbctl {
namespace {

using nlohmann::json;
using orb::test::CommandResult;
using orb::test::RunCommand;
using orb::test::WriteFile;
using ::testing::HasSubstr;
using ::testing::Not;

// Every blob is a record, and a file of its own: one sample, one upload.
constexpr char kBlobs[] = R"(
  threshold_size: 100
  kpi_cfgs { kpi_id: 1 type: KPI_BLOB b_cfg { single_sample_size_threshold_bytes: 64 } }
  lic_sn_kpi_maps { lic_sn: 42 kpi_ids: 1 })";

// Twenty of them, one a second.
std::string BlobLoad() {
  std::string load = "time,kpi,value\n";
  for (int t = 0; t < 20; ++t) load += std::to_string(t) + ",1,size:60\n";
  return load;
}

class SimTest : public ::testing::Test {
 protected:
  std::string Path(const std::string& name) const { return temp_.path() + "/" + name; }

  // `options` are words with a space between them.
  static CommandResult Ctl(std::vector<std::string> argv, const std::string& options) {
    argv.insert(argv.begin(), ORB_CTL);
    std::istringstream words(options);
    for (std::string word; words >> word;) argv.push_back(word);
    return RunCommand(argv);
  }
  CommandResult Sim(const std::string& campaign, const std::string& load,
                    const std::string& options = "") {
    out_ = Path("out" + std::to_string(++runs_));
    EXPECT_TRUE(WriteFile(Path("c.txtpb"), campaign) && WriteFile(Path("load.csv"), load));
    return Ctl(
        {"sim", "--campaign", Path("c.txtpb"), "--load", Path("load.csv"), "--out", out_, "--json"},
        options);
  }
  // The report of a trial that ran.
  json Report(const CommandResult& result) const {
    EXPECT_EQ(result.exit_code, 0) << result.err;
    return json::parse(result.out, nullptr, false);
  }
  std::vector<json> Decode(const std::string& options = "") const {
    return orb::test::JsonLines(Ctl({"decode", out_, "--json"}, options).out);
  }

  const orb::test::TempDir temp_;
  std::string out_;
  int runs_ = 0;
};

TEST_F(SimTest, FaultsCostWhatTheyCostOnADevice) {
  struct Case {
    const char* faults;
    uint64_t refused, stored, lost, queue_max;
    const char* cause;  // Of all losses; nothing for none.
    const char* logged;
  };
  const Case kCases[] = {
      {"", 0, 20, 0, 1, "", ""},
      {"hal-dead@5s..10s", 0, 15, 5, 1, "hal", "could not initialize orbsyshal handle"},
      {"hal-wrong@5s..10s", 0, 15, 5, 1, "hal", "request_read() failed"},
      // From 5 s on one upload takes as long as two and a half samples.
      {"hal-slow=2500ms@5s", 0, 20, 0, 10, "", ""},
      // The client tries again after five seconds.
      {"manager-dead@5s..8s", 5, 15, 0, 1, "", "registers again"},
      // The file that is open at 5 s has room left in its block; the next has none.
      {"enospc@5s..10s", 0, 16, 4, 1, "short_write", "error writing to file"},
      {"hal-dead@5s..10s,manager-dead@12s,hal-slow=200ms", 8, 7, 5, 1, "hal",
       "MGR registration failed"},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.faults);
    const json report = Report(
        Sim(kBlobs, BlobLoad(), *c.faults == '\0' ? "" : std::string("--fault ") + c.faults));
    const json& owner = report["owners"][0];
    EXPECT_EQ(report["samples"]["logged"], 20);
    EXPECT_EQ(report["samples"]["refused"], c.refused);
    EXPECT_EQ(report["uploads"]["stored"], c.stored);
    EXPECT_EQ(report["queue_max"], c.queue_max);
    EXPECT_EQ(owner["uploads"], c.stored);
    EXPECT_EQ(owner["samples"]["lost"], c.lost);
    EXPECT_EQ(owner["records"]["lost"], c.lost);
    const json& losses = owner["losses"];  // By the library's own account.
    ASSERT_EQ(losses.size(), c.lost == 0 ? 0u : 1u) << losses;
    if (c.lost > 0) {
      EXPECT_EQ(losses[0]["cause"], c.cause);
      EXPECT_EQ(losses[0]["samples"], c.lost);
    }
    EXPECT_THAT(report["log"].dump(), HasSubstr(c.logged));
    EXPECT_EQ(Decode().size(), c.stored);
  }
}

// Logging waits while the session of a lost manager is being sent, so the time
// must go on without the load.
TEST_F(SimTest, ASlowHalDoesNotStopTheTime) {
  const json report =
      Report(Sim(kBlobs, BlobLoad(), "--fault hal-slow=30s@3s --fault manager-dead@5s"));
  EXPECT_EQ(report["owners"][0]["samples"]["lost"], 0);
  EXPECT_EQ(report["uploads"]["stored"], report["samples"]["accepted"]);
}

TEST_F(SimTest, WindowsCloseByTheTimeOfTheLoad) {
  std::string load = "# a comment\ntime,kpi,value\r\n\n";
  for (int i = 0; i < 40; ++i) {
    load += std::to_string(i * 3 / 10) + "." + std::to_string(i * 3 % 10) + ",0x7,10*5\n";
  }
  const char kCounter[] = R"(
    threshold_size: 4096
    kpi_cfgs { kpi_id: 7 type: KPI_NUMERIC sub_type: COUNTER c_cfg {} time_window: 1000 })";
  for (const char* options : {"--lic 9", "--lic 9 --slots 4x256"}) {
    SCOPED_TRACE(options);
    const json report = Report(Sim(kCounter, load, options));
    EXPECT_EQ(report["samples"]["accepted"], 200);
    EXPECT_EQ(report["owners"][0]["samples"]["decoded"], 200);
    const std::vector<json> records = Decode();
    ASSERT_EQ(records.size(), 10u);
    EXPECT_EQ(records[0]["ts_start"], 1000000);
    for (const json& record : records) {
      EXPECT_EQ(record["num_samples"], 20);  // Four times, 0.3 s apart.
      EXPECT_EQ(record["count"], 200);
      EXPECT_EQ(record["ts_end"].get<int64_t>() - record["ts_start"].get<int64_t>(), 9);
    }
  }
}

// Two windows are written; the third adds up to 3,037,000,500, whose square is too
// large once the window closes.
TEST_F(SimTest, OverflowIsAFinding) {
  const char kGauge[] = R"(
    threshold_size: 4096
    kpi_cfgs { kpi_id: 7 type: KPI_NUMERIC sub_type: GAUGE sample_window: 10
               g_cfg { report_stdev: true } }
    lic_sn_kpi_maps { lic_sn: 42 kpi_ids: 7 })";
  const std::string load = "time,kpi,value\n0,7,5*10\n1,7,6*10\n2,7,303700050*10\n";
  const struct {
    std::string load;
    const char* options;
    json overflow;
  } kCases[] = {
      {load + "3,7,-1\n4,7,1\n",
       "",
       {{"kpis", {7}}, {"at_s", 3.0}, {"line", 5}, {"value", -1}, {"sample", 31}}},
      {load + "3,7,-1\n4,7,1\n",
       "--slots 4x256",
       {{"kpis", {7}}, {"at_s", 3.0}, {"line", 5}, {"value", -1}, {"sample", 31}}},
      {load, "", {{"kpis", {7}}, {"at_s", {}}, {"line", {}}, {"value", {}}, {"sample", {}}}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.load + c.options);
    const CommandResult result = Sim(kGauge, c.load, c.options);
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_THAT(result.err, HasSubstr("KPI 7"));
    const json report = json::parse(result.out, nullptr, false);
    EXPECT_EQ(report["overflow"], c.overflow);
    EXPECT_EQ(report["samples"]["accepted"], 30);
    // What was written until then is there, and the log to its last line.
    const std::string log = orb::test::ReadFileOrEmpty(out_ + "/library.log");
    EXPECT_THAT(log, HasSubstr("MGR registration succeeded"));
    EXPECT_EQ(log.back(), '\n');
    if (*c.options != '\0') continue;  // The slot that is open goes with the client.
    const auto records = orb::test::JsonLines(
        Ctl({"decode", "--salvage", "--json", out_ + "/data/client-42.tmp"}, "").out);
    EXPECT_EQ(std::count_if(records.begin(), records.end(),
                            [](const json& line) { return line.contains("kpi_id"); }),
              2);
  }
  const CommandResult lost = Sim(kGauge, load + "9,7,1\n", "--fault manager-dead@5s");
  EXPECT_EQ(lost.exit_code, 1);
  EXPECT_THAT(lost.err, HasSubstr("when the lost manager's session ends"));
  EXPECT_TRUE(Report(Sim(kGauge, "time,kpi,value\n0,7,303700049*10\n"))["overflow"].is_null());
}

TEST_F(SimTest, SealsForTheOwnerOfAKey) {
  ASSERT_EQ(Ctl({"key", "new", Path("key")}, "").exit_code, 0);
  std::string sealed = kBlobs;
  sealed.replace(sealed.find("lic_sn: 42"), 10, "lic_sn: 42 encrypt: true");
  const std::string lic = "--lic 42:" + Path("key/public.pem") + ":gcm";
  const json shut = Report(Sim(sealed, BlobLoad(), lic))["owners"][0];
  EXPECT_EQ(shut["sealed"], 20);
  EXPECT_TRUE(shut["samples"]["lost"].is_null());
  const std::string key = " --key " + Path("key/private.pem");
  EXPECT_EQ(Decode(key).size(), 20u);
  const json open = Report(Sim(sealed, BlobLoad(), lic + key + " --fault hal-dead@15s"));
  EXPECT_EQ(open["owners"][0]["samples"]["lost"], 5);
}

TEST_F(SimTest, RefusesBeforeAnythingRuns) {
  const std::string kHeader = "time,kpi,value\n";
  struct Case {
    std::string load;
    const char* options;
    int code;
    const char* told;
  };
  const Case kCases[] = {
      {"0,1,2\n", "", 1, "load.csv:1: the first line must be time,kpi,value"},
      {kHeader, "", 1, "load.csv: no line to log"},
      {kHeader + "0,1,2\n\n0.5,1\n", "", 1, "load.csv:4: write time,kpi,value"},
      {kHeader + "1,1,2\n0.5,1,2\n", "", 1, "load.csv:3: time goes back"},
      {kHeader + "0.0000000001,1,2\n", "", 1, "load.csv:2: time is seconds"},
      {kHeader + "0,x,2\n", "", 1, "load.csv:2: kpi is a number"},
      {kHeader + "0,1,4294967296\n", "", 1, "load.csv:2: value is"},
      {kHeader + "0,1,-2147483649\n", "", 1, "load.csv:2: value is"},
      {kHeader + "0,1,hex:0a0\n", "", 1, "load.csv:2: hex: takes pairs"},
      {kHeader + "0,1,5*0\n", "", 1, "load.csv:2: value is"},
      {BlobLoad(), "--fault hal-late@3s", 2, "the faults are"},
      {BlobLoad(), "--fault hal-slow@3s", 2, "say how slow"},
      {BlobLoad(), "--fault hal-dead@5s..4s", 2, "FROM before TO"},
      {BlobLoad(), "--fault enospc@2s,enospc@4s", 2, "overlap"},
      {BlobLoad(), "--fault enospc@20s", 1, "the load ends before that"},
      {BlobLoad(), "--speed 0", 2, "--speed 0"},
      {BlobLoad(), "--slots 65x100", 2, "--slots 65x100"},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.told);
    const CommandResult result = Sim(kBlobs, c.load, c.options);
    EXPECT_EQ(result.exit_code, c.code);
    EXPECT_THAT(result.err, HasSubstr(c.told));
    EXPECT_FALSE(std::filesystem::exists(out_));
  }
  EXPECT_THAT(Sim("threshold_size: 100", BlobLoad()).err, HasSubstr("has no owner"));
  EXPECT_FALSE(std::filesystem::exists(out_));
  const CommandResult refused = Sim("threshold_size: 12", BlobLoad(), "--lic 42");
  EXPECT_EQ(refused.exit_code, 1);
  EXPECT_THAT(refused.err, HasSubstr("threshold_size: 12 bytes are below 100"));
  EXPECT_TRUE(std::filesystem::is_empty(out_));
  --runs_;  // The same folder again.
  ASSERT_TRUE(WriteFile(out_ + "/mine", ""));
  EXPECT_THAT(Sim(kBlobs, BlobLoad()).err, HasSubstr("is not empty"));
}

// The library's lite code and the tool's full code share the full runtime.
TEST_F(SimTest, OneProtobufRuntimeIsLoaded) {
  EXPECT_THAT(RunCommand({"ldd", ORB_CTL}).out, Not(HasSubstr("libprotobuf-lite")));
}

}  // namespace
}  // namespace orb::orbctl
