// One registered client: its registration with the manager, its sessions, the
// samples it logs and the uploads of what they became.
//
// Life: constructed -> Register() -> sessions come and go -> DeRegister() ->
// Unroute() -> destroyed. A lost manager stops the session and registers again.
//
// Lock order, taken only downwards: sessionMutex, stateMutex, the serializer's own
// mutexes, the client's mutexes, then the leaves (identity, header, handles, seq,
// threads, serializer pointer). A leaf is never held across a call out. See
// docs/threads_and_locks.md.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "collector/collector_settings.h"
#include "collector/fd_handles.h"
#include "collector/kpi_index.h"
#include "collector/manager_link.h"
#include "collector/worker_threads.h"
#include "ipc/routed_collector.h"
#include "ledger/delivery_ledger.h"
#include "orb_sdk.h"
#include "serializer/kpi_serializer.h"
#include "serializer/licsn_tables.h"
#include "serializer/serializer_owner.h"
#include "serializer/telemetry_header.h"
#include "utility/fd_handle.h"
#include "utility/hot_mutex.h"
#include "utility/thread_annotations.h"

class KIVCampConfig;
class KPI;
class KPIFileSerializer;
class LTCCampaignDef;
class LicInfo;
class LicenseSNKPIMap;
class kivAIDLClient;

struct kiv_collector final : public SerializerOwner, public RoutedCollector {
 public:
  // Copies what it needs from cfg and loads the configuration file.
  explicit kiv_collector(const kiv_cfg_s* cfg);
  // DeRegister() came before: no thread may still be running.
  virtual ~kiv_collector();

  // --- Registration (kiv_collector.cpp). ---
  // 0, or -1 when a synchronous registration gave up, or an asynchronous one has no thread.
  int Register();
  // Joins the collector's threads, ends the session, tells the manager. The
  // manager's status, or -1 without a connection.
  int DeRegister() ORB_EXCLUDES(sessionMutex, stateMutex);
  // Makes the client forget this collector; no callback reaches it afterwards.
  // The last call before destruction, with no lock held.
  void Unroute() ORB_EXCLUDES(sessionMutex, stateMutex);
  // In the child of a fork(): makes this a collector without threads, which can be
  // destroyed without a wait and without a word to manager, HAL or disk. False when
  // one of the parent's threads was inside: it must be left as it is then.
  bool AdoptInChild() ORB_EXCLUDES(sessionMutex, stateMutex);
  bool LostConn() override;
  void LostConnThread() override ORB_EXCLUDES(sessionMutex, stateMutex);
  void SetIdentity(const std::string& token, int32_t clientId) override ORB_EXCLUDES(headerMutex);
  std::string Token() const { return link_.token(); }
  int32_t ClientId() const { return link_.client_id(); }
  bool stopping() const override { return stop_.raised(); }
  // Used instead of the process-wide client from the next registration on.
  void SetClientForTest(std::shared_ptr<kivAIDLClient> client);

  // --- Sessions (kiv_collector_session.cpp). ---
  int StartSession(const KIVCampConfig& config) override ORB_EXCLUDES(sessionMutex, stateMutex);
  int StopSession() override ORB_EXCLUDES(sessionMutex, stateMutex);
  int StopSessionLocked() ORB_REQUIRES(sessionMutex) ORB_EXCLUDES(stateMutex);
  int StartSessionForLicSN(uint64_t licSN) override ORB_EXCLUDES(sessionMutex);
  int StopSessionForLicSN(uint64_t licSN) override ORB_EXCLUDES(sessionMutex);
  bool validCfg(const LTCCampaignDef& def) const;
  void SetCampaignId(uint64_t campaignId) override { campaignId_.store(campaignId); }
  uint64_t GetCampaignId() const { return campaignId_.load(); }

