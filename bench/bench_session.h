// A real session for benchmarks: a collector started from a campaign, with the
// HAL stubbed in process and log output discarded.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "collector/kiv_collector.h"
#include "ipc/kiv_aidl_client.h"

namespace orb::bench {

// Takes every upload and announce at once. Can be told to take its time.
class StubClient : public kivAIDLClient {
 public:
  int registerClient(const std::string& name, uint32_t type, uint32_t option,
                     RoutedCollector* collector) override;
  int sendData(const std::string& token, const std::string& name, const uint8_t* header,
               uint32_t headerLen, const uint8_t* data, uint32_t dataLen, const uint8_t* footer,
               uint32_t footerLen) override;
  int deRegisterClient(const std::string& token) override;
  int setupFD(int fd, uint32_t offset, uint32_t length, RoutedCollector* collector,
              uint32_t* fdToken) override;
  int FdWrite(const std::string& token, const std::atomic<uint32_t>& fdToken,
              const std::string& name, const std::vector<uint8_t>& header, uint32_t offset,
              uint32_t size, CompressType compress) override;
  int UnsetFD(const std::string& token, const std::atomic<uint32_t>& fdToken) override;

  // Completes an announced piece at once, from inside FdWrite.
  void CompleteAnnounces(kiv_collector* collector) { complete_ = collector; }
  void DelayCalls(int ms) { delay_ms_ = ms; }
  // From now on an upload does not return until it is let go.
  void HoldUploads() { hold_ = true; }
  void WaitHeld() { held_.wait(false); }
  void LetUploadsGo();
  // The slots' memory, the session's.
  int region() const { return region_; }

 private:
  int region_ = -1;
  kiv_collector* complete_ = nullptr;
  int delay_ms_ = 0;
  std::atomic<bool> hold_{false};
  std::atomic<bool> held_{false};
};

struct KpiMix {
  uint32_t counters = 0;    // Ids 1 ...
  uint32_t gauges = 0;      // Ids 100001 ...
  uint32_t histograms = 0;  // Ids 200001 ..., ten buckets each.
  uint32_t time_window_ms = 86400000;
  uint32_t sample_window = 0;  // When set, in place of the time window.
};
constexpr uint32_t kFirstCounter = 1;
constexpr uint32_t kFirstGauge = 100001;
constexpr uint32_t kFirstHistogram = 200001;

// A serialized campaign of one LicSN, 42.
std::string Campaign(const KpiMix& mix);

class Session {
 public:
  struct Options {
    bool slots = false;
    uint32_t slot_bytes = 65536;
    uint32_t slots_count = 16;
    bool start = true;
  };
  explicit Session(const KpiMix& mix) : Session(mix, Options{}) {}
  Session(const KpiMix& mix, const Options& options);
  ~Session();

  kiv_collector* get() { return collector_.get(); }
  StubClient& client() { return *client_; }
  const std::string& dir() const { return dir_; }
  int Start(const std::string& campaign);

 private:
  std::string dir_;
  std::shared_ptr<StubClient> client_;
  std::unique_ptr<kiv_collector> collector_;
};

// 65,536 draws from the ids first ... first+count-1, each of them at least once;
// the same draws in every run. A short sequence, repeated, would be learnt by
// the branch predictor: a tree walk then looks several times cheaper than it is.
std::vector<uint32_t> RandomIds(uint32_t first, uint32_t count);

}  // namespace orb::bench
