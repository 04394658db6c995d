// What a client measures while a campaign runs: KPIs, the tables of the campaign and the
// serializer that records go to. They are made at the start and go together at the end.
//
// Lock order, taken only downwards: sessionMutex_, stateMutex_, the serializer's own
// mutexes, the locks of the way to the HAL, then the leaves. See
// docs/threads_and_locks.md.
// Tested by tests/collector/session_test.cpp and logging_test.cpp.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "collector/collector_header.h"
#include "collector/collector_settings.h"
#include "collector/kpi_index.h"
#include "collector/manager_link.h"
#include "collector/stop_signal.h"
#include "ledger/delivery_ledger.h"
#include "orb_sdk.h"
#include "serializer/kpi_serializer.h"
#include "serializer/licsn_tables.h"
#include "utility/hot_mutex.h"
#include "utility/thread_annotations.h"

class KIVCampConfig;
class KPI;
class KPIFileSerializer;
class LTCCampaignDef;
class LicInfo;
class LicenseSNKPIMap;

class Session {
 public:
  // All are borrowed and outlive it. Serializers and callbacks get to know the owner.
  Session(kiv_collector* owner, const CollectorSettings& settings, const ManagerLink& link,
          const StopSignal& stop, DeliveryLedger* ledger, CollectorHeader* header);
  ~Session();  // Drop() came before, or no other thread is left.
  // Frees what the start of a refused session has made.
  void Drop() ORB_EXCLUDES(sessionMutex_, stateMutex_);

  // See RoutedCollector.
  int StartSession(const KIVCampConfig& config) ORB_EXCLUDES(sessionMutex_, stateMutex_);
  int StopSession() ORB_EXCLUDES(sessionMutex_, stateMutex_);
  int StartSessionForLicSN(uint64_t licSN) ORB_EXCLUDES(sessionMutex_);
  int StopSessionForLicSN(uint64_t licSN) ORB_EXCLUDES(sessionMutex_);
  // Ends the session, then calls go_on before another can start. No effect once stopped.
  void StopThen(const std::function<void()>& go_on) ORB_EXCLUDES(sessionMutex_, stateMutex_);
  static bool validCfg(const LTCCampaignDef& def);

  // --- Logging (session_logging.cpp). ---
  int Log(uint32_t kpi, uint32_t value) ORB_EXCLUDES(stateMutex_);
  int LogEvent(uint32_t kpi, uint32_t arg) ORB_EXCLUDES(stateMutex_);
  int LogState(uint32_t kpi, uint32_t a, uint32_t b) ORB_EXCLUDES(stateMutex_);
  int Log(uint32_t kpi, const uint8_t* buf, uint32_t len) ORB_EXCLUDES(stateMutex_);
  int Log(uint32_t kpi, const kiv_blob_segment_t* segs, uint32_t count) ORB_EXCLUDES(stateMutex_);
  int LogBuf(const uint8_t* buf, uint32_t len) ORB_EXCLUDES(stateMutex_);
  int IsKPIEnabled(uint32_t kpi) ORB_EXCLUDES(stateMutex_);
  // These three take a leaf only, so callbacks may use them.
  void SetConfigParams(kiv_param_type_t type, uint32_t value) ORB_EXCLUDES(serializerMutex_);
  void Flush() ORB_EXCLUDES(serializerMutex_);
  // Records that the session's files do not hold yet. 0 without a session, and with slots.
  size_t Pending() const ORB_EXCLUDES(serializerMutex_);
  // The tables of the campaign that runs, or ran last; never null.
  std::shared_ptr<const LicSnTables> tables() const ORB_EXCLUDES(serializerMutex_);

  // --- For a dump (session_state.cpp). ---
  struct KpiState {
    uint32_t id;
    const char* type;
    uint32_t window;
    const char* unit;
    orb::KpiSamples samples;
  };
  struct State {
    bool busy = false;  // The session starts or ends; `kpis` may be empty then.
    bool active = false;
    KPISerializer::Backlog backlog;
    Books books;
    std::vector<KpiState> kpis;
  };
  // Waits for the state mutex for a moment at most.
  State Describe() ORB_EXCLUDES(stateMutex_);

  // Call in the child of a fork(). False when a thread of the parent was inside.
  bool AdoptInChild() ORB_EXCLUDES(sessionMutex_, stateMutex_);

