// Tested by tests/serializer/kpi_serializer_test.cpp.
#include "serializer/kpi_serializer.h"

#include "serializer/kpi_file_serializer.h"
#include "serializer/kpi_memory_serializer.h"
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
