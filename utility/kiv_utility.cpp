// One-off events: hashed names, a small protobuf record, the event log.
// Tested by tests/utility/kiv_utility_test.cpp.
#define ORB_LOG_TAG "ORBEventLogger"

#include <pb_encode.h>

#include <cstdlib>
#include <cstring>

#include "include/orb_event_log.h"
#include "utility/checked.h"
#include "utility/contained.h"
#include "utility/event_sink.h"
#include "utility/log.h"
#include "utility/malloc_bytes.h"

namespace {

constexpr size_t kEncodedBytesMax = 200;

// The record as nanopb encodes it. It has the layout of KivMessage.
struct EventHeader {
  uint32_t module_id;
  uint32_t event_id;
  uint32_t type;
  uint32_t payload_size;
};
struct EventPayload {
  pb_callback_t data;
};
struct EventMessage {
  EventHeader header;
  EventPayload payload;
};

#define EventHeader_FIELDLIST(X, a)            \
  X(a, STATIC, SINGULAR, UINT32, module_id, 1) \
  X(a, STATIC, SINGULAR, UINT32, event_id, 2)  \
  X(a, STATIC, SINGULAR, UINT32, type, 3)      \
  X(a, STATIC, SINGULAR, UINT32, payload_size, 4)
#define EventHeader_CALLBACK NULL
#define EventHeader_DEFAULT NULL

#define EventPayload_FIELDLIST(X, a) X(a, CALLBACK, SINGULAR, BYTES, data, 1)
#define EventPayload_CALLBACK pb_default_field_callback
#define EventPayload_DEFAULT NULL

#define EventMessage_FIELDLIST(X, a)         \
  X(a, STATIC, SINGULAR, MESSAGE, header, 1) \
  X(a, STATIC, SINGULAR, MESSAGE, payload, 2)
#define EventMessage_CALLBACK NULL
#define EventMessage_DEFAULT NULL
#define EventMessage_header_MSGTYPE EventHeader
#define EventMessage_payload_MSGTYPE EventPayload

extern const pb_msgdesc_t EventHeader_msg;
extern const pb_msgdesc_t EventPayload_msg;
PB_BIND(EventHeader, EventHeader, AUTO)
PB_BIND(EventPayload, EventPayload, AUTO)
PB_BIND(EventMessage, EventMessage, AUTO)

using orb::MallocBytes;

// The copy has no data when there is no memory.
MallocBytes Allocate(size_t bytes) {
  MallocBytes out;
  out.data = static_cast<uint8_t*>(std::malloc(bytes));
  out.size = bytes;
  return out;
}

// Installs the first bytes of the payload, which `buffer` and `copy` then own.
void InstallPayload(const uint8_t* payload, size_t size, KivMessage* message, KivByteBuffer* buffer,
                    MallocBytes* copy) {
  if (size > KIV_EVENT_PAYLOAD_MAX) {
    size = KIV_EVENT_PAYLOAD_MAX;
    LOGI("Payload size exceeds max limit. Truncating it to %lu bytes",
         static_cast<unsigned long>(size));
  }
  *copy = Allocate(size);
  if (copy->data == nullptr) return;
  std::memcpy(copy->data, payload, size);
  *buffer = {size, copy->data};
  message->payload.data = {encode_payload_callback, buffer};
}

}  // namespace

bool isDebugBuild = false;
const char* event_payload_file = "/data/vendor/orb/decoded_sessions/event_payload.dat";
static_assert(sizeof isDebugBuild == 1);

uint32_t KIVCommonHashFn(const uint8_t* data, size_t length) {
  uint32_t hash = 0x811C9DC5;
  for (size_t i = 0; i < length; ++i) hash = (hash ^ data[i]) * 16777619u;  // Wraps by definition.
  hash &= 0x3FFFFFFF;
  return isDebugBuild ? hash | 0x40000000 : hash;
}

int kiv_log_writeHeader(KivHeader* header, uint32_t module_id, uint32_t event_id, uint32_t type,
                        uint32_t payload_size) {
  if (header == nullptr) return 0;
  *header = {module_id, event_id, type, payload_size};
  return 1;
}

