// The books: every sample is somewhere, and a lost one is lost for a reason.
#include <signal.h>

#include <filesystem>
#include <functional>
#include <future>

#include "tests/collector/collector_fixture.h"
#include "tests/serializer/slot_hal.h"
#include "tests/support/dump_lines.h"
#include "tests/support/file_size_limit.h"

namespace orb::test {
namespace {

constexpr uint32_t kCounter = 1;
constexpr uint32_t kBlob = 2;
constexpr uint32_t kGauge = 3;
constexpr uint32_t kState = 4;
constexpr uint32_t kUnlisted = 5;  // A counter of all owners.
constexpr size_t kPrefixBytes = 66 + 2;
constexpr uint32_t kRecordBytes = 14;  // A small counter's, at least.

bool refuse_start;

int OnStart(kiv_collector*, const uint8_t*, uint32_t) { return refuse_start ? -5 : 0; }

class DumpTest : public CollectorFixture {
 protected:
  DumpTest() {
    refuse_start = false;
    cfg_.start_session_cb = OnStart;
  }
  void UseSlots(uint32_t slots, uint32_t slot_bytes, int completions_inside = 1) {
    hal_ = std::make_shared<SlotHal>(completions_inside);
    client_ = hal_;
    cfg_.hbt = 1;
    cfg_.allocate_fd = 1;
    cfg_.fd_nof_slots = slots;
    cfg_.fd_slot_size = slot_bytes;
  }
  // Windows of two samples for the listed owners; keys for `keys`.
  int Start(const std::vector<uint64_t>& owners, std::vector<LicInfo> keys, bool encrypt = false) {
    LTCCampaignDef def =
        MakeCampaign({MakeKpi(kCounter, KPI_NUMERIC, COUNTER), MakeKpi(kBlob, KPI_BLOB),
                      MakeKpi(kGauge, KPI_NUMERIC, GAUGE), MakeKpi(kState, KPI_STATE),
                      MakeKpi(kUnlisted, KPI_NUMERIC, COUNTER)});
    for (KPICfg& kpi : *def.mutable_kpi_cfgs()) kpi.set_sample_window(2);
    for (const uint64_t owner : owners) AddLicSn(&def, owner, encrypt, {1, 2, 3, 4});
    return collector_->StartSession(MakeConfig(def, std::move(keys)));
  }
  void StartFiles() {
    MakeRegistered();
    ASSERT_EQ(Start({42}, {MakeLicInfo(42)}), 0);
  }
  void LogCounter(int samples, uint32_t kpi = kCounter) {
    for (int i = 0; i < samples; ++i) EXPECT_EQ(collector_->Log(kpi, 1u), 0);
  }
  int LogBlob(size_t bytes) {
    const std::vector<uint8_t> blob(bytes, 'x');
    return collector_->Log(kBlob, blob.data(), static_cast<uint32_t>(bytes));
  }
  DumpLines Dump() { return DumpLines(collector_->Dump()); }
  bool WaitForWriter() {
    return WaitFor([&] { return Dump().Number("queue", "depth") == 0; });
  }
  // Whatever happened, nothing has vanished.
  void ExpectBalance(const DumpLines& dump) {
    for (const std::string& owner : dump.Owners()) {
      EXPECT_EQ(dump.AccountedFor(owner), dump.Number(owner, "samples")) << owner;
    }
  }

