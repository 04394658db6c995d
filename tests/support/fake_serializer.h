// A serializer that keeps what it is given. Any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "proto/kpi_data.pb.h"
#include "serializer/kpi_serializer.h"
#include "utility/thread_annotations.h"

namespace orb::test {

class FakeSerializer : public KPISerializer {
 public:
  struct Record {
    orbtr::KPIData data;
    std::string bytes;  // As serialized.
    uint32_t kpi_id;    // The routing id, not the record's own.
  };
  struct Segments {
    uint32_t kpi_id;
    uint64_t ts_start;
    uint64_t ts_end;
    uint32_t num_samples;
    std::vector<std::string> pieces;
  };

  FakeSerializer() : KPISerializer("FakeSerializer") {}

  // The n-th write from now (1: the next) is not kept and answers `result`.
  void FailCall(int n, int result) {
    MutexLock lock(mutex_);
    calls_until_failure_ = n;
    failure_ = result;
  }

  int Write(orbtr::KPIData& data, unsigned int kpiId) override {
    MutexLock lock(mutex_);
    if (Fails()) return failure_;
    records_.push_back({data, data.SerializeAsString(), kpiId});
    return 0;
  }
  int WriteBuf(const unsigned char*, unsigned int) override { return 0; }
  int WriteBlobSegsOptimized(unsigned int kpiId, uint64_t tsStart, uint64_t tsEnd,
                             unsigned int numSamples, const kiv_blob_segment_t* segs,
                             unsigned int count) override {
    MutexLock lock(mutex_);
    if (Fails()) return failure_;
    segments_.push_back({kpiId, tsStart, tsEnd, numSamples, {}});
    for (unsigned int i = 0; i < count; ++i) {
      segments_.back().pieces.emplace_back(reinterpret_cast<const char*>(segs[i].buf), segs[i].len);
    }
    return 0;
  }
  int Flush() override { return 0; }
  int Finalize() override { return 0; }

  std::vector<Record> records() const {
    MutexLock lock(mutex_);
    return records_;
  }
  std::vector<Segments> segments() const {
    MutexLock lock(mutex_);
    return segments_;
  }

 private:
  bool Fails() REQUIRES(mutex_) { return calls_until_failure_ > 0 && --calls_until_failure_ == 0; }

  mutable Mutex mutex_;
  int calls_until_failure_ GUARDED_BY(mutex_) = 0;
  int failure_ GUARDED_BY(mutex_) = 0;
  std::vector<Record> records_ GUARDED_BY(mutex_);
  std::vector<Segments> segments_ GUARDED_BY(mutex_);
};

}  // namespace orb::test
