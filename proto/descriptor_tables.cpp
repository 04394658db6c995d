// The exported field tables. Other encoders find them by symbol, so every byte of them must
// stay as it is, also in tables that this library does not use.
// Tested by tests/utility/descriptor_tables_test.cpp.
#include "include/orb_event_log.h"

namespace {

// Encodings, repetitions and storages of kiv_field_s::type.
constexpr uint8_t kUvarint = 0x01;
constexpr uint8_t kFixed32 = 0x03;
constexpr uint8_t kBytes = 0x05;
constexpr uint8_t kMessage = 0x07;
constexpr uint8_t kSingular = 0x10;
constexpr uint8_t kRepeated = 0x20;
constexpr uint8_t kOneof = 0x30;
constexpr uint8_t kCallback = 0x40;

static_assert(sizeof(kiv_field_s) == 6 + sizeof(void*));

constexpr uint8_t kCallbackBytes = sizeof(KivCallback);
static_assert(sizeof(KivHeader) == 16 && sizeof(KivPayload) == kCallbackBytes);

// The memory that the KPI tables describe. The selector of a oneof is one byte and stands
// before the value.
struct MetaData {
  uint32_t kpi_id;
  uint64_t ts_start;
  uint64_t ts_end;
  uint64_t num_samples;
  uint32_t meta_param_5;
  KivCallback meta_values_6;
};
constexpr uint8_t kMetaBytes = sizeof(MetaData);

// Bytes of padding between a 32-bit field and a 64-bit field that follows.
constexpr uint8_t kPad = alignof(uint64_t) - sizeof(uint32_t);
// Bytes of padding between a 32-bit field and a callback that follows.
constexpr uint8_t kCallbackPad = alignof(KivCallback) - sizeof(uint32_t);
// Bytes of a selector and its padding.
constexpr uint8_t kSelector = 4;

}  // namespace

extern "C" {

const kiv_field_s KivHeader_fields[5] = {
    {1, kSingular | kUvarint, 0, 0, 4, 0, nullptr},
    {2, kSingular | kUvarint, 0, 0, 4, 0, nullptr},
    {3, kSingular | kUvarint, 0, 0, 4, 0, nullptr},
    {4, kSingular | kUvarint, 0, 0, 4, 0, nullptr},
    {0, 0, 0, 0, 0, 0, nullptr},
};

const kiv_field_s KivPayload_fields[2] = {
    {1, kCallback | kSingular | kBytes, 0, 0, kCallbackBytes, 0, nullptr},
    {0, 0, 0, 0, 0, 0, nullptr},
};

const kiv_field_s KivMessage_fields[3] = {
    {1, kSingular | kMessage, 0, 0, sizeof(KivHeader), 0, KivHeader_fields},
    {2, kSingular | kMessage, 0, 0, sizeof(KivPayload), 0, KivPayload_fields},
    {0, 0, 0, 0, 0, 0, nullptr},
};

const kiv_field_s orbtr_MetaData_fields[7] = {
    {1, kSingular | kUvarint, 0, 0, 4, 0, nullptr},
    {2, kSingular | kUvarint, kPad, 0, 8, 0, nullptr},
    {3, kSingular | kUvarint, 0, 0, 8, 0, nullptr},
    {4, kSingular | kUvarint, 0, 0, 8, 0, nullptr},
    {5, kSingular | kUvarint, 0, 0, 4, 0, nullptr},
    {6, kCallback | kRepeated | kUvarint, kCallbackPad, 0, kCallbackBytes, 0, nullptr},
    {0, 0, 0, 0, 0, 0, nullptr},
};

const kiv_field_s orbtr_Counter_fields[3] = {
    {1, kSingular | kMessage, 0, 0, kMetaBytes, 0, orbtr_MetaData_fields},
    {2, kSingular | kUvarint, 0, 0, 8, 0, nullptr},
    {0, 0, 0, 0, 0, 0, nullptr},
};

const kiv_field_s orbtr_Gauge_fields[5] = {
    {1, kSingular | kMessage, 0, 0, kMetaBytes, 0, orbtr_MetaData_fields},
    {2, kOneof | kUvarint, kSelector, -kSelector, 4, 0, nullptr},
    {3, kOneof | kUvarint, kSelector, -kSelector, 4, 0, nullptr},
    {4, kOneof | kFixed32, kSelector, -kSelector, 4, 0, nullptr},
    {0, 0, 0, 0, 0, 0, nullptr},
};

const kiv_field_s orbtr_Histogram_fields[3] = {
    {1, kSingular | kMessage, 0, 0, kMetaBytes, 0, orbtr_MetaData_fields},
    {2, kCallback | kRepeated | kUvarint, 0, 0, kCallbackBytes, 0, nullptr},
    {0, 0, 0, 0, 0, 0, nullptr},
};

const kiv_field_s orbtr_Blob_fields[3] = {
    {1, kSingular | kMessage, 0, 0, kMetaBytes, 0, orbtr_MetaData_fields},
    {2, kCallback | kSingular | kBytes, 0, 0, kCallbackBytes, 0, nullptr},
    {0, 0, 0, 0, 0, 0, nullptr},
};

const kiv_field_s orbtr_KPIData_fields[6] = {
    {1, kSingular | kUvarint, 0, 0, 4, 0, nullptr},
    {2, kCallback | kRepeated | kMessage, kCallbackPad, 0, kCallbackBytes, 0, orbtr_Counter_fields},
    {3, kCallback | kRepeated | kMessage, 0, 0, kCallbackBytes, 0, orbtr_Gauge_fields},
    {4, kCallback | kRepeated | kMessage, 0, 0, kCallbackBytes, 0, orbtr_Histogram_fields},
    {5, kCallback | kRepeated | kMessage, 0, 0, kCallbackBytes, 0, orbtr_Blob_fields},
    {0, 0, 0, 0, 0, 0, nullptr},
};

}  // extern "C"
