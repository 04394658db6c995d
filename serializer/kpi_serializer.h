// Where finished records go: files (KPIFileSerializer) or shared-memory slots
// (KPIMemorySerializer). A collector owns one serializer for a session.
// Every operation may be called from any thread.
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
    uint32_t type = 0;               // 1 files, 2 shared-memory slots; else none.
    uint32_t sizeThreshold = 0;      // Files: bytes before a file is sent. Slots: bytes in all.
    uint32_t timeThreshold = 0;      // Files: seconds. Slots: number of slots.
    const char* cacheDir = nullptr;  // Files only.
    SerializerOwner* collector = nullptr;  // The owner; outlives the serializer.
  };

  // Null for an unknown type, or when the serializer could not be initialised.
  static std::unique_ptr<KPISerializer> Create(const Config& config);

  // A record to fill and hand to Write, of a kind that aggregates. It is the same object each
  // time, and empty but for its metadata, whose fields keep their values: set every one. A
  // closing window thus allocates no record. Not thread-safe: the collector serializes its
  // KPIs.
  orbtr::KPIData& EmptyRecord(orb::KpiKind kind);

  // Accepts one record; kpiId routes it to the LicSNs of that KPI. 0 on success.
  virtual int Write(orbtr::KPIData& data, unsigned int kpiId) = 0;

  // Accepts an already serialized record of len bytes.
  virtual int WriteBuf(const unsigned char* buf, unsigned int len) = 0;

  // Accepts a blob as segments, to be encoded without gathering them first.
  // tsStart and tsEnd in tenths of a second of the monotonic clock. -1 when
  // the serializer cannot.
  virtual int WriteBlobSegsOptimized(unsigned int kpiId, uint64_t tsStart, uint64_t tsEnd,
                                     unsigned int numSamples, const kiv_blob_segment_t* segs,
                                     unsigned int count) = 0;

  // Sets one of the thresholds; an unknown parameter is ignored.
  virtual void UpdateConfig(kiv_param_type_t param, unsigned int value) {
    if (param == KIV_PARAM_SIZE_THRESHOLD) sizeThreshold = value;
    if (param == KIV_PARAM_TIME_THRESHOLD) timeThreshold = value;
  }

  // Pushes everything buffered towards its destination.
  virtual int Flush() = 0;

  // Flushes and stops; no work is accepted afterwards.
  virtual int Finalize() = 0;

  // Ends a session that never ran, without flushing.
  virtual void Abandon() {}

  // In the child of a fork(), before destruction: forgets the parent's threads, and
  // leaves files and regions to it. False when one of its threads was inside, and
  // this object is not whole.
  virtual bool AdoptInChild() { return true; }

  virtual ~KPISerializer();

  // What waits. Files: items queued or being written, flushes included. Slots:
  // slots that the HAL has.
  struct Backlog {
    uint64_t depth = 0;
    uint64_t depth_max = 0;  // The most there were so far.
    uint64_t samples = 0;    // Files: of the records among them, each record once.
    // Slots: in the current one. Files: in the ledger.
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

  // What the metadata of the records counts; a blob is one sample.
  static uint64_t SamplesOf(const orbtr::KPIData& data);

  SerializerOwner* collector = nullptr;  // These two are set by Initialize.
  std::shared_ptr<const LicSnTables> tables;
  const char* name;
  std::atomic<uint32_t> sizeThreshold{0};
  std::atomic<uint32_t> timeThreshold{0};

 private:
  const std::vector<std::unique_ptr<orbtr::KPIData>> records_;  // By KpiKind.
};