 private:
  int StartSessionLocked(const KIVCampConfig& config) ORB_REQUIRES(sessionMutex_)
      ORB_EXCLUDES(stateMutex_);
  int StopSessionLocked() ORB_REQUIRES(sessionMutex_) ORB_EXCLUDES(stateMutex_);
  int StartCustomSession(const KIVCampConfig& config) ORB_REQUIRES(sessionMutex_)
      ORB_EXCLUDES(stateMutex_);
  int StopCustomSession() ORB_REQUIRES(sessionMutex_) ORB_EXCLUDES(stateMutex_);
  static int generateLicSn2IsvKeyMap(const std::vector<LicInfo>& list, LicSnTables* tables);
  static int generateKpi2LicSNMap(const LicenseSNKPIMap& entry, LicSnTables* tables);
  bool ConfigureSerializer(const LTCCampaignDef& def, KPISerializer::Config* serializer)
      ORB_REQUIRES(sessionMutex_);
  // Logging does not use it before SetCurrent().
  bool CreateSerializer(const KPISerializer::Config& config, const char* operation)
      ORB_REQUIRES(sessionMutex_);
  void SetTables(LicSnTables tables) ORB_REQUIRES(sessionMutex_) ORB_EXCLUDES(serializerMutex_);
  std::vector<uint64_t> OwnersOf(uint32_t kpi) const ORB_EXCLUDES(serializerMutex_);
  std::vector<KpiState> DescribeKPIs(Books* books) ORB_REQUIRES(stateMutex_);
  bool CreateKPIs(const LTCCampaignDef& def) ORB_REQUIRES(stateMutex_);
  bool FillKPITable(const LTCCampaignDef& def) ORB_REQUIRES(stateMutex_);
  // Enters the KPIs into the books; samples of open windows are lost, by that cause.
  void BookKPIs(orb::LossCause open_windows) ORB_REQUIRES(stateMutex_);
  void ClearKPIs() ORB_REQUIRES(stateMutex_);
  int CallStart(const uint8_t* payload, size_t len) ORB_REQUIRES(stateMutex_);
  int CallStop() ORB_REQUIRES(stateMutex_);
  KPIFileSerializer* FilesOf(uint64_t licSN, const char* operation) ORB_REQUIRES(sessionMutex_);
  void LogCalled(const char* operation) const;
  // Aborts unless logging has let go of the KPIs and of the serializer.
  void CheckReleased() ORB_EXCLUDES(stateMutex_);
  // After logging has let go of the serializer: waits for its last upload.
  void FinalizeSerializer() ORB_REQUIRES(sessionMutex_) ORB_EXCLUDES(stateMutex_);
  // Frees what a failed start has made: KPIs, then the serializer.
  void DropSession() ORB_REQUIRES(sessionMutex_) ORB_EXCLUDES(stateMutex_);
  std::shared_ptr<KPISerializer> Serializer() const ORB_EXCLUDES(serializerMutex_);
  void SetSerializer(std::shared_ptr<KPISerializer> serializer) ORB_REQUIRES(sessionMutex_)
      ORB_EXCLUDES(serializerMutex_);
  void SetCurrent() ORB_REQUIRES(sessionMutex_, stateMutex_);

  // Allows one start, stop or return to a restarted manager at a time. It is held across
  // uploads and registrations, whose time others decide, so nothing that logs takes it.
  orb::Mutex sessionMutex_ ORB_ACQUIRED_BEFORE(stateMutex_);
  // Every sample takes it: only session callbacks and announcing a full slot hold it long.
  orb::HotMutex stateMutex_ ORB_ACQUIRED_BEFORE(serializerMutex_);

  kiv_collector& owner_;
  const CollectorSettings& cfg_;
  const ManagerLink& link_;
  const StopSignal& stop_;
  DeliveryLedger& ledger_;
  CollectorHeader& header_;

  std::atomic<bool> sessionActive_{false};
  mutable orb::Mutex serializerMutex_;
  std::shared_ptr<KPISerializer> serializer_ ORB_GUARDED_BY(serializerMutex_);
  std::shared_ptr<const LicSnTables> tables_ ORB_GUARDED_BY(serializerMutex_);

  std::map<uint32_t, std::unique_ptr<KPI>> kpis_ ORB_GUARDED_BY(stateMutex_);
  KpiIndex kpiIndex_ ORB_GUARDED_BY(stateMutex_);  // Finds in kpis_ on the hot path.
  // Raw buffers go to it: serializer_, read without its leaf; null between sessions.
  KPISerializer* current_ ORB_GUARDED_BY(stateMutex_) = nullptr;
};
