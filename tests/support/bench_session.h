// A real session for benchmarks and fuzz targets: a collector that was started with a
// campaign, with a HAL stubbed in process. Log output is discarded.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "collector/kiv_collector.h"
#include "ipc/kiv_aidl_client.h"

namespace orb::bench {

// A HAL that takes every upload and every announcement at once, unless it is told to delay.
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
  // Uploads do not return before LetUploadsGo(). WaitHeld() waits until one is held.
  void HoldUploads() { hold_ = true; }
  void WaitHeld() { held_.wait(false); }
  void LetUploadsGo();
  // The descriptor of the slots' memory; the session owns it.
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

// 65,536 draws from the ids first ... first+count-1, each of them at least once and the
// same in every run. The branch predictor would learn a short sequence that repeats, and
// a walk through a tree would look several times cheaper than it is.
std::vector<uint32_t> RandomIds(uint32_t first, uint32_t count);

}  // namespace orb::bench
