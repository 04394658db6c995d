// A HAL that reads the announced slots of a region, and completes them when
// and as often as a test wants. Thread-safe.
#pragma once

#include <sys/mman.h>

#include <map>
#include <string>
#include <vector>

#include "collector/kiv_collector.h"
#include "tests/support/fake_aidl_client.h"

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
  ~SlotHal() override {
    for (const auto& [token, region] : regions_) munmap(region.base, region.bytes);
  }

  int setupFD(int fd, uint32_t offset, uint32_t length, const std::string& token,
              uint32_t* fdToken) override {
    const int result = FakeAidlClient::setupFD(fd, offset, length, token, fdToken);
    if (result != 0) return result;
    void* base = mmap(nullptr, length, PROT_READ, MAP_SHARED, fd, offset);
    MutexLock lock(mutex_);
    regions_[*fdToken] = {base, length};
    return 0;
  }

  int FdWrite(const std::string& token, uint32_t fdToken, const std::string& name,
              const std::vector<uint8_t>& header, uint32_t offset, uint32_t size,
              CompressType compress) override {
    const int result =
        FakeAidlClient::FdWrite(token, fdToken, name, header, offset, size, compress);
    if (result != 0) return result;
    {
      MutexLock lock(mutex_);
      const char* base = static_cast<const char*>(regions_.at(fdToken).base);
      slots_.push_back({fdToken, offset, std::string(base + offset, size)});
    }
    for (int i = 0; i < completions_inside_; ++i) collector_->FdWriteDone(fdToken, offset, size, 0);
    return result;
  }

  int UnsetFD(const std::string& token, uint32_t fdToken) override {
    {
      MutexLock lock(mutex_);
      const auto it = regions_.find(fdToken);
      if (it != regions_.end()) {
        munmap(it->second.base, it->second.bytes);
        regions_.erase(it);
      }
    }
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
  struct Region {
    void* base;
    size_t bytes;
  };
  const int completions_inside_;
  kiv_collector* collector_ = nullptr;
  mutable Mutex mutex_;
  std::map<uint32_t, Region> regions_ GUARDED_BY(mutex_);
  std::vector<Slot> slots_ GUARDED_BY(mutex_);
};

}  // namespace orb::test
