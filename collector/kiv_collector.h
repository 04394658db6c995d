// One registered client: its registration with the manager, its sessions, the
// samples it logs and the uploads of what they became.
//
// Life: constructed -> Register() -> sessions come and go -> DeRegister() ->
// destroyed. A lost manager stops the session and registers again.
//
// Lock order, taken only downwards: stateMutex, the serializer's own mutexes,
// the client's mutex, then the leaves (identity, header, handles, seq, thread,
// serializer pointer). A leaf is never held across a call out. See
// docs/threads_and_locks.md.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "orb_sdk.h"
#include "serializer/telemetry_header.h"
#include "utility/thread_annotations.h"

class KIVCampConfig;
class KPI;
class KPISerializer;
class LTCCampaignDef;
class LicInfo;
class LicenseSNKPIMap;
class kivAIDLClient;

// How the data of one LicSN is sealed: for whom, and with which algorithms.
struct ISVKeyStruct {
  std::string encryptionPKey;  // PEM text, as received.
  int pKeyEncAlgo = 0;
  int sKeyEncAlgo = 0;
};

// Announced shared memory. The layout is fixed; clients only pass the pointer.
// Allocated with malloc; clients may free() it after kiv_unset_fd.
struct kiv_fd_handle_s {
  uint32_t fdToken;
  int fd;
  uint32_t offset;
  uint32_t length;
  kiv_fd_done_cb fn;
  kiv_collector* collector;
};
static_assert(sizeof(kiv_fd_handle_s) == 32 && offsetof(kiv_fd_handle_s, collector) == 24);

struct kiv_collector {
 public:
  using LicSnKeyTable = std::map<uint64_t, ISVKeyStruct>;
  using KpiLicSnTable = std::map<uint32_t, std::vector<uint64_t>>;
  using LicSnFlagTable = std::map<uint64_t, bool>;

  // Copies what it needs from cfg and loads the configuration file.
  explicit kiv_collector(const kiv_cfg_s* cfg);
  // Call DeRegister() first: no thread may still be running.
  virtual ~kiv_collector();
  kiv_collector(const kiv_collector&) = delete;
  kiv_collector& operator=(const kiv_collector&) = delete;

  // --- Registration (kiv_collector.cpp). ---
  // 0, or -1 when a synchronous registration gave up.
  int Register();
  // Joins the collector's threads, ends the session, tells the manager. The
  // manager's status, or -1 without a connection.
  int DeRegister() EXCLUDES(stateMutex, threadMutex);
  // The manager died. Only starts a thread, so it may run under the client's mutex.
  void LostConn() EXCLUDES(threadMutex);
  // What the manager assigned. Called by the client before the token is routable.
  void SetIdentity(const std::string& token, int32_t clientId) EXCLUDES(identityMutex, headerMutex);
  std::string Token() const EXCLUDES(identityMutex);
  int32_t ClientId() const EXCLUDES(identityMutex);
  // Used instead of the process-wide client from the next registration on.
  void SetClientForTest(std::shared_ptr<kivAIDLClient> client) EXCLUDES(identityMutex);

  // --- Sessions (kiv_collector_session.cpp). ---
  int StartSession(const KIVCampConfig& config) EXCLUDES(stateMutex);
  int StopSession() EXCLUDES(stateMutex);
  int StopSessionLocked() REQUIRES(stateMutex);
  int StartSessionForLicSN(uint64_t licSN) EXCLUDES(stateMutex);
  int StopSessionForLicSN(uint64_t licSN) EXCLUDES(stateMutex);
  bool validCfg(const LTCCampaignDef& def) const;
  void SetCampaignId(uint64_t campaignId) { campaignId_.store(campaignId); }
  uint64_t GetCampaignId() const { return campaignId_.load(); }

  // --- Logging (kiv_collector_logging.cpp). ---
  int Log(uint32_t kpi, uint32_t value) EXCLUDES(stateMutex);
  int LogEvent(uint32_t kpi, uint32_t arg) EXCLUDES(stateMutex);
  int LogState(uint32_t kpi, uint32_t a, uint32_t b) EXCLUDES(stateMutex);
  int Log(uint32_t kpi, const uint8_t* buf, uint32_t len) EXCLUDES(stateMutex);
  int Log(uint32_t kpi, const kiv_blob_segment_t* segs, uint32_t count) EXCLUDES(stateMutex);
  int LogBuf(const uint8_t* buf, uint32_t len) EXCLUDES(stateMutex);
  int IsKPIEnabled(uint32_t kpi) EXCLUDES(stateMutex);
  // These two take no collector lock but a leaf, so callbacks may use them.
  void SetConfigParams(kiv_param_type_t type, uint32_t value) EXCLUDES(serializerMutex);
  void Flush() EXCLUDES(serializerMutex);

  // --- Uploads (kiv_collector_upload.cpp). Called by the file serializer. ---
  // Compresses, seals and sends one closed data file, then deletes it. The
  // HAL's status; -1 when nothing was sent. Takes leaf locks only.
  int SendData(const std::string& path) EXCLUDES(identityMutex, seqMutex);
  // gzip of the src_len bytes that remain in src into *dst, malloc'ed, the
  // caller's. 0, -22, -12 or zlib's error.
  int kiv_data_compress(FILE* src, uint32_t src_len, uint8_t** dst, uint32_t* dst_len);

