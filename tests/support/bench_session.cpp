#include "tests/support/bench_session.h"

#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <numeric>
#include <random>
#include <thread>

#include "ipc/KIVCampConfig.h"
#include "proto/ltc_campaign.pb.h"

namespace orb::bench {
namespace {

constexpr size_t kDraws = 65536;

void SleepMs(int ms) {
  if (ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

void SetWindow(const KpiMix& mix, KPICfg* cfg) {
  if (mix.sample_window != 0) {
    cfg->set_sample_window(mix.sample_window);
  } else {
    cfg->set_time_window(mix.time_window_ms);
  }
}

KPICfg* AddNumeric(LTCCampaignDef* def, uint32_t id, KPISubType sub_type, const KpiMix& mix) {
  KPICfg* cfg = def->add_kpi_cfgs();
  cfg->set_kpi_id(id);
  cfg->set_type(KPI_NUMERIC);
  cfg->set_sub_type(sub_type);
  SetWindow(mix, cfg);
  def->mutable_lic_sn_kpi_maps(0)->add_kpi_ids(id);
  return cfg;
}

}  // namespace

int StubClient::registerClient(const std::string&, uint32_t, uint32_t, RoutedCollector*) {
  return 0;
}

int StubClient::sendData(const std::string&, const std::string&, const uint8_t*, uint32_t,
                         const uint8_t*, uint32_t, const uint8_t*, uint32_t) {
  SleepMs(delay_ms_);
  if (!hold_) return 0;
  held_ = true;
  held_.notify_all();
  hold_.wait(true);
  held_ = false;
  return 0;
}

void StubClient::LetUploadsGo() {
  hold_ = false;
  hold_.notify_all();
}

int StubClient::deRegisterClient(const std::string&) { return 0; }

int StubClient::setupFD(int fd, uint32_t, uint32_t, RoutedCollector*, uint32_t* fdToken) {
  region_ = fd;
  *fdToken = 1;
  return 0;
}

int StubClient::FdWrite(const std::string&, const std::atomic<uint32_t>& fdToken,
                        const std::string&, const std::vector<uint8_t>&, uint32_t offset, uint32_t,
                        CompressType) {
  SleepMs(delay_ms_);
  if (complete_ != nullptr) complete_->FdWriteDone(fdToken, offset, 0, 0);
  return 0;
}

int StubClient::UnsetFD(const std::string&, const std::atomic<uint32_t>&) { return 0; }

std::string Campaign(const KpiMix& mix) {
  LTCCampaignDef def;
  def.set_threshold_size(4194304);
  def.set_threshold_time(3600);
  def.add_lic_sn_kpi_maps()->set_lic_sn(42);
  for (uint32_t i = 0; i < mix.counters; ++i) AddNumeric(&def, kFirstCounter + i, COUNTER, mix);
  for (uint32_t i = 0; i < mix.gauges; ++i) {
    AddNumeric(&def, kFirstGauge + i, GAUGE, mix)->mutable_g_cfg()->set_report_mean(true);
  }
  for (uint32_t i = 0; i < mix.histograms; ++i) {
    HistogramConfig* layout =
        AddNumeric(&def, kFirstHistogram + i, HISTOGRAM, mix)->mutable_h_cfg();
    for (int bound = 1; bound <= 9; ++bound) layout->add_bucket_bounds(bound * 10);
    layout->set_overflow_bucket(true);
    layout->set_underflow_bucket(true);
  }
  return def.SerializeAsString();
}

Session::Session(const KpiMix& mix, const Options& options)
    : client_(std::make_shared<StubClient>()) {
  std::string path = std::filesystem::temp_directory_path() / "orb-bench-XXXXXX";
  if (mkdtemp(path.data()) == nullptr) abort();
  dir_ = path + "/";
  kiv_cfg_s cfg{};
  cfg.name = "bench";
  cfg.data_dir = dir_.c_str();
  cfg.hbt = options.slots;
  cfg.allocate_fd = options.slots;
  cfg.fd_slot_size = options.slot_bytes;
  cfg.fd_nof_slots = options.slots_count;
  cfg.sync_register = 1;
  collector_ = std::make_unique<kiv_collector>(&cfg);
  collector_->SetClientForTest(client_);
  client_->CompleteAnnounces(collector_.get());
  if (collector_->Register() != 0) abort();
  if (options.start && Start(Campaign(mix)) != 0) abort();
}

Session::~Session() {
  client_->DelayCalls(0);
  collector_->DeRegister();
  collector_->Unroute();
  collector_.reset();
  std::error_code ignored;
  std::filesystem::remove_all(dir_, ignored);
}

int Session::Start(const std::string& campaign) {
  KIVCampConfig config;
  config.campId = 1;
  config.campaignDef.assign(campaign.begin(), campaign.end());
  config.licInfo.resize(1);
  config.licInfo[0].licSN = 42;
  return collector_->StartSession(config);
}

std::vector<uint32_t> RandomIds(uint32_t first, uint32_t count) {
  std::mt19937 random(20);
  std::vector<uint32_t> ids(count);
  std::iota(ids.begin(), ids.end(), first);
  std::shuffle(ids.begin(), ids.end(), random);
  std::uniform_int_distribution<uint32_t> draw(first, first + count - 1);
  while (ids.size() < kDraws) ids.push_back(draw(random));
  return ids;
}

}  // namespace orb::bench
