// Sessions: what a campaign builds, and how it is taken down again.
// Tested by tests/collector/session_test.cpp.
#include <google/protobuf/arena.h>

#include <climits>
#include <utility>

#include "collector/kiv_collector.h"
#include "ipc/KIVCampConfig.h"
#include "kpi/kpi.h"
#include "proto/ltc_campaign.pb.h"
#include "serializer/kpi_file_serializer.h"
#include "serializer/kpi_serializer.h"
#include "utility/checked.h"
#include "utility/conf.h"
#include "utility/contained.h"
#include "utility/log.h"

namespace {

constexpr uint32_t kNoSerializer = 0;
constexpr uint32_t kFileSerializer = 1;
constexpr uint32_t kMemorySerializer = 2;

// Custom campaigns are the client's own, so they cannot set thresholds.
constexpr uint32_t kCustomSizeThresholdBytes = 65536;
constexpr uint32_t kCustomTimeThresholdSec = 172800;

}  // namespace

int kiv_collector::StartSession(const KIVCampConfig& config) {
  orb::MutexLock session(sessionMutex);
  int result = -1;
  const bool answered = orb::Contained(
      "StartSession", [&]() ORB_NO_THREAD_SAFETY_ANALYSIS { result = StartSessionLocked(config); });
  if (!answered) DropSession();
  return result;
}

int kiv_collector::StartSessionLocked(const KIVCampConfig& config) {
  if (stop_.raised()) {
    // Nothing would stop it any more.
    LOGE("%s: %s: StartSession received while de-registering - ignored", "StartSession",
         cfg_.name.c_str());
    return -1;
  }
  if (sessionActive_) {
    LOGE("%s: %s: StartSession received when an existing session is already active - ignored",
         "StartSession", cfg_.name.c_str());
    return -1;
  }
  if (cfg_.custom_session_format) return StartCustomSession(config);
  LogCalled("StartSession");
  // A thousand KPIs are a thousand messages: made and freed as one piece.
  google::protobuf::Arena arena;
  LTCCampaignDef& def = *google::protobuf::Arena::CreateMessage<LTCCampaignDef>(&arena);
  const size_t bytes = config.campaignDef.size();
  if (bytes > INT_MAX || !def.ParseFromArray(config.campaignDef.data(), static_cast<int>(bytes))) {
    LOGE("%s: failed to parse session config", cfg_.name.c_str());
    return -1;
  }
  LOGI("%s: Recvd Thresholds Size: %d Time: %d", cfg_.name.c_str(),
       static_cast<int>(def.threshold_size()), static_cast<int>(def.threshold_time()));
  if (!validCfg(def)) {
    LOGE("%s: invalid session config", cfg_.name.c_str());
    return -1;
  }
  DropSession();
  licSnKeys_.clear();
  kpiLicSns_.clear();
  licSnEncrypt_.clear();
  generateLicSn2IsvKeyMap(config.licInfo);
  for (const LicenseSNKPIMap& entry : def.lic_sn_kpi_maps()) generateKpi2LicSNMap(entry);
  kpiLicSns_.Sort();

  KPISerializer::Config serializer;
  if (!ConfigureSerializer(def, &serializer)) return -1;
  if (!CreateSerializer(serializer, "StartSession")) return -1;
  // What takes long is done: a sample finds the session before or behind all of this.
  orb::HotMutexLock lock(stateMutex);
  SetCurrent();
  if (!CreateKPIs(def)) return -1;
  const std::string& payload = def.campaign_info();
  const int refusal = CallStart(reinterpret_cast<const uint8_t*>(payload.data()), payload.size());
  if (refusal != 0) {
    LOGE("c::StartSession: %s return failure %d on start_session callback", cfg_.name.c_str(),
         refusal);
    return refusal;
  }
  sessionActive_ = true;
  return 0;
}

bool kiv_collector::ConfigureSerializer(const LTCCampaignDef& def,
                                        KPISerializer::Config* serializer) {
  if (!cfg_.hbt) {
    *serializer = {kFileSerializer, def.threshold_size(), def.threshold_time(),
                   cfg_.data_dir.c_str(), this};
    return true;
  }
  if (!cfg_.allocate_fd) {
    LOGE("c::StartSession: ERROR - non custom session with allocate_fd = 0 - not supported");
    serializer->type = kNoSerializer;  // The factory refuses it.
    return true;
  }
  *serializer = {kMemorySerializer, cfg_.SlotsBytes(), cfg_.fd_nof_slots, nullptr, this};
  if (licSnKeys_.size() > 1) {
    LOGE("c::StartSession: ERROR - multiple lic SN received for hbt");
    return false;
  }
  orb::MutexLock lock(headerMutex);
  header_.SetItem(TelemetryHeader::HDR_ITEM_LICSN, SlotOwner());
  return true;
}

