// Tested by tests/collector/session_test.cpp.
#include "serializer/kpi_serializer.h"

#include "proto/kpi_kinds.h"
#include "serializer/kpi_file_serializer.h"
#include "serializer/kpi_memory_serializer.h"
#include "utility/checked.h"
#include "utility/log.h"

namespace {

constexpr uint32_t kFiles = 1;
constexpr uint32_t kSlots = 2;

std::unique_ptr<KPISerializer> CreateFiles(const KPISerializer::Config& config) {
  auto files = std::make_unique<KPIFileSerializer>();
  if (files->Initialize(config.cacheDir, config.sizeThreshold, config.timeThreshold,
                        config.collector) < 0) {
    LOGE("KPISerializer::%s: Failed to initialze KPIFileSerializer", "Create");
    return nullptr;
  }
  return files;
}

std::unique_ptr<KPISerializer> CreateSlots(const KPISerializer::Config& config) {
  auto slots = std::make_unique<KPIMemorySerializer>();
  if (slots->Initialize(config.sizeThreshold, config.timeThreshold, config.collector) < 0) {
    LOGE("KPISerializer::%s: Failed to initialze KPIMemorySerializer", "Create");
    return nullptr;
  }
  return slots;
}

}  // namespace

uint64_t KPISerializer::SamplesOf(const orbtr::KPIData& data) {
  uint64_t samples = 0;
  orb::ForEachRecordRow([&](const auto& row) {
    for (const auto& record : (data.*row.list)()) {
      samples = orb::CheckedAdd<uint64_t>(samples, row.SamplesIn(record));
    }
  });
  return samples;
}

std::unique_ptr<KPISerializer> KPISerializer::Create(const Config& config) {
  switch (config.type) {
    case kFiles:
      return CreateFiles(config);
    case kSlots:
      return CreateSlots(config);
    default:
      return nullptr;
  }
}