  // --- Logging (kiv_collector_logging.cpp). ---
  int Log(uint32_t kpi, uint32_t value) ORB_EXCLUDES(stateMutex);
  int LogEvent(uint32_t kpi, uint32_t arg) ORB_EXCLUDES(stateMutex);
  int LogState(uint32_t kpi, uint32_t a, uint32_t b) ORB_EXCLUDES(stateMutex);
  int Log(uint32_t kpi, const uint8_t* buf, uint32_t len) ORB_EXCLUDES(stateMutex);
  int Log(uint32_t kpi, const kiv_blob_segment_t* segs, uint32_t count) ORB_EXCLUDES(stateMutex);
  int LogBuf(const uint8_t* buf, uint32_t len) ORB_EXCLUDES(stateMutex);
  int IsKPIEnabled(uint32_t kpi) ORB_EXCLUDES(stateMutex);
  // These two take no collector lock but a leaf, so callbacks may use them.
  void SetConfigParams(kiv_param_type_t type, uint32_t value) ORB_EXCLUDES(serializerMutex);
  void Flush() ORB_EXCLUDES(serializerMutex);
  // Records that the session's files do not hold yet; 0 without a session, and
  // with slots.
  size_t Pending() const ORB_EXCLUDES(serializerMutex);

  // --- Uploads (kiv_collector_upload.cpp). Called by the file serializer. ---
  int SendData(const std::string& path) override ORB_EXCLUDES(seqMutex);
  // gzip of the src_len bytes that remain in src into *dst, malloc'ed, the
  // caller's. 0, or -22, -12 or zlib's error with *dst null.
  int kiv_data_compress(FILE* src, uint32_t src_len, uint8_t** dst, uint32_t* dst_len);

  // --- Shared memory (kiv_collector_fd.cpp). ---
  kiv_fd_handle_s* SetFD(int fd, uint32_t offset, uint32_t length, kiv_fd_done_cb done) override;
  int FdWrite(const std::atomic<uint32_t>& fdToken, uint64_t unused, uint32_t offset,
              uint32_t size) override ORB_EXCLUDES(headerMutex, seqMutex);
  int UnsetFD(kiv_fd_handle_s* handle, const std::atomic<uint32_t>& fdToken) override;
  void FdWriteDone(uint32_t fdToken, uint32_t a, uint32_t b, int c,
                   const std::atomic<bool>& hal_died) override {
    handles_.RunDone(fdToken, a, b, c, hal_died);
  }
  // By a HAL that lives.
  void FdWriteDone(uint32_t fdToken, uint32_t a, uint32_t b, int c) {
    FdWriteDone(fdToken, a, b, c, false);
  }
  void LoseRegion(uint32_t fdToken) override;

  // --- What a serializer reads of its owner. ---
  const std::string& name() const override { return cfg_.name; }
  bool header_override() const override { return cfg_.header_override; }
  bool custom_session_format() const override { return cfg_.custom_session_format; }
  std::vector<uint8_t> BuildFileHeader(uint64_t licSN) override ORB_EXCLUDES(headerMutex);
  // Rebuilt only while no serializer exists.
  const LicSnKeyTable& licSnKeys() const override { return licSnKeys_; }
  const KpiLicSnTable& kpiLicSns() const override { return kpiLicSns_; }
  std::vector<uint64_t> OwnersOf(uint32_t kpi) const override;
  uint64_t SlotOwner() const override { return licSnKeys_.empty() ? 0 : licSnKeys_.begin()->first; }
  DeliveryLedger& ledger() override { return ledger_; }
  void NoteQueueDepth(uint64_t depth) override;

  // --- What this client is doing (kiv_collector_dump.cpp). ---
  // "key: value" lines, docs/operations.md. Any thread; waits for a session callback
  // of the client for at most a moment, and leaves out what it would say then.
  std::string Dump() override ORB_EXCLUDES(stateMutex);

  // Serializes what changes the session: starts and stops, of one owner too, and the
  // way back to a manager that died. Held across uploads and registrations, which
  // may take as long as others like, so nothing that logs takes it.
  orb::Mutex sessionMutex;
  // Guards the KPI table and what logging uses of the serializer. Each sample takes it,
  // so it is held for moments only, the client's session callbacks and the
  // announcement of a full slot apart.
  orb::HotMutex stateMutex;

 private:
  int RunRegistration();
  bool AttemptRegistration();