  // --- Shared memory (kiv_collector_fd.cpp). ---
  kiv_fd_handle_s* SetFD(int fd, uint32_t offset, uint32_t length, kiv_fd_done_cb done)
      EXCLUDES(handlesMutex);
  int FdWrite(uint32_t fdToken, uint64_t unused, uint32_t offset, uint32_t size)
      EXCLUDES(headerMutex, seqMutex);
  int UnsetFD(kiv_fd_handle_s* handle, uint32_t fdToken) EXCLUDES(handlesMutex);
  // A piece was consumed: runs the completion functions, with no lock held.
  void FdWriteDone(uint32_t fdToken, uint32_t a, uint32_t b, int c) EXCLUDES(handlesMutex);

  // --- What a serializer reads of its owner. ---
  const std::string& name() const { return name_; }
  bool header_override() const { return header_override_; }
  bool custom_session_format() const { return custom_session_format_ != 0; }
  // The 66 header bytes of a new file of this LicSN: constants, campaign,
  // client id, timestamps of now.
  std::vector<uint8_t> BuildFileHeader(uint64_t licSN) EXCLUDES(headerMutex);
  // Rebuilt only while no serializer exists, so a serializer and its writer
  // thread read them without a lock.
  const LicSnKeyTable& licSnKeys() const { return licSnKeys_; }
  const KpiLicSnTable& kpiLicSns() const { return kpiLicSns_; }

  // Guards session state, KPI table and the serializer's creation and end.
  orb::Mutex stateMutex;

 private:
  int RunRegistration();
  bool AttemptRegistration() EXCLUDES(identityMutex);
  void LostConnThread() EXCLUDES(stateMutex);
  void JoinThreads() EXCLUDES(threadMutex);
  std::shared_ptr<kivAIDLClient> Client() const EXCLUDES(identityMutex);
  void ResetClient() EXCLUDES(identityMutex);

  int StartCustomSession(const KIVCampConfig& config) REQUIRES(stateMutex);
  int StopCustomSession() REQUIRES(stateMutex);
  int generateLicSn2IsvKeyMap(const std::vector<LicInfo>& list) REQUIRES(stateMutex);
  int generateKpi2LicSNMap(const LicenseSNKPIMap& entry) REQUIRES(stateMutex);
  // Drops what a failed start left behind: KPIs, then the serializer.
  void DropSession() REQUIRES(stateMutex);
  std::shared_ptr<KPISerializer> Serializer() const EXCLUDES(serializerMutex);
  void SetSerializer(std::shared_ptr<KPISerializer> serializer) EXCLUDES(serializerMutex);

  // The next upload's number, from the client's ".seq" file.
  uint32_t NextSeqno() EXCLUDES(seqMutex);

  const std::string name_;
  const std::string data_dir_;
  const uint32_t registration_arg1_;
  const uint32_t registration_arg2_;
  const uint8_t custom_session_format_;
  const kiv_start_session_cb start_session_cb_;
  const kiv_stop_session_cb stop_session_cb_;
  const uint32_t client_mode_;
  const bool sync_register_;
  const bool header_override_;
  const bool hbt_;
  const bool allocate_fd_;
  const uint32_t fd_slot_size_;
  const uint32_t fd_nof_slots_;
  const uint32_t fd_arg3_;
  const uint32_t fd_arg4_;
  const std::string upload_prefix_ = "/up";

  std::atomic<bool> stopping_{false};
  std::atomic<bool> sessionActive_{false};
  std::atomic<uint64_t> campaignId_{0};  // Host order; merged into headers when they are built.

  std::map<uint32_t, std::unique_ptr<KPI>> kpis_ GUARDED_BY(stateMutex);

  mutable orb::Mutex serializerMutex;
  std::shared_ptr<KPISerializer> serializer_ GUARDED_BY(serializerMutex);

  // See licSnKeys(): written under stateMutex while no serializer exists.
  LicSnKeyTable licSnKeys_;
  KpiLicSnTable kpiLicSns_;
  LicSnFlagTable licSnEncrypt_;

  mutable orb::Mutex identityMutex;
  std::shared_ptr<kivAIDLClient> client_ GUARDED_BY(identityMutex);
  std::shared_ptr<kivAIDLClient> clientForTest_ GUARDED_BY(identityMutex);
  std::string token_ GUARDED_BY(identityMutex);
  int32_t clientId_ GUARDED_BY(identityMutex) = 0;

  orb::Mutex headerMutex;
  TelemetryHeader header_ GUARDED_BY(headerMutex);

  orb::Mutex seqMutex;

  orb::Mutex threadMutex;
  std::vector<std::thread> registerThreads_ GUARDED_BY(threadMutex);
  std::vector<std::thread> lostConnThreads_ GUARDED_BY(threadMutex);

  orb::Mutex handlesMutex;
  std::vector<kiv_fd_handle_s*> handles_ GUARDED_BY(handlesMutex);
};

// The number stored in the file at path (0 when missing), which then holds the next.
uint32_t next_seqno(const char* path);