int kiv_collector::StartCustomSession(const KIVCampConfig& config) {
  LogCalled("StartCustomSession");
  if (cfg_.hbt && !cfg_.allocate_fd) {
    LOGI("c::StartCustomSession: custom session with allocate_fd = 0 - skip initializer kpi_srlzr");
  } else {
    DropSession();
    licSnKeys_.clear();
    generateLicSn2IsvKeyMap(config.licInfo);
    KPISerializer::Config serializer{kFileSerializer, kCustomSizeThresholdBytes,
                                     kCustomTimeThresholdSec, cfg_.data_dir.c_str(), this};
    if (cfg_.hbt) {
      serializer = {kMemorySerializer, cfg_.SlotsBytes(), cfg_.fd_nof_slots, nullptr, this};
    }
    if (!CreateSerializer(serializer, "StartCustomSession")) return -1;
  }
  orb::HotMutexLock lock(stateMutex);
  SetCurrent();
  const int refusal = CallStart(config.campaignDef.data(), config.campaignDef.size());
  if (refusal != 0) {
    LOGE("c::StartCustomSession: %s return failure %d on start_session callback", cfg_.name.c_str(),
         refusal);
    return refusal;
  }
  sessionActive_ = true;
  return 0;
}

bool kiv_collector::validCfg(const LTCCampaignDef& def) const {
  // The limits are signed only in the file: a size limit of -1 is the largest
  // one, and a negative payload limit is none.
  const Conf& conf = Conf::Get();
  return def.threshold_size() >= static_cast<uint32_t>(conf.size_threshold_min_bytes) &&
         def.threshold_size() <= static_cast<uint32_t>(conf.size_threshold_max_bytes) &&
         def.kpi_cfgs_size() <= conf.nof_kpis_max &&
         def.campaign_info().size() <= static_cast<size_t>(conf.cfg_payload_max_bytes);
}

int kiv_collector::generateLicSn2IsvKeyMap(const std::vector<LicInfo>& list) {
  for (const LicInfo& info : list) {
    const auto licSN = static_cast<uint64_t>(info.licSN);
    const std::string key(info.encryptionPKey.begin(), info.encryptionPKey.end());
    LOGI("%s: licSN: %llu, encryptionPKey:%s, pKeyEncAlgo:%d, sKeyEncAlgo:%d",
         "generateLicSn2IsvKeyMap", static_cast<unsigned long long>(licSN), key.c_str(),
         info.pKeyEncAlgo, info.sKeyEncAlgo);
    licSnKeys_.emplace(licSN, ISVKeyStruct{key, info.pKeyEncAlgo, info.sKeyEncAlgo});
  }
  return 0;
}

int kiv_collector::generateKpi2LicSNMap(const LicenseSNKPIMap& entry) {
  licSnEncrypt_.emplace(entry.lic_sn(), entry.encrypt());
  for (const uint32_t kpi : entry.kpi_ids()) {
    kpiLicSns_.Add(kpi, entry.lic_sn());
  }
  return 0;
}

bool kiv_collector::CreateSerializer(const KPISerializer::Config& config, const char* operation) {
  std::shared_ptr<KPISerializer> serializer = KPISerializer::Create(config);
  if (serializer == nullptr) {
    LOGE("%s: Failed to initialize KPI Serializer", operation);
    return false;
  }
  SetSerializer(std::move(serializer));
  return true;
}

bool kiv_collector::CreateKPIs(const LTCCampaignDef& def) {
  const bool created = FillKPITable(def);
  // Also after a failure: look-ups find what was made before it.
  kpiIndex_.Build(kpis_);
  return created;
}

bool kiv_collector::FillKPITable(const LTCCampaignDef& def) {
  const auto serializer = Serializer();
  for (const KPICfg& cfg : def.kpi_cfgs()) {
    if (LOG_ENABLED(ANDROID_LOG_INFO)) {
      LOGI("%s: Recvd KPICfg %s", cfg_.name.c_str(), cfg.DebugString().c_str());
    }
    auto kpi = KPI::Create(cfg, serializer.get());
    if (kpi == nullptr) {
      LOGE("%s: error: could not create KPI id: %d from KPICfg", cfg_.name.c_str(),
           static_cast<int>(cfg.kpi_id()));
      return false;
    }
    kpi->setKPIId(cfg.kpi_id());
    // Campaigns mostly list their KPIs in order.
    kpis_.insert_or_assign(kpis_.end(), cfg.kpi_id(), std::move(kpi));
  }
  return true;
}

int kiv_collector::CallStart(const uint8_t* payload, size_t len) {
  if (cfg_.start_session_cb == nullptr) return 0;
  return cfg_.start_session_cb(this, payload, orb::CheckedCast<uint32_t>(len));
}