  int StartSessionLocked(const KIVCampConfig& config) ORB_REQUIRES(sessionMutex)
      ORB_EXCLUDES(stateMutex);
  int StartCustomSession(const KIVCampConfig& config) ORB_REQUIRES(sessionMutex)
      ORB_EXCLUDES(stateMutex);
  int StopCustomSession() ORB_REQUIRES(sessionMutex) ORB_EXCLUDES(stateMutex);
  int generateLicSn2IsvKeyMap(const std::vector<LicInfo>& list) ORB_REQUIRES(sessionMutex);
  int generateKpi2LicSNMap(const LicenseSNKPIMap& entry) ORB_REQUIRES(sessionMutex);
  bool ConfigureSerializer(const LTCCampaignDef& def, KPISerializer::Config* serializer)
      ORB_REQUIRES(sessionMutex);
  // Logging does not use it before SetCurrent().
  bool CreateSerializer(const KPISerializer::Config& config, const char* operation)
      ORB_REQUIRES(sessionMutex);
  struct KpiState;
  std::vector<KpiState> DescribeKPIs(Books* books) ORB_REQUIRES(stateMutex);
  bool CreateKPIs(const LTCCampaignDef& def) ORB_REQUIRES(stateMutex);
  bool FillKPITable(const LTCCampaignDef& def) ORB_REQUIRES(stateMutex);
  // Enters the KPIs into the books; samples of open windows are lost, by that cause.
  void BookKPIs(orb::LossCause open_windows) ORB_REQUIRES(stateMutex);
  void ClearKPIs() ORB_REQUIRES(stateMutex);
  int CallStart(const uint8_t* payload, size_t len) ORB_REQUIRES(stateMutex);
  int CallStop() ORB_REQUIRES(stateMutex);
  KPIFileSerializer* FilesOf(uint64_t licSN, const char* operation) ORB_REQUIRES(sessionMutex);
  void LogCalled(const char* operation) const;
  // Both when logging has let go of the serializer; they wait for its last upload.
  void FinalizeSerializer() ORB_REQUIRES(sessionMutex) ORB_EXCLUDES(stateMutex);
  // Drops what a failed start left behind: KPIs, then the serializer.
  void DropSession() ORB_REQUIRES(sessionMutex) ORB_EXCLUDES(stateMutex);
  std::shared_ptr<KPISerializer> Serializer() const ORB_EXCLUDES(serializerMutex);
  void SetSerializer(std::shared_ptr<KPISerializer> serializer) ORB_REQUIRES(sessionMutex)
      ORB_EXCLUDES(serializerMutex);
  // From here on raw buffers go to the session's serializer.
  void SetCurrent() ORB_REQUIRES(sessionMutex, stateMutex);

  int AnnouncePiece(const std::atomic<uint32_t>& fdToken, uint32_t offset, uint32_t size)
      ORB_EXCLUDES(headerMutex, seqMutex);

  // What became of one upload.
  struct Fate {
    uint32_t payload_bytes = 0;  // Before compression.
    std::optional<orb::LossCause> lost;
  };
  int SendOpenFile(FILE* file, const std::string& path, Fate* fate);
  std::string UploadName(int32_t clientId, uint64_t suffix) const;
  // The next upload's number, from the client's ".seq" file.
  uint32_t NextSeqno() ORB_EXCLUDES(seqMutex);

  const CollectorSettings cfg_;
  ManagerLink link_;
  StopSignal stop_;
  WorkerThreads registerThreads_{stop_};
  WorkerThreads lostConnThreads_{stop_};

  std::atomic<bool> sessionActive_{false};
  std::atomic<uint64_t> campaignId_{0};  // Host order; merged into headers when they are built.
  DeliveryLedger ledger_;
  std::atomic<uint64_t> queueDepthMax_{0};
  std::atomic<int64_t> lastSeqno_{-1};  // Of this process; -1: none yet.
  std::map<uint32_t, std::unique_ptr<KPI>> kpis_ ORB_GUARDED_BY(stateMutex);
  KpiIndex kpiIndex_ ORB_GUARDED_BY(stateMutex);  // Of kpis_, for the hot path.
  // What raw buffers go to: serializer_ without its leaf, or null while it is made or ended.
  KPISerializer* current_ ORB_GUARDED_BY(stateMutex) = nullptr;

  mutable orb::Mutex serializerMutex;
  std::shared_ptr<KPISerializer> serializer_ ORB_GUARDED_BY(serializerMutex);

  // See licSnKeys(): written under sessionMutex while no serializer exists.
  LicSnKeyTable licSnKeys_;
  KpiLicSnTable kpiLicSns_;
  LicSnFlagTable licSnEncrypt_;

  orb::Mutex headerMutex;
  TelemetryHeader header_ ORB_GUARDED_BY(headerMutex);

  orb::Mutex seqMutex;  // The ".seq" file's read and write are one step.

  FdHandles handles_;
};