  std::shared_ptr<SlotHal> hal_;
};

// What a case leaves in the books once the session is over.
struct LossCase {
  const char* name;
  std::function<void(DumpTest*)> run;  // From registration to the end of the session.
  const char* key;
  uint64_t samples;
  uint64_t sent = 0;  // Of owner 42.
};

class LossTest : public DumpTest {
 protected:
  void Check(const std::vector<LossCase>& cases) {
    for (const LossCase& c : cases) {
      SCOPED_TRACE(c.name);
      Destroy();
      client_ = std::make_shared<FakeAidlClient>();
      std::filesystem::remove_all(data_dir_);
      std::filesystem::create_directory(data_dir_);
      c.run(this);
      collector_->StopSession();
      const DumpLines dump = Dump();
      EXPECT_EQ(dump.Number(c.key, "samples"), c.samples) << collector_->Dump();
      EXPECT_EQ(dump.Number("owner.42.sent", "samples"), c.sent) << collector_->Dump();
      ExpectBalance(dump);
    }
  }
};

TEST_F(LossTest, OfFilesAreCountedByCause) {
  const auto with = [this](std::function<void()> body) {
    return [this, body](DumpTest*) {
      StartFiles();
      body();
    };
  };
  const kiv_blob_segment_t segment{reinterpret_cast<const uint8_t*>("abc"), 3};
  Check({
      {"nothing lost", with([&] { LogCounter(5); }), "owner.42.lost", 0, 5},
      {"blob too long", with([&] { EXPECT_EQ(LogBlob(200), -1); }), "owner.42.lost.oversize", 1},
      {"scattered blob", with([&] { EXPECT_EQ(collector_->Log(kBlob, &segment, 1), -1); }),
       "owner.42.lost.encode", 1},
      {"gauge of one sample", with([&] { LogCounter(3, kGauge); }), "owner.42.lost.no_record", 1,
       2},
      {"states", with([&] { EXPECT_EQ(collector_->LogState(kState, 1, 2), 0); }),
       "owner.42.lost.no_record", 1},
      {"HAL refuses one of two", with([&] {
         client_->Fail("sendData", 1, 1);
         LogCounter(3);
         ASSERT_TRUE(WaitForWriter());
         collector_->Flush();
       }),
       "owner.42.lost.hal", 2, 1},
      {"owner stopped", with([&] {
         LogCounter(3);
         ASSERT_TRUE(WaitForWriter());
         collector_->StopSessionForLicSN(42);
         LogCounter(1, kUnlisted);
       }),
       "owner.42.lost.stopped", 2, 2},
      {"file removed under it", with([&] {
         LogCounter(3);
         ASSERT_TRUE(WaitForWriter());
         std::filesystem::remove(data_dir_ + "/radio-42.tmp");
       }),
       "owner.42.lost.unreadable", 3},
      {"an owner without a file",
       [this](DumpTest*) {
         MakeRegistered();
         ASSERT_EQ(Start({42, 77}, {MakeLicInfo(42)}), 0);
         LogCounter(4);
       },
       "owner.77.lost.no_file", 4, 4},
      {"no owner at all",
       [this](DumpTest*) {
         MakeRegistered();
         ASSERT_EQ(Start({}, {}), 0);
         LogCounter(4);
       },
       "owner.0.lost.no_owner", 4},
      {"no key",
       [this](DumpTest*) {
         MakeRegistered();
         ASSERT_EQ(Start({42}, {MakeLicInfo(42)}, true), 0);
         LogCounter(4);
       },
       "owner.42.lost.no_key", 4},
      {"an unusable key",
       [this](DumpTest*) {
         MakeRegistered();
         ASSERT_EQ(Start({42}, {MakeLicInfo(42, "no PEM", 1, 2)}, true), 0);
         LogCounter(4);
       },
       "owner.42.lost.encrypt", 4},
      {"a start that was refused",
       [this](DumpTest*) {
         MakeRegistered();
         refuse_start = true;
         EXPECT_EQ(Start({42}, {MakeLicInfo(42)}), -5);
         LogCounter(5);
         refuse_start = false;
         ASSERT_EQ(Start({42}, {MakeLicInfo(42)}), 0);
       },
       "owner.42.lost.dropped", 1, 4},
  });
}

// A record in part, and what comes behind it until the file is sent.
TEST_F(DumpTest, AFullDiskLosesWhatNoReaderFinds) {
  StartFiles();
  LogCounter(3);
  ASSERT_TRUE(WaitForWriter());
  {
    const FileSizeLimit full(kPrefixBytes + kRecordBytes + 8);
    LogCounter(2);
    ASSERT_TRUE(WaitForWriter());
  }
  LogCounter(2);
  ASSERT_TRUE(WaitForWriter());
  DumpLines dump = Dump();
  EXPECT_EQ(dump.Number("owner.42.lost.short_write", "samples"), 2u);
  EXPECT_EQ(dump.Number("owner.42.lost.torn", "samples"), 2u);
  EXPECT_EQ(dump.Number("owner.42.open", "samples"), 2u);
  collector_->Flush();
  ASSERT_TRUE(WaitForWriter());
  EXPECT_EQ(collector_->StopSession(), 0);
  dump = Dump();
  EXPECT_EQ(dump.Number("owner.42.sent", "samples"), 3u) << "the new file is whole again";
  ExpectBalance(dump);
}

TEST_F(DumpTest, FilesOfAnEarlierProcessAreNobodysSamples) {
  for (const bool arrives : {true, false}) {
    SCOPED_TRACE(arrives);
    Destroy();
    client_ = std::make_shared<FakeAidlClient>();
    if (!arrives) client_->Fail("sendData", 1, 1);
    ASSERT_TRUE(WriteFile(data_dir_ + "radio-42.tmp", std::string(kPrefixBytes + 32, 'r')));
    StartFiles();
    const DumpLines dump = Dump();
    EXPECT_EQ(dump.Number("recovered.sent", "bytes"), arrives ? 34u : 0u);
    EXPECT_EQ(dump.Number("recovered.lost.hal", "events"), arrives ? 0u : 1u);
    ExpectBalance(dump);
  }
}

TEST_F(LossTest, OfSlotsAreCountedByCause) {
  const auto start = [this](uint32_t slots, int completions_inside = 1) {
    UseSlots(slots, 64, completions_inside);
    MakeRegistered();
    hal_->Serve(collector_.get());
    return Start({42}, {MakeLicInfo(42)});
  };
  const kiv_blob_segment_t without_bytes{nullptr, 3};
  Check({
      {"nothing lost",
       [&](DumpTest*) {
         ASSERT_EQ(start(4), 0);
         LogCounter(40);
       },
       "owner.42.lost", 0, 40},
      {"the HAL refuses a slot",
       [&](DumpTest*) {
         ASSERT_EQ(start(4), 0);
         client_->Fail("FdWrite", 1, 1);
         LogCounter(3);
         collector_->Flush();
       },
       "owner.42.lost.slot_refused", 2, 1},
      {"all slots with the HAL",
       [&](DumpTest*) {
         ASSERT_EQ(start(1, 0), 0);
         LogCounter(3);
         collector_->Flush();
         EXPECT_EQ(Dump().Number("owner.42.under_way", "samples"), 2u);
         EXPECT_EQ(Dump().Number("queue", "depth"), 1u);
         LogCounter(4);
         hal_->Complete(0);
         EXPECT_EQ(Dump().Number("queue", "depth_max"), 1u);
         // The end of the session fills the slot again and waits for it.
         std::future<int> stopped =
             std::async(std::launch::async, [this] { return collector_->StopSession(); });
         ASSERT_TRUE(WaitFor([&] { return hal_->Slots().size() == 2; }));
         hal_->Complete(1);
         EXPECT_EQ(stopped.get(), 0);
       },
       "owner.42.lost.no_slot", 4, 3},
      {"a record beyond the region",
       [&](DumpTest*) {
         ASSERT_EQ(start(1), 0);
         EXPECT_EQ(LogBlob(90), -1);
       },
       "owner.42.lost.oversize", 1},
      {"segments that cannot be encoded",
       [&](DumpTest*) {
         ASSERT_EQ(start(4), 0);
         EXPECT_EQ(collector_->Log(kBlob, &without_bytes, 1), -1);
       },
       "owner.42.lost.encode", 1},
      {"a start that was refused, with a slot at the HAL",
       [&](DumpTest*) {
         refuse_start = true;
         EXPECT_EQ(start(4, 0), -5);
         // Three records fill a slot: the fourth announces it.
         LogCounter(9);
         EXPECT_EQ(Dump().Number("owner.42.under_way", "samples"), 6u);
         refuse_start = false;
         EXPECT_EQ(Start({42}, {MakeLicInfo(42)}), 0);
         EXPECT_EQ(Dump().Number("owner.42.lost.dropped", "samples"), 3u);
       },
       "owner.42.lost.unconfirmed", 6},
  });
}

TEST_F(DumpTest, TellsWhatASessionIsDoing) {
  StartFiles();
  collector_->SetCampaignId(9);
  LogCounter(5);
  ASSERT_TRUE(WaitForWriter());
  const DumpLines dump = Dump();
  EXPECT_EQ(dump.Value("client.name"), "\"radio\"");
  EXPECT_EQ(dump.Value("client.id"), "7");
  EXPECT_EQ(dump.Value("client.mode"), "files");
  EXPECT_EQ(dump.Value("client.last_seqno"), "none");
  EXPECT_EQ(dump.Value("session.state"), "running");
  EXPECT_EQ(dump.Value("session.campaign"), "9");
  EXPECT_EQ(dump.Value("kpi.1"),
            "type=counter window=2 unit=samples open=1 records=2 logged=5 repeated=0 lost=0");
  EXPECT_EQ(dump.Number("samples", "logged"), 5u);
  EXPECT_GE(dump.Number("queue", "depth_max"), 1u);
  EXPECT_EQ(dump.Number("owner.42", "samples"), 5u);
  EXPECT_EQ(dump.Number("owner.42.open", "samples"), 4u);
  EXPECT_EQ(collector_->Dump().find(FakeAidlClient::kToken), std::string::npos) << "a secret";
  EXPECT_EQ(collector_->StopSession(), 0);
  EXPECT_EQ(Dump().Value("session.state"), "idle");
  EXPECT_EQ(Dump().Value("client.last_seqno"), "0");
  EXPECT_EQ(Dump().Number("samples", "logged"), 5u) << "the books outlive the session";
}

// A start or stop that hangs is when one wants to look.
TEST_F(DumpTest, DoesNotWaitForASessionThatHangs) {
  StartFiles();
  orb::MutexLock hanging(collector_->stateMutex);
  const std::string text =
      std::async(std::launch::async, [this] { return collector_->Dump(); }).get();
  EXPECT_EQ(DumpLines(text).Value("session.state"), "busy");
}

}  // namespace
}  // namespace orb::test
