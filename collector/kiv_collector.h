// One registered client: its registration with the manager, and the parts that do the
// rest. Session measures; Uploader and Regions hand data over. The calls of the manager,
// of the HAL and of serializers arrive at this class.
//
// Life: constructed -> Register() -> sessions come and go -> DeRegister() ->
// Unroute() -> destroyed. A lost manager stops the session and registers again.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "collector/collector_header.h"
#include "collector/collector_settings.h"
#include "collector/gzip.h"
#include "collector/manager_link.h"
#include "collector/regions.h"
#include "collector/session.h"
#include "collector/uploader.h"
#include "collector/worker_threads.h"
#include "ipc/routed_collector.h"
#include "ledger/delivery_ledger.h"
#include "orb_sdk.h"
#include "serializer/serializer_owner.h"

class kivAIDLClient;

struct kiv_collector final : public SerializerOwner, public RoutedCollector {
 public:
  // Copies what it needs from cfg and loads the configuration file.
  explicit kiv_collector(const kiv_cfg_s* cfg);
  // Unroute() or AdoptInChild() came before, and no thread runs any more.
  virtual ~kiv_collector();

  // --- Registration. ---
  // 0, or -1 when a synchronous registration gave up, or an asynchronous one has no thread.
  int Register();
  // Joins the collector's threads, ends the session, tells the manager. The
  // manager's status, or -1 without a connection.
  int DeRegister();
  // Makes the client forget this collector, which no callback reaches afterwards, and
  // drops what a refused session has left. The last call before destruction, with no
  // lock held.
  void Unroute();
  // Call in the child of a fork(). Makes this a collector without threads, which can be
  // destroyed without a wait and without a call to manager, HAL or disk. False when a
  // thread of the parent was inside: leave the collector as it is then.
  bool AdoptInChild();
  bool LostConn() override;
  void LostConnThread() override;
  void SetIdentity(const std::string& token, int32_t clientId) override;
  std::string Token() const { return link_.token(); }
  int32_t ClientId() const { return link_.client_id(); }
  bool stopping() const override { return stop_.raised(); }
  // Used instead of the process-wide client from the next registration on.
  void SetClientForTest(std::shared_ptr<kivAIDLClient> client);

  // --- Sessions and logging: see Session. ---
  int StartSession(const KIVCampConfig& config) override { return session_.StartSession(config); }
  int StopSession() override { return session_.StopSession(); }
  int StartSessionForLicSN(uint64_t licSN) override { return session_.StartSessionForLicSN(licSN); }
  int StopSessionForLicSN(uint64_t licSN) override { return session_.StopSessionForLicSN(licSN); }
  bool validCfg(const LTCCampaignDef& def) const { return Session::validCfg(def); }
  void SetCampaignId(uint64_t campaignId) override { header_.SetCampaignId(campaignId); }
  uint64_t GetCampaignId() const { return header_.campaign_id(); }

  int Log(uint32_t kpi, uint32_t value) { return session_.Log(kpi, value); }
  int LogEvent(uint32_t kpi, uint32_t arg) { return session_.LogEvent(kpi, arg); }
  int LogState(uint32_t kpi, uint32_t a, uint32_t b) { return session_.LogState(kpi, a, b); }
  int Log(uint32_t kpi, const uint8_t* buf, uint32_t len) { return session_.Log(kpi, buf, len); }
  int Log(uint32_t kpi, const kiv_blob_segment_t* segs, uint32_t count) {
    return session_.Log(kpi, segs, count);
  }
  int LogBuf(const uint8_t* buf, uint32_t len) { return session_.LogBuf(buf, len); }
  int IsKPIEnabled(uint32_t kpi) { return session_.IsKPIEnabled(kpi); }
  void SetConfigParams(kiv_param_type_t type, uint32_t value) {
    session_.SetConfigParams(type, value);
  }
  void Flush() { session_.Flush(); }
  size_t Pending() const { return session_.Pending(); }

  // --- Uploads: see Uploader and GzipRest. ---
  int SendData(const std::string& path) override {
    return uploader_.SendData(path, *session_.tables());
  }
  int kiv_data_compress(FILE* src, uint32_t src_len, uint8_t** dst, uint32_t* dst_len) {
    return GzipRest(src, src_len, dst, dst_len);
  }

  // --- Shared memory: see Regions. ---
  kiv_fd_handle_s* SetFD(int fd, uint32_t offset, uint32_t length, kiv_fd_done_cb done) override {
    return regions_.Set(fd, offset, length, done);
  }
  int FdWrite(const std::atomic<uint32_t>& fdToken, uint64_t /*unused*/, uint32_t offset,
              uint32_t size) override {
    return regions_.Write(fdToken, offset, size);
  }
  int UnsetFD(kiv_fd_handle_s* handle, const std::atomic<uint32_t>& fdToken) override {
    return regions_.Unset(handle, fdToken);
  }
  void FdWriteDone(uint32_t fdToken, uint32_t a, uint32_t b, int c,
                   const std::atomic<bool>& hal_died) override {
    regions_.Done(fdToken, a, b, c, hal_died);
  }
  // For a HAL that lives.
  void FdWriteDone(uint32_t fdToken, uint32_t a, uint32_t b, int c) {
    regions_.Done(fdToken, a, b, c, false);
  }
  void LoseRegion(uint32_t fdToken) override { regions_.Lose(fdToken); }

  // --- What a serializer reads of its owner. ---
  const std::string& name() const override { return cfg_.name; }
  bool header_override() const override { return cfg_.header_override; }
  bool custom_session_format() const override { return cfg_.custom_session_format; }
  std::vector<uint8_t> BuildFileHeader(uint64_t licSN) override { return header_.ForFile(licSN); }
  std::shared_ptr<const LicSnTables> tables() const override { return session_.tables(); }
  DeliveryLedger& ledger() override { return ledger_; }
  void NoteQueueDepth(uint64_t depth) override;

  // "key: value" lines, docs/operations.md. Any thread. Waits for a session callback
  // of the client for a quarter of a second and leaves the KPIs out after that.
  std::string Dump() override;

 private:
  int RunRegistration();
  bool AttemptRegistration();

  const CollectorSettings cfg_;
  ManagerLink link_;
  StopSignal stop_;
  WorkerThreads registerThreads_{stop_};
  WorkerThreads lostConnThreads_{stop_};
  DeliveryLedger ledger_;
  std::atomic<uint64_t> queueDepthMax_{0};
  std::atomic<bool> abandoned_{false};  // Nothing reaches it any more.
  CollectorHeader header_{cfg_};
  Uploader uploader_{cfg_, link_, &ledger_};
  Regions regions_{this, cfg_, link_, &header_, &uploader_};
  Session session_{this, cfg_, link_, stop_, &ledger_, &header_};  // Uses all of these.
};
