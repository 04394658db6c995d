// Takes finished records and writes them to files (KPIFileSerializer) or to slots of shared
// memory (KPIMemorySerializer). A collector owns one serializer for a session. Any thread may
// call any function, unless its comment says otherwise.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "orb_sdk.h"

class SerializerOwner;
struct LicSnTables;

namespace orb {
enum class KpiKind : uint8_t;
}
namespace orbtr {
class KPIData;
}

class KPISerializer {
 public:
  struct Config {
    uint32_t type = 0;               // 1: files, 2: shared-memory slots.
    uint32_t sizeThreshold = 0;      // Files: bytes before a file is sent. Slots: bytes in all.
    uint32_t timeThreshold = 0;      // Files: seconds. Slots: number of slots.
    const char* cacheDir = nullptr;  // Files only.
    SerializerOwner* collector = nullptr;  // The owner; outlives the serializer.
  };

  // Returns null for an unknown type, or when the serializer cannot be initialised.
  static std::unique_ptr<KPISerializer> Create(const Config& config);

  // A record to fill and hand to Write, of a kind that aggregates. It is the same object each
  // time, and empty but for its metadata, whose fields keep their values: set every one. A
  // closing window thus allocates no record. Not thread-safe: the collector serializes its
  // KPIs.
  orbtr::KPIData& EmptyRecord(orb::KpiKind kind);

  // Takes one record, which goes to the LicSNs of the KPI kpiId. 0 on success.
  virtual int Write(orbtr::KPIData& data, unsigned int kpiId) = 0;

  // Takes a record of len bytes that is serialized already.
  virtual int WriteBuf(const unsigned char* buf, unsigned int len) = 0;

  // Takes a blob as segments and encodes it without gathering them first. tsStart and tsEnd
  // are tenths of a second of the monotonic clock. -1 when the serializer cannot do this.
  virtual int WriteBlobSegsOptimized(unsigned int kpiId, uint64_t tsStart, uint64_t tsEnd,
                                     unsigned int numSamples, const kiv_blob_segment_t* segs,
                                     unsigned int count) = 0;

  // Sets one of the thresholds; an unknown parameter is ignored.
  virtual void UpdateConfig(kiv_param_type_t param, unsigned int value) {
    if (param == KIV_PARAM_SIZE_THRESHOLD) sizeThreshold = value;
    if (param == KIV_PARAM_TIME_THRESHOLD) timeThreshold = value;
  }

  // Sends all records that are buffered.
  virtual int Flush() = 0;

  // Flushes and stops. No record is accepted afterwards.
  virtual int Finalize() = 0;

  // Ends a session that never ran, without flushing.
  virtual void Abandon() {}

  // Call in the child of a fork(), before destruction. Forgets the parent's threads and leaves
  // files and regions to the parent. False when a thread of the parent was inside: then this
  // object is not whole.
  virtual bool AdoptInChild() { return true; }

  virtual ~KPISerializer();

  // How much is waiting. With files these are items queued or being written, flushes
  // included. With slots these are slots that the HAL has.
  struct Backlog {
    uint64_t depth = 0;
    uint64_t depth_max = 0;  // The largest depth so far.
    uint64_t samples = 0;    // Files only: samples in waiting records, each record once.
    // Slots only: what the current slot holds. With files the ledger has this.
    uint64_t open_owner = 0;
    uint64_t open_records = 0;
    uint64_t open_samples = 0;
    uint64_t open_bytes = 0;
  };
  virtual Backlog backlog() { return {}; }

  KPISerializer(const KPISerializer&) = delete;
  KPISerializer& operator=(const KPISerializer&) = delete;

 protected:
  explicit KPISerializer(const char* name);

  // Samples in all records of `data`.
  static uint64_t SamplesOf(const orbtr::KPIData& data);

  SerializerOwner* collector = nullptr;  // These two are set by Initialize.
  std::shared_ptr<const LicSnTables> tables;
  const char* name;
  std::atomic<uint32_t> sizeThreshold{0};
  std::atomic<uint32_t> timeThreshold{0};

 private:
  const std::vector<std::unique_ptr<orbtr::KPIData>> records_;  // By KpiKind.
};
