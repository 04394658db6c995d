// Builds a session from a campaign and takes it down again.
// Tested by tests/collector/session_test.cpp.
#include "collector/session.h"

#include <google/protobuf/arena.h>

#include <chrono>
#include <climits>
#include <utility>

#include "collector/kiv_collector.h"
#include "ipc/KIVCampConfig.h"
#include "kpi/kpi.h"
#include "proto/ltc_campaign.pb.h"
#include "serializer/kpi_file_serializer.h"
#include "serializer/kpi_serializer.h"
#include "utility/check.h"
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

Session::Session(kiv_collector* owner, const CollectorSettings& settings, const ManagerLink& link,
                 const StopSignal& stop, DeliveryLedger* ledger, CollectorHeader* header)
    : owner_(*owner),
      cfg_(settings),
      link_(link),
      stop_(stop),
      ledger_(*ledger),
      header_(*header),
      tables_(std::make_shared<const LicSnTables>()) {}

Session::~Session() { Drop(); }

void Session::Drop() {
  orb::MutexLock session(sessionMutex_);
  DropSession();
}

int Session::StartSession(const KIVCampConfig& config) {
  orb::MutexLock session(sessionMutex_);
  int result = -1;
  const bool answered = orb::Contained(
      "StartSession", [&]() ORB_NO_THREAD_SAFETY_ANALYSIS { result = StartSessionLocked(config); });
  if (!answered) DropSession();
  return result;
}