int kiv_collector::CallStop() {
  return cfg_.stop_session_cb == nullptr ? 0 : cfg_.stop_session_cb(this);
}

int kiv_collector::StopSession() {
  orb::MutexLock session(sessionMutex);
  return StopSessionLocked();
}

int kiv_collector::StopSessionLocked() {
  if (!sessionActive_) {
    LOGE("%s: %s: StopSession received when session is not active - ignored", "StopSessionLocked",
         cfg_.name.c_str());
    return -1;
  }
  sessionActive_ = false;
  if (cfg_.custom_session_format) return StopCustomSession();
  LogCalled("StopSessionLocked");
  int result;
  {
    orb::HotMutexLock lock(stateMutex);
    result = CallStop();
    for (const auto& [id, kpi] : kpis_) {
      orb::Contained("Serialize", [&kpi = *kpi] { kpi.Serialize(); });
    }
    BookKPIs(orb::LossCause::kNoRecord);
    ClearKPIs();
    current_ = nullptr;
  }
  FinalizeSerializer();
  return result;
}

int kiv_collector::StopCustomSession() {
  LogCalled("StopCustomSession");
  int result;
  {
    orb::HotMutexLock lock(stateMutex);
    result = CallStop();
    current_ = nullptr;
  }
  FinalizeSerializer();
  return result;
}

int kiv_collector::StartSessionForLicSN(uint64_t licSN) {
  orb::MutexLock session(sessionMutex);
  if (KPIFileSerializer* files = FilesOf(licSN, "StartSessionForLicSN")) files->EnableLicSN(licSN);
  return 0;
}

int kiv_collector::StopSessionForLicSN(uint64_t licSN) {
  orb::MutexLock session(sessionMutex);
  if (KPIFileSerializer* files = FilesOf(licSN, "StopSessionForLicSN")) files->DisableLicSN(licSN);
  return 0;
}

KPIFileSerializer* kiv_collector::FilesOf(uint64_t licSN, const char* operation) {
  const auto serializer = Serializer();  // sessionMutex keeps it alive.
  if (cfg_.hbt || serializer == nullptr || licSnKeys_.count(licSN) == 0) {
    LOGE("%s: Either hbt enabled or kpi serializer not initialized or LicSN not found in campaign",
         operation);
    return nullptr;
  }
  return static_cast<KPIFileSerializer*>(serializer.get());
}

std::vector<uint64_t> kiv_collector::OwnersOf(uint32_t kpi) const {
  if (cfg_.hbt) return {SlotOwner()};
  std::vector<uint64_t> owners;
  for (const auto& [id, licSN] : kpiLicSns_.Find(kpi)) owners.push_back(licSN);
  if (!owners.empty()) return owners;
  for (const auto& [licSN, key] : licSnKeys_) owners.push_back(licSN);
  if (owners.empty()) owners.push_back(0);
  return owners;
}

void kiv_collector::BookKPIs(orb::LossCause open_windows) {
  for (const auto& entry : kpis_) {
    orb::Contained("BookKPIs", [&] {
      orb::KpiSamples samples = entry.second->CountSamples();
      uint64_t& lost = samples.lost[open_windows];
      lost = orb::CheckedAdd<uint64_t>(lost, samples.open);
      ledger_.Enter(OwnersOf(entry.first), samples);
    });
  }
}

void kiv_collector::ClearKPIs() {
  kpiIndex_.Clear();
  kpis_.clear();
}

void kiv_collector::FinalizeSerializer() {
  if (const auto serializer = Serializer()) {
    orb::Contained("Finalize", [&] { serializer->Finalize(); });
  }
  SetSerializer(nullptr);
}

void kiv_collector::DropSession() {
  {
    orb::HotMutexLock lock(stateMutex);
    BookKPIs(orb::LossCause::kDropped);
    ClearKPIs();
    current_ = nullptr;
  }
  // Its writer thread reads the tables, and kiv_set_cfg may hold the serializer
  // a moment longer than this: end it here.
  if (const auto serializer = Serializer()) serializer->Abandon();
  SetSerializer(nullptr);
}

std::shared_ptr<KPISerializer> kiv_collector::Serializer() const {
  orb::MutexLock lock(serializerMutex);
  return serializer_;
}

void kiv_collector::SetSerializer(std::shared_ptr<KPISerializer> serializer) {
  {
    orb::MutexLock lock(serializerMutex);
    serializer_.swap(serializer);
  }
  // The previous one ends here, outside the leaf.
}

void kiv_collector::SetCurrent() { current_ = Serializer().get(); }

void kiv_collector::LogCalled(const char* operation) const {
  LOGI("%s: %s called for token - %s", cfg_.name.c_str(), operation, link_.token().c_str());
}
