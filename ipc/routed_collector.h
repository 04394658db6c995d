// The collector, as the manager's and the HAL's calls need it.
//
// Every call comes with no lock of the client held, unless it says otherwise, on a
// thread of a binder pool; CollectorRoutes keeps the collector alive meanwhile.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

class KIVCampConfig;

class RoutedCollector {
 public:
  RoutedCollector(const RoutedCollector&) = delete;
  RoutedCollector& operator=(const RoutedCollector&) = delete;

  // --- From the manager. These take the collector's session and state mutexes, and
  // what is below them; a start uploads left-over files, an end waits for uploads. ---
  // 0; -1 or the client's own status when there is no session.
  virtual int StartSession(const KIVCampConfig& config) = 0;
  virtual int StopSession() = 0;
  // Starts or stops one owner of the running session. Always 0.
  virtual int StartSessionForLicSN(uint64_t licSN) = 0;
  virtual int StopSessionForLicSN(uint64_t licSN) = 0;
  // Headers carry this campaign from now on. Takes no lock.
  virtual void SetCampaignId(uint64_t campaignId) = 0;
  // "key: value" lines. Waits at most a quarter of a second for the state mutex.
  virtual std::string Dump() = 0;

  // --- Registration. ---
  // The manager has assigned these; called before the collector is routable, with the
  // lock of the manager's connection held. Takes leaves only.
  virtual void SetIdentity(const std::string& token, int32_t clientId) = 0;
  // True once it de-registers, when nobody must wait on its behalf. Takes no lock.
  virtual bool stopping() const = 0;
  // The manager died. Starts a thread that runs LostConnThread(), and takes a leaf. False
  // when there is no thread: the caller then calls that itself.
  virtual bool LostConn() = 0;
  // Ends the session and registers again, which may take all attempts. Takes the session
  // mutex.
  virtual void LostConnThread() = 0;

  // --- From the HAL. ---
  // A piece of the region was consumed: runs the client's `done` functions, with no lock
  // held. Runs none once *hal_died, which is set before the next HAL is looked for.
  virtual void FdWriteDone(uint32_t fdToken, uint32_t a, uint32_t b, int c,
                           const std::atomic<bool>& hal_died) = 0;
  // The HAL that has this region died: no piece is announced to it any more, and the
  // announced ones count as lost. Takes leaves only; the HAL connection's lock is held.
  virtual void LoseRegion(uint32_t fdToken) = 0;

 protected:
  RoutedCollector() = default;
  ~RoutedCollector() = default;  // A collector is not destroyed through this class.
};
