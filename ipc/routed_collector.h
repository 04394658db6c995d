// What the manager's and the HAL's calls are routed to: a collector, seen from below.
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
  // 0, or why there is no session: -1 or the client's own refusal.
  virtual int StartSession(const KIVCampConfig& config) = 0;
  virtual int StopSession() = 0;
  // One owner of the running session. 0.
  virtual int StartSessionForLicSN(uint64_t licSN) = 0;
  virtual int StopSessionForLicSN(uint64_t licSN) = 0;
  // The campaign of the next headers. No lock.
  virtual void SetCampaignId(uint64_t campaignId) = 0;
  // "key: value" lines. Tries for the state mutex for a moment only.
  virtual std::string Dump() = 0;

  // --- Registration. ---
  // What the manager assigned, before it is routable. Takes leaves only; called with
  // the lock of the manager's connection held.
  virtual void SetIdentity(const std::string& token, int32_t clientId) = 0;
  // True once it de-registers: then nothing waits for it any more. No lock.
  virtual bool stopping() const = 0;
  // The manager died. Starts a thread that runs LostConnThread(), and takes a leaf. False
  // when there is no thread: the caller then calls that itself.
  virtual bool LostConn() = 0;
  // Ends the session and registers again, which may take all attempts. Takes the session
  // mutex.
  virtual void LostConnThread() = 0;

  // --- From the HAL. ---
  // A piece of the region was consumed: runs the client's `done` functions, with no lock
  // held. None once *hal_died, which the client sets before it looks for the next HAL.
  virtual void FdWriteDone(uint32_t fdToken, uint32_t a, uint32_t b, int c,
                           const std::atomic<bool>& hal_died) = 0;
  // The HAL that has this region died: nothing is announced to it any more, and what was
  // is over. Takes leaves only; called with the lock of the HAL's connection held.
  virtual void LoseRegion(uint32_t fdToken) = 0;

 protected:
  RoutedCollector() = default;
  ~RoutedCollector() = default;  // Nobody destroys a collector through this.
};