int Session::StartSessionLocked(const KIVCampConfig& config) {
  if (stop_.raised()) {
    // DeRegister() has stopped the session already; nothing would stop a new one.
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
  // A thousand KPIs are a thousand messages: an arena makes and frees them in one piece.
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
  LicSnTables tables;
  generateLicSn2IsvKeyMap(config.licInfo, &tables);
  for (const LicenseSNKPIMap& entry : def.lic_sn_kpi_maps()) generateKpi2LicSNMap(entry, &tables);
  tables.kpis.Sort();
  SetTables(std::move(tables));

  KPISerializer::Config serializer;
  if (!ConfigureSerializer(def, &serializer)) return -1;
  if (!CreateSerializer(serializer, "StartSession")) return -1;
  // The slow part is done. Samples wait for the rest, and find the whole session or none.
  orb::HotMutexLock lock(stateMutex_);
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

bool Session::ConfigureSerializer(const LTCCampaignDef& def, KPISerializer::Config* serializer) {
  if (!cfg_.hbt) {
    *serializer = {kFileSerializer, def.threshold_size(), def.threshold_time(),
                   cfg_.data_dir.c_str(), &owner_};
    return true;
  }
  if (!cfg_.allocate_fd) {
    LOGE("c::StartSession: ERROR - non custom session with allocate_fd = 0 - not supported");
    serializer->type = kNoSerializer;  // The factory refuses it.
    return true;
  }
  *serializer = {kMemorySerializer, cfg_.SlotsBytes(), cfg_.fd_nof_slots, nullptr, &owner_};
  const auto tables = this->tables();
  if (tables->keys.size() > 1) {
    LOGE("c::StartSession: ERROR - multiple lic SN received for hbt");
    return false;
  }
  header_.SetSlotOwner(tables->SlotOwner());
  return true;
}

int Session::StartCustomSession(const KIVCampConfig& config) {
  LogCalled("StartCustomSession");
  if (cfg_.hbt && !cfg_.allocate_fd) {
    LOGI("c::StartCustomSession: custom session with allocate_fd = 0 - skip initializer kpi_srlzr");
  } else {
    DropSession();
    LicSnTables tables;
    generateLicSn2IsvKeyMap(config.licInfo, &tables);
    SetTables(std::move(tables));
    KPISerializer::Config serializer{kFileSerializer, kCustomSizeThresholdBytes,
                                     kCustomTimeThresholdSec, cfg_.data_dir.c_str(), &owner_};
    if (cfg_.hbt) {
      serializer = {kMemorySerializer, cfg_.SlotsBytes(), cfg_.fd_nof_slots, nullptr, &owner_};
    }
    if (!CreateSerializer(serializer, "StartCustomSession")) return -1;
  }
  orb::HotMutexLock lock(stateMutex_);
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

bool Session::validCfg(const LTCCampaignDef& def) {
  // The limits are signed in the file only. Here -1 is the largest size limit, and a
  // negative payload limit means no limit.
  const Conf& conf = Conf::Get();
  return def.threshold_size() >= static_cast<uint32_t>(conf.size_threshold_min_bytes) &&
         def.threshold_size() <= static_cast<uint32_t>(conf.size_threshold_max_bytes) &&
         def.kpi_cfgs_size() <= conf.nof_kpis_max &&
         def.campaign_info().size() <= static_cast<size_t>(conf.cfg_payload_max_bytes);
}

int Session::generateLicSn2IsvKeyMap(const std::vector<LicInfo>& list, LicSnTables* tables) {
  for (const LicInfo& info : list) {
    const auto licSN = static_cast<uint64_t>(info.licSN);
    const std::string key(info.encryptionPKey.begin(), info.encryptionPKey.end());
    LOGI("%s: licSN: %llu, encryptionPKey:%s, pKeyEncAlgo:%d, sKeyEncAlgo:%d",
         "generateLicSn2IsvKeyMap", static_cast<unsigned long long>(licSN), key.c_str(),
         info.pKeyEncAlgo, info.sKeyEncAlgo);
    tables->keys.emplace(licSN, ISVKeyStruct{key, info.pKeyEncAlgo, info.sKeyEncAlgo});
  }
  return 0;
}

int Session::generateKpi2LicSNMap(const LicenseSNKPIMap& entry, LicSnTables* tables) {
  tables->encrypt.emplace(entry.lic_sn(), entry.encrypt());
  for (const uint32_t kpi : entry.kpi_ids()) {
    tables->kpis.Add(kpi, entry.lic_sn());
  }
  return 0;
}

bool Session::CreateSerializer(const KPISerializer::Config& config, const char* operation) {
  std::shared_ptr<KPISerializer> serializer = KPISerializer::Create(config);
  if (serializer == nullptr) {
    LOGE("%s: Failed to initialize KPI Serializer", operation);
    return false;
  }
  SetSerializer(std::move(serializer));
  return true;
}

bool Session::CreateKPIs(const LTCCampaignDef& def) {
  const bool created = FillKPITable(def);
  // After a failure, too: look-ups find the KPIs that were made before it.
  kpiIndex_.Build(kpis_);
  return created;
}

bool Session::FillKPITable(const LTCCampaignDef& def) {
  ORB_CHECK(kpis_.empty());
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

int Session::CallStart(const uint8_t* payload, size_t len) {
  if (cfg_.start_session_cb == nullptr) return 0;
  return cfg_.start_session_cb(&owner_, payload, orb::CheckedCast<uint32_t>(len));
}

int Session::CallStop() {
  return cfg_.stop_session_cb == nullptr ? 0 : cfg_.stop_session_cb(&owner_);
}

int Session::StopSession() {
  orb::MutexLock session(sessionMutex_);
  return StopSessionLocked();
}

void Session::StopThen(const std::function<void()>& go_on) {
  orb::MutexLock session(sessionMutex_);
  if (stop_.raised()) return;
  StopSessionLocked();
  go_on();
}

int Session::StopSessionLocked() {
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
    orb::HotMutexLock lock(stateMutex_);
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

int Session::StopCustomSession() {
  LogCalled("StopCustomSession");
  int result;
  {
    orb::HotMutexLock lock(stateMutex_);
    result = CallStop();
    current_ = nullptr;
  }
  FinalizeSerializer();
  return result;
}

int Session::StartSessionForLicSN(uint64_t licSN) {
  orb::MutexLock session(sessionMutex_);
  if (KPIFileSerializer* files = FilesOf(licSN, "StartSessionForLicSN")) files->EnableLicSN(licSN);
  return 0;
}

int Session::StopSessionForLicSN(uint64_t licSN) {
  orb::MutexLock session(sessionMutex_);
  if (KPIFileSerializer* files = FilesOf(licSN, "StopSessionForLicSN")) files->DisableLicSN(licSN);
  return 0;
}

KPIFileSerializer* Session::FilesOf(uint64_t licSN, const char* operation) {
  const auto serializer = Serializer();  // sessionMutex_ keeps it alive.
  if (cfg_.hbt || serializer == nullptr || tables()->keys.count(licSN) == 0) {
    LOGE("%s: Either hbt enabled or kpi serializer not initialized or LicSN not found in campaign",
         operation);
    return nullptr;
  }
  return static_cast<KPIFileSerializer*>(serializer.get());
}

std::vector<uint64_t> Session::OwnersOf(uint32_t kpi) const {
  const auto tables = this->tables();
  if (cfg_.hbt) return {tables->SlotOwner()};
  return tables->OwnersOf(kpi);
}

std::shared_ptr<const LicSnTables> Session::tables() const {
  orb::MutexLock lock(serializerMutex_);
  return tables_;
}

void Session::SetTables(LicSnTables tables) {
  auto made = std::make_shared<const LicSnTables>(std::move(tables));
  orb::MutexLock lock(serializerMutex_);
  tables_.swap(made);
}

void Session::BookKPIs(orb::LossCause open_windows) {
  for (const auto& entry : kpis_) {
    orb::Contained("BookKPIs", [&] {
      orb::KpiSamples samples = entry.second->CountSamples();
      uint64_t& lost = samples.lost[open_windows];
      lost = orb::CheckedAdd<uint64_t>(lost, samples.open);
      ledger_.Enter(OwnersOf(entry.first), samples);
    });
  }
}

void Session::ClearKPIs() {
  kpiIndex_.Clear();
  kpis_.clear();
}

void Session::FinalizeSerializer() {
  CheckReleased();
  if (const auto serializer = Serializer()) {
    orb::Contained("Finalize", [&] { serializer->Finalize(); });
  }
  SetSerializer(nullptr);
}

void Session::DropSession() {
  ORB_CHECK(!sessionActive_);
  {
    orb::HotMutexLock lock(stateMutex_);
    BookKPIs(orb::LossCause::kDropped);
    ClearKPIs();
    current_ = nullptr;
  }
  // End it explicitly: kiv_set_cfg may hold a reference for a moment longer.
  if (const auto serializer = Serializer()) serializer->Abandon();
  SetSerializer(nullptr);
}

std::shared_ptr<KPISerializer> Session::Serializer() const {
  orb::MutexLock lock(serializerMutex_);
  return serializer_;
}

void Session::SetSerializer(std::shared_ptr<KPISerializer> serializer) {
  {
    orb::MutexLock lock(serializerMutex_);
    serializer_.swap(serializer);
  }
  // The previous serializer is destroyed here, outside the leaf.
}

void Session::SetCurrent() {
  ORB_CHECK(current_ == nullptr);  // The session before has given up its own.
  current_ = Serializer().get();
}

void Session::CheckReleased() {
  orb::HotMutexLock lock(stateMutex_);
  ORB_CHECK(current_ == nullptr && kpis_.empty());
}

void Session::LogCalled(const char* operation) const {
  LOGI("%s: %s called for token - %s", cfg_.name.c_str(), operation, link_.token().c_str());
}

bool Session::AdoptInChild() {
  if (!stateMutex_.TryLockFor(std::chrono::milliseconds(0))) return false;
  stateMutex_.Unlock();
  if (!sessionMutex_.IsFree() || !serializerMutex_.IsFree()) return false;
  const auto serializer = Serializer();
  if (serializer != nullptr && !serializer->AdoptInChild()) return false;
  sessionActive_ = false;
  return true;
}
