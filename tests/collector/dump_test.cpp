// The books: every sample is somewhere, and a lost one is lost for a reason.
#include <atomic>
#include <filesystem>
#include <future>

#include "tests/collector/collector_fixture.h"
#include "tests/support/dump_lines.h"
#include "tests/support/file_size_limit.h"
#include "tests/support/slot_hal.h"

namespace {

std::atomic<bool> no_memory;
// The next malloc gives the segment another length, as a thread of the host could.
std::atomic<kiv_blob_segment_t*> changed_segment;
std::atomic<uint32_t> changed_len;

void ChangeOnMalloc(kiv_blob_segment_t* segment, uint32_t len) {
  changed_len = len;
  changed_segment = segment;
}

}  // namespace

// The linker gives these names to what the library, which is linked statically, calls malloc.
extern "C" void* __real_malloc(size_t bytes);
extern "C" void* __wrap_malloc(size_t bytes) {
  if (kiv_blob_segment_t* const segment = changed_segment.exchange(nullptr)) {
    segment->len = changed_len;
  }
  return no_memory ? nullptr : __real_malloc(bytes);
}

namespace orb::test {
namespace {

constexpr uint32_t kCounter = 1;
constexpr uint32_t kBlob = 2;
constexpr uint32_t kGauge = 3;
constexpr uint32_t kState = 4;
constexpr uint32_t kUnlisted = 5;  // A counter of all owners.
constexpr size_t kPrefixBytes = 66 + 2;

bool refuse_start;

int OnStart(kiv_collector*, const uint8_t*, uint32_t) { return refuse_start ? -5 : 0; }

class DumpTest : public CollectorFixture {
 protected:
  DumpTest() {
    refuse_start = false;
    cfg_.start_session_cb = OnStart;
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
  void StartFiles(const std::vector<uint64_t>& owners = {42},
                  const std::vector<LicInfo>& keys = {MakeLicInfo(42)}, bool encrypt = false) {
    MakeRegistered();
    EXPECT_EQ(Start(owners, keys, encrypt), refuse_start ? -5 : 0);
  }
  void StartSlots(uint32_t slots, int completions_inside = 1) {
    client_ = hal_ = std::make_shared<SlotHal>(completions_inside);
    cfg_.hbt = 1;
    cfg_.allocate_fd = 1;
    cfg_.fd_nof_slots = slots;
    cfg_.fd_slot_size = 60;  // Three records, of 16 to 20 bytes by the time since boot, never four.
    MakeRegistered();
    hal_->Serve(collector_.get());
    EXPECT_EQ(Start({42}, {MakeLicInfo(42)}), refuse_start ? -5 : 0);
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

  // Ends the session: owner 42, or the one that `cause` names, lost so many samples, and so
  // many of owner 42 arrived.
  void ExpectLost(const std::string& cause, uint64_t samples, uint64_t sent = 0) {
    collector_->StopSession();
    const DumpLines dump = Dump();
    const std::string key = cause.starts_with("owner.") ? cause : "owner.42.lost" + cause;
    EXPECT_EQ(dump.Number(key, "samples"), samples) << collector_->Dump();
    EXPECT_EQ(dump.Number("owner.42.sent", "samples"), sent) << collector_->Dump();
    ExpectBalance(dump);
  }

  std::shared_ptr<SlotHal> hal_;
};

TEST_F(DumpTest, NothingIsLostOfAQuietSession) {
  StartFiles();
  LogCounter(5);
  ExpectLost("", 0, 5);
}

TEST_F(DumpTest, ABlobAboveTheLimitIsOversize) {
  StartFiles();
  EXPECT_EQ(LogBlob(200), -1);
  ExpectLost(".oversize", 1);
}

TEST_F(DumpTest, FilesTakeNoScatteredBlob) {
  StartFiles();
  const kiv_blob_segment_t segment{Bytes("abc"), 3};
  EXPECT_EQ(collector_->Log(kBlob, &segment, 1), -1);
  ExpectError("WriteBlobSegsOptimized not supported in KPIFileSerializer");
  ExpectLost(".encode", 1);
}

TEST_F(DumpTest, AnOpenGaugeWindowMakesNoRecord) {
  StartFiles();
  LogCounter(3, kGauge);
  ExpectLost(".no_record", 1, 2);
}

TEST_F(DumpTest, AStateMakesNoRecord) {
  StartFiles();
  EXPECT_EQ(collector_->LogState(kState, 1, 2), 0);
  ExpectLost(".no_record", 1);
}

TEST_F(DumpTest, TheHalRefusesAnUpload) {
  StartFiles();
  client_->Fail("sendData", 1, 1);
  LogAndWrite(3);
  collector_->Flush();
  ExpectLost(".hal", 2, 1);
}

TEST_F(DumpTest, ThereIsNoMemoryToCompressIn) {
  StartFiles();
  LogAndWrite(3);
  no_memory = true;
  collector_->Flush();
  LogAndWrite(0);
  no_memory = false;
  EXPECT_TRUE(log_.Contains("orb_data_compress: failed to allocate dst_buf with size "));
  ExpectError("SendData: compress failed");
  ExpectLost(".compress", 2, 1);
}

TEST_F(DumpTest, AnOwnerIsStopped) {
  StartFiles();
  LogAndWrite(3);
  collector_->StopSessionForLicSN(42);
  LogCounter(1, kUnlisted);
  ExpectLost(".stopped", 2, 2);
}

TEST_F(DumpTest, ADataFileIsGone) {
  StartFiles();
  LogAndWrite(3);
  std::filesystem::remove(data_dir_ + "/radio-42.tmp");
  ExpectLost(".unreadable", 3);
}

// What an owner is given decides before anything is logged.
TEST_F(DumpTest, OwnersLackFilesAndKeys) {
  const struct {
    const char* lost;
    std::vector<uint64_t> owners;
    std::vector<LicInfo> keys;
    bool encrypt;
    uint64_t sent;
  } cases[] = {{"owner.77.lost.no_file", {42, 77}, {MakeLicInfo(42)}, false, 4},
               {"owner.0.lost.no_owner", {}, {}, false, 0},
               {".no_key", {42}, {MakeLicInfo(42)}, true, 0},
               {".encrypt", {42}, {MakeLicInfo(42, "no PEM", 1, 2)}, true, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.lost);
    StartFiles(c.owners, c.keys, c.encrypt);
    LogCounter(4);
    ExpectLost(c.lost, 4, c.sent);
  }
}

TEST_F(DumpTest, ARefusedSessionIsDropped) {
  refuse_start = true;
  StartFiles();
  LogCounter(5);
  refuse_start = false;
  EXPECT_EQ(Start({42}, {MakeLicInfo(42)}), 0);
  ExpectLost(".dropped", 1, 4);
}

// The two ways of encoding a scattered blob.
class SegmentLossTest : public DumpTest, public testing::WithParamInterface<const char*> {
 protected:
  SegmentLossTest() {
    WriteConf(GetParam());
    StartSlots(4);
  }
  int LogSegment(kiv_blob_segment_t segment) { return collector_->Log(kBlob, &segment, 1); }
};
INSTANTIATE_TEST_SUITE_P(Encoders, SegmentLossTest,
                         testing::Values("blob_segments_optimized=1\n",
                                         "blob_segments_optimized=2\n"));

TEST_P(SegmentLossTest, ThereIsNoMemoryToEncodeIn) {
  no_memory = true;
  const int result = LogSegment({Bytes("abc"), 3});
  no_memory = false;
  EXPECT_EQ(result, -1);
  ExpectError(GetParam()[sizeof "blob_segments_optimized"] == '1'
                  ? "KPIMemorySerializer::WriteBlobSegsOptimized: malloc failed "
                  : "Failed to allocate buf");
  ExpectLost(".memory", 1);
}

TEST_P(SegmentLossTest, ASegmentHasNoBytes) {
  EXPECT_EQ(LogSegment({nullptr, 3}), -1);
  ExpectLost(".encode", 1);
}

// After the lengths were added up, and before they are copied.
TEST_P(SegmentLossTest, AnotherThreadChangesALength) {
  const std::string bytes(4096, 'x');
  kiv_blob_segment_t segment{Bytes(bytes), 30};
  ChangeOnMalloc(&segment, 10);
  EXPECT_EQ(collector_->Log(kBlob, &segment, 1), 0);
  ChangeOnMalloc(&segment, 4096);
  EXPECT_EQ(collector_->Log(kBlob, &segment, 1), -1);
  const std::string sent = std::string("\x0a\0\0", 4) + bytes.substr(0, 10);
  collector_->Flush();
  EXPECT_NE(hal_->AllBytes().find(sent), std::string::npos);
  EXPECT_LE(hal_->AllBytes().size(), sent.size() + 30) << "no byte that was not given";
  ExpectLost("", 1, 1);
}

TEST_F(DumpTest, NothingIsLostInSlots) {
  StartSlots(4);
  LogCounter(40);
  ExpectLost("", 0, 40);
}

TEST_F(DumpTest, TheHalRefusesASlot) {
  StartSlots(4);
  client_->Fail("FdWrite", 1, 1);
  LogCounter(3);
  collector_->Flush();
  ExpectLost(".slot_refused", 2, 1);
}

TEST_F(DumpTest, ABlobIsLargerThanASlot) {
  StartSlots(1);
  EXPECT_EQ(LogBlob(90), -1);
  ExpectLost(".oversize", 1);
}

TEST_F(DumpTest, TheHalKeepsTheOnlySlot) {
  StartSlots(1, 0);
  LogCounter(3);
  collector_->Flush();
  EXPECT_EQ(Dump().Number("owner.42.under_way", "samples"), 2u);
  EXPECT_EQ(Dump().Number("queue", "depth"), 1u);
  LogCounter(4);
  hal_->Complete(0);
  EXPECT_EQ(Dump().Number("queue", "depth_max"), 1u);
  // The end of the session fills the slot again and waits for it.
  auto stopped = std::async(std::launch::async, [this] { return collector_->StopSession(); });
  ASSERT_TRUE(WaitFor([&] { return hal_->Slots().size() == 2; }));
  hal_->Complete(1);
  EXPECT_EQ(stopped.get(), 0);
  ExpectLost(".no_slot", 4, 3);
}

TEST_F(DumpTest, ARefusedSessionDoesNotWaitForItsSlots) {
  refuse_start = true;
  StartSlots(4, 0);
  LogCounter(9);  // Three records fill a slot: the fourth announces it.
  EXPECT_EQ(Dump().Number("owner.42.under_way", "samples"), 6u);
  EXPECT_EQ(Dump().Number("owner.42.open", "samples"), 2u) << "the slot that is being filled";
  refuse_start = false;
  EXPECT_EQ(Start({42}, {MakeLicInfo(42)}), 0);
  EXPECT_EQ(Dump().Number("owner.42.lost.dropped", "samples"), 3u);
  ExpectLost(".unconfirmed", 6);
}

// A record in part, and what follows it until the file is sent. A record of which no byte
// was written does not affect later ones.
TEST_F(DumpTest, AFullDiskLosesWhatNoReaderFinds) {
  StartFiles();
  LogAndWrite(3);
  for (const size_t room : {0, 8}) {
    {
      const FileSizeLimit full(std::filesystem::file_size(data_dir_ + "/radio-42.tmp") + room);
      LogAndWrite(2);
    }
    LogAndWrite(2);
  }
  DumpLines dump = Dump();
  EXPECT_EQ(dump.Number("owner.42.lost.short_write", "samples"), 4u);
  EXPECT_EQ(dump.Number("owner.42.lost.torn", "samples"), 2u);
  EXPECT_EQ(dump.Number("owner.42.open", "samples"), 4u);
  collector_->Flush();
  LogAndWrite(0);
  EXPECT_EQ(collector_->StopSession(), 0);
  dump = Dump();
  EXPECT_EQ(dump.Number("owner.42.sent", "samples"), 5u) << "the new file is whole again";
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
  static std::promise<void> entered;
  static std::promise<void> leave;
  cfg_.stop_session_cb = [](kiv_collector*) {
    entered.set_value();
    leave.get_future().wait();
    return 0;
  };
  StartFiles();
  auto stopped = std::async(std::launch::async, [this] { return collector_->StopSession(); });
  entered.get_future().wait();
  EXPECT_EQ(Dump().Value("session.state"), "busy");
  leave.set_value();
  EXPECT_EQ(stopped.get(), 0);
}

}  // namespace
}  // namespace orb::test