bool encode_payload_callback(pb_ostream_t* stream, const pb_field_iter_t* field, void* const* arg) {
  if (arg == nullptr || *arg == nullptr) return true;
  const auto* buffer = static_cast<const KivByteBuffer*>(*arg);
  if (buffer->length == 0) return true;
  if (pb_encode_tag_for_field(stream, field) &&
      pb_encode_string(stream, buffer->bytes, static_cast<size_t>(buffer->length))) {
    return true;
  }
  LOGI("Encoding the payload callback : Failed");
  return false;
}

bool kiv_log_encode(const KivMessage* message, uint8_t* buffer, size_t buffer_size,
                    size_t* out_written) {
  if (out_written == nullptr) return false;
  *out_written = 0;
  if (message == nullptr || buffer == nullptr) return false;
  const KivHeader& header = message->header;
  EventMessage event = {};
  event.header = {header.module_id, header.event_id, header.type, header.payload_size};
  event.payload.data.funcs.encode = message->payload.data.encode;
  event.payload.data.arg = message->payload.data.arg;
  pb_ostream_t stream = pb_ostream_from_buffer(buffer, buffer_size);
  const bool encoded = pb_encode(&stream, &EventMessage_msg, &event);
  *out_written = stream.bytes_written;
  return encoded;
}

void ORBEventLog(uint32_t type, const char* module, const char* event_id, const uint8_t* payload,
                 size_t payload_size) {
  if (module == nullptr || event_id == nullptr || payload == nullptr) return;
  LOGV("Logging from Module %s, eventId %s, type %d, payloadSize %lu", module, event_id,
       static_cast<int>(type), static_cast<unsigned long>(payload_size));
  const auto hash = [](const char* name) {
    return KIVCommonHashFn(reinterpret_cast<const uint8_t*>(name), std::strlen(name));
  };
  kiv_event_log(type, hash(module), hash(event_id), payload, payload_size);
}

void kiv_event_log(uint32_t type, uint32_t module_hash, uint32_t event_hash, const uint8_t* payload,
                   size_t payload_size) {
  KivMessage message = {};
  KivByteBuffer buffer = {};
  MallocBytes copy;
  kiv_log_writeHeader(&message.header, module_hash, event_hash, type,
                      static_cast<uint32_t>(payload_size));
  if (payload != nullptr && payload_size != 0) {
    InstallPayload(payload, payload_size, &message, &buffer, &copy);
  }
  const MallocBytes out = Allocate(kEncodedBytesMax);
  size_t written = 0;
  bool encoded = false;
  if (out.data == nullptr) {
    LOGI("Failed to allocate buffer");
  } else {
    encoded = kiv_log_encode(&message, out.data, kEncodedBytesMax, &written);
    if (!encoded) LOGI("Failed to create a protobuf");
  }
  if (!encoded) LOGI("Failed to create the encoded protobuf");
  log_buffer_as_int32(out.data, written);
}

size_t convertBytestoInt32Array(const uint8_t* source, size_t length, int32_t* destination) {
  if (source == nullptr || length == 0 || destination == nullptr) return 0;
  size_t words = 0;
  for (size_t at = 0; at < length; at += sizeof(int32_t)) {
    int32_t word = 0;
    const size_t left = length - at;
    std::memcpy(&word, source + at, left < sizeof word ? left : sizeof word);
    std::memcpy(destination + words, &word, sizeof word);
    ++words;
    if (left <= sizeof word) break;  // The next step could pass the largest offset.
  }
  return words;
}

void log_buffer_as_int32(const uint8_t* buffer, size_t length) {
  if (buffer == nullptr || length == 0) return;
  const size_t count = orb::CheckedAdd<size_t>(length, sizeof(int32_t) - 1) / sizeof(int32_t);
  const MallocBytes out = Allocate(orb::CheckedMul<size_t>(count, sizeof(int32_t)));
  auto* words = reinterpret_cast<int32_t*>(out.data);
  if (convertBytestoInt32Array(buffer, length, words) != count) {
    LOGI("Failed to convert as Int array");
  }
  if (words == nullptr) return;
  orb::Contained("log_buffer_as_int32", [&] { orb::WriteEventList(KIV_EVENT_TAG, words, count); });
}
