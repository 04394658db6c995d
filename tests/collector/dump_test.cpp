// The books: every sample is somewhere, and a lost one is lost for a reason.
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
  // And they are in their files, if they have any.
  void LogAndWrite(int samples) {
    LogCounter(samples);
    ASSERT_TRUE(WaitFor([&] { return Dump().Number("queue", "depth") == 0; }));
  }
  int LogBlob(size_t bytes) {
    const std::vector<uint8_t> blob(bytes, 'x');
    return collector_->Log(kBlob, blob.data(), static_cast<uint32_t>(bytes));
  }
  DumpLines Dump() { return DumpLines(collector_->Dump()); }
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
  std::function<void()> run;  // From registration to the end of the session.
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
      c.run();
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
    return [this, body] {
      StartFiles();
      body();
    };
  };
  const auto four_for = [this](std::vector<uint64_t> owners, std::vector<LicInfo> keys,
                               bool encrypt = false) {
    return [=, this] {
      MakeRegistered();
      ASSERT_EQ(Start(owners, keys, encrypt), 0);
      LogCounter(4);
    };
  };
  const kiv_blob_segment_t segment{Bytes("abc"), 3};
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
         LogAndWrite(3);
         collector_->Flush();
       }),
       "owner.42.lost.hal", 2, 1},
      {"owner stopped", with([&] {
         LogAndWrite(3);
         collector_->StopSessionForLicSN(42);
         LogCounter(1, kUnlisted);
       }),
       "owner.42.lost.stopped", 2, 2},
      {"file removed under it", with([&] {
         LogAndWrite(3);
         std::filesystem::remove(data_dir_ + "/radio-42.tmp");
       }),
       "owner.42.lost.unreadable", 3},
      {"an owner without a file", four_for({42, 77}, {MakeLicInfo(42)}), "owner.77.lost.no_file", 4,
       4},
      {"no owner at all", four_for({}, {}), "owner.0.lost.no_owner", 4},
      {"no key", four_for({42}, {MakeLicInfo(42)}, true), "owner.42.lost.no_key", 4},
      {"an unusable key", four_for({42}, {MakeLicInfo(42, "no PEM", 1, 2)}, true),
       "owner.42.lost.encrypt", 4},
      {"a start that was refused",
       [&] {
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
  LogAndWrite(3);
  {
    const FileSizeLimit full(kPrefixBytes + kRecordBytes + 8);
    LogAndWrite(2);
  }
  LogAndWrite(2);
  DumpLines dump = Dump();
  EXPECT_EQ(dump.Number("owner.42.lost.short_write", "samples"), 2u);
  EXPECT_EQ(dump.Number("owner.42.lost.torn", "samples"), 2u);
  EXPECT_EQ(dump.Number("owner.42.open", "samples"), 2u);
  collector_->Flush();
  LogAndWrite(0);
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
  const auto with = [this](uint32_t slots, int completions_inside, std::function<void()> body) {
    return [=, this] {
      UseSlots(slots, 64, completions_inside);
      MakeRegistered();
      hal_->Serve(collector_.get());
      EXPECT_EQ(Start({42}, {MakeLicInfo(42)}), refuse_start ? -5 : 0);
      body();
    };
  };
  const kiv_blob_segment_t without_bytes{nullptr, 3};
  Check({
      {"nothing lost", with(4, 1, [&] { LogCounter(40); }), "owner.42.lost", 0, 40},
      {"the HAL refuses a slot",
       with(4, 1,
            [&] {
              client_->Fail("FdWrite", 1, 1);
              LogCounter(3);
              collector_->Flush();
            }),
       "owner.42.lost.slot_refused", 2, 1},
      {"all slots with the HAL",
       with(1, 0,
            [&] {
              LogCounter(3);
              collector_->Flush();
              EXPECT_EQ(Dump().Number("owner.42.under_way", "samples"), 2u);
              EXPECT_EQ(Dump().Number("queue", "depth"), 1u);
              LogCounter(4);
              hal_->Complete(0);
              EXPECT_EQ(Dump().Number("queue", "depth_max"), 1u);
              // The end of the session fills the slot again and waits.
              auto stopped =
                  std::async(std::launch::async, [this] { return collector_->StopSession(); });
              ASSERT_TRUE(WaitFor([&] { return hal_->Slots().size() == 2; }));
              hal_->Complete(1);
              EXPECT_EQ(stopped.get(), 0);
            }),
       "owner.42.lost.no_slot", 4, 3},
      {"a record beyond the region", with(1, 1, [&] { EXPECT_EQ(LogBlob(90), -1); }),
       "owner.42.lost.oversize", 1},
      {"segments that cannot be encoded",
       with(4, 1, [&] { EXPECT_EQ(collector_->Log(kBlob, &without_bytes, 1), -1); }),
       "owner.42.lost.encode", 1},
  });
  refuse_start = true;
  Check({{"a start that was refused, with a slot at the HAL",
          with(4, 0,
               [&] {
                 // Three records fill a slot: the fourth announces it.
                 LogCounter(9);
                 EXPECT_EQ(Dump().Number("owner.42.under_way", "samples"), 6u);
                 refuse_start = false;
                 EXPECT_EQ(Start({42}, {MakeLicInfo(42)}), 0);
                 EXPECT_EQ(Dump().Number("owner.42.lost.dropped", "samples"), 3u);
               }),
          "owner.42.lost.unconfirmed", 6}});
}

TEST_F(DumpTest, TellsWhatASessionIsDoing) {
  StartFiles();
  collector_->SetCampaignId(9);
  LogAndWrite(5);
  EXPECT_GE(Dump().Number("queue", "depth_max"), 1u);
  const std::string text = collector_->Dump();
  EXPECT_EQ(text.substr(0, text.find("queue:")),
            "client.name: \"radio\"\n"
            "client.id: 7\n"
            "client.api_version: 3\n"
            "client.mode: files\n"
            "client.last_seqno: none\n"
            "session.state: running\n"
            "session.campaign: 9\n"
            "session.format: campaign\n");
  EXPECT_NE(text.find("samples: logged=5 repeated=0\n"
                      "kpi.1: type=counter window=2 unit=samples open=1 records=2 logged=5 "
                      "repeated=0 lost=0\n"),
            std::string::npos);
  EXPECT_NE(text.find("owner.42: samples=5\n"
                      "owner.42.open: records=2 samples=4 "),
            std::string::npos);
  EXPECT_EQ(text.find(FakeAidlClient::kToken), std::string::npos) << "a secret";
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
