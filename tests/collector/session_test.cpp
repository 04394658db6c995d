#include <future>

#include "proto/kpi_data.pb.h"
#include "tests/collector/collector_fixture.h"
#include "tests/collector/gunzip.h"

namespace orb::test {
namespace {

int start_result;
std::string start_payload;
int stop_calls;

int OnStart(kiv_collector* c, const uint8_t* payload, uint32_t len) {
  start_payload.assign(reinterpret_cast<const char*>(payload), len);
  // These must work although the collector is in the middle of its start.
  EXPECT_EQ(kiv_set_cfg(c, KIV_PARAM_SIZE_THRESHOLD, 5000), 0);
  EXPECT_EQ(kiv_flush(c), 0);
  uint64_t campaign = 0;
  EXPECT_EQ(kiv_get_campaign_id(c, &campaign), 0);
  if (kiv_fd_handle_s* region = kiv_set_fd(c, 1, 0, 64, nullptr)) {
    EXPECT_EQ(kiv_log_fd_buf(region, 0, 0, 1), 0);
    EXPECT_EQ(kiv_unset_fd(region), 0);
    free(region);
  }
  return start_result;
}

int OnStop(kiv_collector* c) {
  ++stop_calls;
  EXPECT_EQ(kiv_flush(c), 0);
  return 11;
}

class SessionTest : public CollectorFixture {
 protected:
  SessionTest() {
    start_result = 0;
    start_payload = "untouched";
    stop_calls = 0;
    cfg_.start_session_cb = OnStart;
    cfg_.stop_session_cb = OnStop;
  }
  void UseSlots(uint32_t slot_bytes, uint32_t slots) {
    cfg_.hbt = 1;
    cfg_.allocate_fd = 1;
    cfg_.fd_slot_size = slot_bytes;
    cfg_.fd_nof_slots = slots;
  }
  // A start that must be answered this way, leaving the collector idle unless 0.
  void ExpectStart(const KIVCampConfig& config, int want) {
    EXPECT_EQ(collector_->StartSession(config), want);
    EXPECT_EQ(collector_->StopSession(), want == 0 ? 11 : -1);
  }
};

TEST_F(SessionTest, RunsFromStartToStopUntilDeRegistered) {
  MakeRegistered();
  LTCCampaignDef def = MakeCampaign({MakeKpi(1, KPI_NUMERIC, COUNTER)});
  def.set_campaign_info(std::string("in\0fo", 5));
  AddLicSn(&def, 42, false, {1});
  const KIVCampConfig config = MakeConfig(def, {MakeLicInfo(42, "PEM", 1, 2)});
  ASSERT_EQ(collector_->StartSession(config), 0);
  EXPECT_EQ(start_payload, std::string("in\0fo", 5));
  ExpectInfo("radio: StartSession called for token - token-1");
  ExpectInfo("radio: Recvd Thresholds Size: 4096 Time: 60");
  EXPECT_TRUE(log_.Contains("radio: Recvd KPICfg "));
  ExpectInfo(
      "generateLicSn2IsvKeyMap: licSN: 42, encryptionPKey:PEM, pKeyEncAlgo:1, sKeyEncAlgo:2");
  EXPECT_EQ(collector_->IsKPIEnabled(1), 1);

  EXPECT_EQ(collector_->StartSession(config), -1);
  ExpectError(
      "StartSession: radio: StartSession received when an existing session is already active - "
      "ignored");
  EXPECT_EQ(collector_->Log(1, 5u), 0) << "the running session goes on";
  EXPECT_EQ(collector_->StopSession(), 11);
  ExpectInfo("radio: StopSessionLocked called for token - token-1");
  EXPECT_EQ(collector_->IsKPIEnabled(1), 0);
  ASSERT_EQ(client_->Uploads().size(), 1u) << "the open window is written and sent";
  EXPECT_EQ(client_->Uploads()[0].name, "/up/7/radio.42");

  EXPECT_EQ(collector_->StopSession(), -1);
  ExpectError(
      "StopSessionLocked: radio: StopSession received when session is not active - ignored");
  EXPECT_EQ(stop_calls, 1);

  start_payload = "untouched";
  collector_->DeRegister();
  EXPECT_EQ(collector_->StartSession(config), -1);
  EXPECT_EQ(start_payload, "untouched");
}

// A record that went to another owner would be a leak.
TEST_F(SessionTest, EveryLicSnGetsTheRecordsOfItsOwnKpis) {
  MakeRegistered();
  LTCCampaignDef def =
      MakeCampaign({MakeKpi(1, KPI_NUMERIC, COUNTER), MakeKpi(2, KPI_NUMERIC, HISTOGRAM),
                    MakeKpi(3, KPI_NUMERIC, COUNTER), MakeKpi(4, KPI_BLOB),
                    MakeKpi(5, KPI_NUMERIC, COUNTER), MakeKpi(6, KPI_NUMERIC, COUNTER)});
  AddLicSn(&def, 42, false, {1, 4, 5});
  AddLicSn(&def, 43, false, {2, 3, 5});
  ASSERT_EQ(collector_->StartSession(MakeConfig(def, {MakeLicInfo(42), MakeLicInfo(43)})), 0);
  for (const uint32_t kpi : {1u, 2u, 3u, 5u, 6u}) EXPECT_EQ(collector_->Log(kpi, 5u), 0);
  EXPECT_EQ(collector_->Log(4, Bytes("x"), 1), 0);
  orbtr::KPIData own;
  own.add_counters()->mutable_meta()->set_kpi_id(99);
  const std::string raw = own.SerializeAsString();
  EXPECT_EQ(collector_->LogBuf(Bytes(raw), static_cast<uint32_t>(raw.size())), 0);
  EXPECT_EQ(collector_->StopSession(), 11);
  std::string got;
  for (const auto& upload : client_->Uploads()) {
    orbtr::KPIData all;  // Records back to back read as one message.
    ASSERT_TRUE(all.ParseFromString(Gunzip(upload.data.data(), upload.data.size())));
    got += upload.name + ":";
    for (const auto& part : all.counters()) got += " " + std::to_string(part.meta().kpi_id());
    for (const auto& part : all.histograms()) got += " " + std::to_string(part.meta().kpi_id());
    for (const auto& part : all.blobs()) got += " " + std::to_string(part.meta().kpi_id());
    got += '\n';
  }
  // Nobody's KPI and raw data are everyone's.
  EXPECT_EQ(got, "/up/7/radio.42: 99 1 5 6 4\n/up/7/radio.43: 99 3 5 6 2\n");
}

TEST_F(SessionTest, LimitsOfTheDefinition) {
  const struct {
    const char* name;
    const char* conf;
    uint32_t size;
    int kpis;
    size_t payload;
    bool want;
  } cases[] = {
      {"smallest size", "", 100, 0, 0, true},
      {"below it", "", 99, 0, 0, false},
      {"largest size", "", 4194304, 0, 0, true},
      {"above it", "", 4194305, 0, 0, false},
      {"most KPIs", "", 4096, 1024, 0, true},
      {"one more", "", 4096, 1025, 0, false},
      {"longest payload", "", 4096, 0, 1048576, true},
      {"one byte more", "", 4096, 0, 1048577, false},
      {"time is not checked", "time_threshold_min_sec=100\n", 4096, 0, 0, true},
      {"a negative size limit is the largest", "size_threshold_max_bytes=-1\n", 4294967295u, 0, 0,
       true},
      {"also as the smallest", "size_threshold_min_bytes=-1\n", 4194304, 0, 0, false},
      {"a negative number of KPIs allows none", "nof_kpis_max=-1\n", 4096, 0, 0, false},
      {"a negative payload is no limit", "cfg_payload_max_bytes=-1\n", 4096, 0, 1048577, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    WriteConf(c.conf);
    Make();
    log_.Clear();
    LTCCampaignDef def = MakeCampaign();
    def.set_threshold_size(c.size);
    for (int i = 0; i < c.kpis; ++i) *def.add_kpi_cfgs() = MakeKpi(i, KPI_STATE);
    def.set_campaign_info(std::string(c.payload, 'p'));
    ExpectStart(MakeConfig(def), c.want ? 0 : -1);
    EXPECT_EQ(log_.Contains("radio: invalid session config"), !c.want);
  }
}

TEST_F(SessionTest, FailedStartsLeaveTheCollectorIdle) {
  Make();
  ExpectStart(MakeConfig("\xff\xff"), -1);
  ExpectError("radio: failed to parse session config");

  start_result = 5;
  ExpectStart(MakeConfig(MakeCampaign({MakeKpi(1, KPI_STATE)})), 5);
  ExpectError("c::StartSession: radio return failure 5 on start_session callback");
  // What was built stays in use until the next start.
  EXPECT_EQ(collector_->IsKPIEnabled(1), 1);
  const uint8_t byte = 1;
  EXPECT_EQ(collector_->LogBuf(&byte, 1), 0);
  EXPECT_EQ(kiv_flush(collector_.get()), 0);

  start_result = 0;
  for (const KPICfg& unknown : {MakeKpi(3, KPI_EVENT), MakeKpi(4, KPI_NUMERIC, INVALID)}) {
    ExpectStart(MakeConfig(MakeCampaign({MakeKpi(2, KPI_STATE), unknown})), -1);
    ExpectError("radio: error: could not create KPI id: " + std::to_string(unknown.kpi_id()) +
                " from KPICfg");
  }
  EXPECT_EQ(log_.Count("Unknown KPI Type: "), 1u) << "an unknown sub-type is not worth a line";
  ExpectError("Unknown KPI Type: 201326592 to create");
  EXPECT_EQ(collector_->IsKPIEnabled(1), 0) << "the next start replaced them";
  EXPECT_EQ(collector_->IsKPIEnabled(2), 1);

  ExpectStart(MakeConfig(MakeCampaign({MakeKpi(4, KPI_STATE)})), 0);
  EXPECT_EQ(collector_->IsKPIEnabled(2), 0);
}

TEST_F(SessionTest, SerializerThatCannotStartRefusesTheSession) {
  const std::string missing = data_dir_ + "missing/";
  cfg_.data_dir = missing.c_str();
  Make();
  ExpectStart(MakeConfig(MakeCampaign()), -1);
  ExpectError("handleTmpFile: Failed to open cache dir " + missing +
              " - err: No such file or directory");
  ExpectError("KPISerializer::Create: Failed to initialze KPIFileSerializer");
  ExpectError("StartSession: Failed to initialize KPI Serializer");
  UseSlots(16, 65);
  cfg_.custom_session_format = 1;
  MakeRegistered();
  ExpectStart(MakeConfig("raw"), -1);
  ExpectError("KPISerializer::Create: Failed to initialze KPIMemorySerializer");
  ExpectError("StartCustomSession: Failed to initialize KPI Serializer");
}

TEST_F(SessionTest, SlotsBelongToOneLicSn) {
  UseSlots(4096, 4);
  MakeRegistered();
  ExpectStart(MakeConfig(MakeCampaign(), {MakeLicInfo(1), MakeLicInfo(2)}), -1);
  ExpectError("c::StartSession: ERROR - multiple lic SN received for hbt");
  ExpectStart(MakeConfig(MakeCampaign(), {MakeLicInfo(9), MakeLicInfo(9)}), 0);
  EXPECT_NE(HeaderText(collector_->BuildFileHeader(9)).find(" owner 9 "), std::string::npos);
  ExpectStart(MakeConfig(MakeCampaign()), 0);
}

TEST_F(SessionTest, SlotsThatTheLibraryDoesNotAllocateAreRefused) {
  cfg_.hbt = 1;
  MakeRegistered();
  ExpectStart(MakeConfig(MakeCampaign()), -1);
  ExpectError("c::StartSession: ERROR - non custom session with allocate_fd = 0 - not supported");
  cfg_.custom_session_format = 1;
  MakeRegistered();
  EXPECT_EQ(collector_->StartSession(MakeConfig("raw")), 0);
  ExpectInfo(
      "c::StartCustomSession: custom session with allocate_fd = 0 - skip initializer kpi_srlzr");
  EXPECT_EQ(start_payload, "raw");
  EXPECT_EQ(collector_->LogBuf(nullptr, 0), -1) << "there is no serializer";
  EXPECT_EQ(collector_->StopSession(), 11);
}

TEST_F(SessionTest, CustomSessionsPassThePayloadAndWriteRawData) {
  cfg_.custom_session_format = 1;
  MakeRegistered();
  const KIVCampConfig config = MakeConfig("\xff\xff no protobuf", {MakeLicInfo(42)});
  ASSERT_EQ(collector_->StartSession(config), 0);
  EXPECT_EQ(start_payload, "\xff\xff no protobuf");
  ExpectInfo("radio: StartCustomSession called for token - token-1");
  const std::string record(1000, 'r');
  EXPECT_EQ(collector_->LogBuf(Bytes(record), 1000), 0);
  EXPECT_EQ(collector_->StopSession(), 11);
  ExpectInfo("radio: StopCustomSession called for token - token-1");
  EXPECT_EQ(client_->Uploads().size(), 1u);

  start_result = 6;
  ExpectStart(config, 6);
  ExpectError("c::StartCustomSession: radio return failure 6 on start_session callback");
}

TEST_F(SessionTest, OneLicSnStopsAndStartsAlone) {
  const std::string refused =
      ": Either hbt enabled or kpi serializer not initialized or LicSN not found in campaign";
  MakeRegistered();
  EXPECT_EQ(collector_->StartSessionForLicSN(42), 0);
  ExpectError("StartSessionForLicSN" + refused);
  LTCCampaignDef def = MakeCampaign({MakeKpi(1, KPI_BLOB)});
  AddLicSn(&def, 42, false, {1});
  ASSERT_EQ(collector_->StartSession(MakeConfig(def, {MakeLicInfo(42)})), 0);
  const std::string file = data_dir_ + "/radio-42.tmp";
  EXPECT_EQ(collector_->Log(1, Bytes("before"), 6), 0);
  ASSERT_TRUE(WaitFor([&] { return ReadFileOrEmpty(file).ends_with("before"); }));
  EXPECT_EQ(collector_->StopSessionForLicSN(42), 0);
  ExpectDebug("removeLicSNfromMap: Removed Lic SN - 42 from map");
  EXPECT_EQ(client_->Count("sendData"), 1u);
  EXPECT_EQ(ListFiles(data_dir_), std::vector<std::string>{"radio.seq"});
  EXPECT_EQ(collector_->Log(1, Bytes("lost"), 4), 0);
  EXPECT_TRUE(log_.WaitFor("prepare_file: fout not found for lic SN: 42"));
  EXPECT_EQ(collector_->StopSessionForLicSN(42), 0);
  ExpectError("removeLicSNfromMap: could not find Lic Sn - 42 in map");
  EXPECT_EQ(kiv_flush(collector_.get()), 0) << "without an open file it does nothing";
  EXPECT_EQ(collector_->StartSessionForLicSN(42), 0);
  EXPECT_EQ(collector_->Log(1, Bytes("after"), 5), 0);
  EXPECT_TRUE(WaitFor([&] { return ReadFileOrEmpty(file).ends_with("after"); }));
  EXPECT_LT(ReadFileOrEmpty(file).size(), 100u) << "and nothing else";
  EXPECT_EQ(log_.Count(refused), 1u);
  EXPECT_EQ(collector_->StopSessionForLicSN(43), 0);
  ExpectError("StopSessionForLicSN" + refused);
}

// Whoever logs must not wait for what a session waits for.
TEST_F(SessionTest, LoggingGoesOnWhileManagerOrHalTakeTheirTime) {
  LTCCampaignDef def = MakeCampaign({MakeKpi(1, KPI_NUMERIC, COUNTER)});
  AddLicSn(&def, 42, false, {1});
  static const KIVCampConfig config = MakeConfig(def, {MakeLicInfo(42)});
  using Collector = kiv_collector;
  const struct {
    const char* name;
    const char* waits_for;
    bool slots;
    bool runs;  // The session, before.
    void (*act)(Collector&);
    int want;  // Of the samples meanwhile.
  } cases[] = {
      {"a lost manager", "registerClient", false, true, [](Collector& c) { c.LostConn(); }, -1},
      {"a left-over file", "sendData", false, false, [](Collector& c) { c.StartSession(config); },
       -1},
      {"an owner's stop", "sendData", false, true, [](Collector& c) { c.StopSessionForLicSN(42); },
       0},
      {"an owner's start", "sendData", false, true,
       [](Collector& c) { c.StartSessionForLicSN(42); }, 0},
      {"the last upload", "sendData", false, true, [](Collector& c) { c.StopSession(); }, -1},
      {"a region's start", "setupFD", true, false, [](Collector& c) { c.StartSession(config); },
       -1},
      {"a region's end", "UnsetFD", true, true, [](Collector& c) { c.StopSession(); }, -1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    cfg_.hbt = 0;
    if (c.slots) UseSlots(4096, 4);
    cfg_.start_session_cb = nullptr;
    MakeRegistered();
    const std::string file = data_dir_ + "radio-42.tmp";
    if (c.runs) {
      ASSERT_EQ(collector_->StartSession(config), 0);
    } else {
      ASSERT_TRUE(WriteFile(file, std::string(100, 'r')));
    }
    if (c.runs && !c.slots) {
      EXPECT_EQ(collector_->LogBuf(Bytes("record"), 6), 0);
      ASSERT_TRUE(WaitFor([&] { return ReadFileOrEmpty(file).ends_with("record"); }));
    }
    const size_t before = client_->Count(c.waits_for);
    std::promise<void> release;
    client_->SetHook(c.waits_for, [wait = release.get_future().share()] { wait.wait(); });
    auto acting = std::async(std::launch::async, [&] { c.act(*collector_); });
    ASSERT_TRUE(client_->WaitForCalls(c.waits_for, before + 1));
    auto logged = std::async(std::launch::async, [&] {
      EXPECT_EQ(collector_->IsKPIEnabled(1), c.want == 0 ? 1 : 0);
      return collector_->Log(1, 5u);
    });
    EXPECT_EQ(logged.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    release.set_value();
    EXPECT_EQ(logged.get(), c.want);
    acting.get();
    client_->SetHook(c.waits_for, nullptr);
  }
}

using SessionDeathTest = SessionTest;

TEST_F(SessionDeathTest, SlotsPastFourGigabytesAbort) {
  for (const uint8_t custom : {0, 1}) {
    UseSlots(0x10000000, 16);
    cfg_.custom_session_format = custom;
    MakeRegistered();
    EXPECT_DEATH(collector_->StartSession(MakeConfig(MakeCampaign())), "");
  }
}

}  // namespace
}  // namespace orb::test
