// A HAL that reads the announced slots of a region, and completes them when
// and as often as a test wants. Thread-safe.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "collector/kiv_collector.h"
#include "tests/support/fake_aidl_client.h"
#include "utility/unique_fd.h"

namespace orb::test {

class SlotHal : public FakeAidlClient {
 public:
  struct Slot {
    uint32_t fdToken;
    uint32_t offset;
    std::string bytes;
  };

  // Completes every piece that it takes inside its announcement, this many times; 0: when asked.
  explicit SlotHal(int completions_inside = 0) : completions_inside_(completions_inside) {}

  int setupFD(int fd, uint32_t offset, uint32_t length, RoutedCollector* collector,
              uint32_t* fdToken) override {
    const int result = FakeAidlClient::setupFD(fd, offset, length, collector, fdToken);
    MutexLock lock(mutex_);
    if (result == 0) regions_[*fdToken].reset(fcntl(fd, F_DUPFD_CLOEXEC, 0));
    return result;
  }

  int FdWrite(const std::string& token, const std::atomic<uint32_t>& fdToken,
              const std::string& name, const std::vector<uint8_t>& header, uint32_t offset,
              uint32_t size, CompressType compress) override {
    const int result =
        FakeAidlClient::FdWrite(token, fdToken, name, header, offset, size, compress);
    if (result != 0 || fdToken == kiv_fd_handle_s::kNoToken) return result != 0 ? result : -1;
    std::string bytes(size, '?');
    {
      MutexLock lock(mutex_);
      if (pread(regions_.at(fdToken).get(), bytes.data(), size, offset) != ssize_t{size}) return -1;
      slots_.push_back({fdToken, offset, bytes});
    }
    for (int i = 0; i < completions_inside_; ++i) collector_->FdWriteDone(fdToken, offset, size, 0);
    return result;
  }

  int UnsetFD(const std::string& token, const std::atomic<uint32_t>& fdToken) override {
    MutexLock lock(mutex_);
    regions_.erase(fdToken);
    return FakeAidlClient::UnsetFD(token, fdToken);
  }

  void Serve(kiv_collector* collector) { collector_ = collector; }
  // What was announced successfully, oldest first, as it was at that time.
  std::vector<Slot> Slots() const {
    MutexLock lock(mutex_);
    return slots_;
  }
  std::string AllBytes() const {
    std::string out;
    for (const Slot& slot : Slots()) out += slot.bytes;
    return out;
  }
  // Completes the `nth` announcement (0: the first), with no lock held.
  void Complete(size_t nth) {
    const Slot slot = Slots().at(nth);
    collector_->FdWriteDone(slot.fdToken, slot.offset, static_cast<uint32_t>(slot.bytes.size()), 0);
  }

 private:
  const int completions_inside_;
  kiv_collector* collector_ = nullptr;
  mutable Mutex mutex_;
  std::map<uint32_t, UniqueFd> regions_ ORB_GUARDED_BY(mutex_);
  std::vector<Slot> slots_ ORB_GUARDED_BY(mutex_);
};

}  // namespace orb::test
