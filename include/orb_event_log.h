/** @file
 * orb SDK: one-off events in the platform's binary event log.
 *
 * An event is a module, an event name, a type and at most 32 bytes. Names go
 * out as 30-bit hashes. The record is a small protobuf message
 * (proto/event_record.proto), written as a list of 32-bit integers under event
 * tag 1000004; docs/formats/events.md has the bytes and where they go on Linux.
 *
 * Compiles as C99 and C++17. All functions may be called from any thread, at
 * any time; none needs a registered client. A record costs some allocations
 * and one system call or a few; a log that takes no more loses the event, with
 * one line in the text log (tag "ORBEventLogger"), and nothing else.
 */
#ifndef ORB_EVENT_LOG_H_
#define ORB_EVENT_LOG_H_

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Marks what the library exports. */
#define KIV_EVENT_API __attribute__((visibility("default")))

#define KIV_EVENT_TAG 1000004u    /**< Event tag of every record. */
#define KIV_EVENT_PAYLOAD_MAX 32u /**< Payload bytes that are kept. */
#define KIV_EVENT_WORDS_MAX 255u  /**< 32-bit words that one log entry holds. */

struct pb_ostream_s;    /**< nanopb's output stream; opaque here. */
struct pb_field_iter_s; /**< nanopb's field descriptor; opaque here. */

/** Writes one field into a stream; `arg` points to KivCallback.arg. False: it failed,
 * and so does the encoding. */
typedef bool (*kiv_encode_fn)(struct pb_ostream_s* stream, const struct pb_field_iter_s* field,
                              void* const* arg);

/** A field whose bytes a function produces; none when `encode` is null. */
typedef struct KivCallback {
  kiv_encode_fn encode; /**< May be null. */
  void* arg;            /**< The function's own. */
} KivCallback;

/** Who says what. */
typedef struct KivHeader {
  uint32_t module_id;    /**< Hash of the module's name. */
  uint32_t event_id;     /**< Hash of the event's name. */
  uint32_t type;         /**< The host's own number. */
  uint32_t payload_size; /**< Bytes as the host gave them, before they were cut. */
} KivHeader;

/** What is said. */
typedef struct KivPayload {
  KivCallback data; /**< The payload's bytes. */
} KivPayload;

/** An event record. */
typedef struct KivMessage {
  KivHeader header;   /**< Written unless all four numbers are 0. */
  KivPayload payload; /**< Written, though it may be empty, when data.encode is set. */
} KivMessage;

/** What encode_payload_callback takes as its argument. */
typedef struct KivByteBuffer {
  uint64_t length;      /**< Bytes. */
  const uint8_t* bytes; /**< [length] bytes, borrowed. */
} KivByteBuffer;

/** Logs one event. Does nothing when one of the three pointers is null.
 * module and event_id are NUL-terminated; payload is [payload_size] bytes,
 * of which the first 32 are kept; with 0 bytes there is none, and the pointer is
 * not followed. All are borrowed for the call. */
KIV_EVENT_API void ORBEventLog(uint32_t type, const char* module, const char* event_id,
                               const uint8_t* payload, size_t payload_size);

/** The same for names that are hashed already. A null payload is none; the
 * record then still tells payload_size. */
KIV_EVENT_API void kiv_event_log(uint32_t type, uint32_t module_hash, uint32_t event_hash,
                                 const uint8_t* payload, size_t payload_size);

/** 32-bit FNV-1a of [length] bytes, cut to the low 30 bits; bit 30 is set while
 * isDebugBuild is. data may be null when length is 0. */
KIV_EVENT_API uint32_t KIVCommonHashFn(const uint8_t* data, size_t length);

/** Fills a header, numbers in the order of its fields.
 *
 * @return 1; 0: header is null. */
KIV_EVENT_API int kiv_log_writeHeader(KivHeader* header, uint32_t module_id, uint32_t event_id,
                                      uint32_t type, uint32_t payload_size);

/** Encodes `message` into [buffer_size] bytes. *out_written is the number of
 * bytes written, also after a failure. The payload's function runs twice and
 * must write the same both times.
 *
 * @return false when that failed, when the buffer is too small (a record of the
 *         library's own takes up to 62 bytes) or when a pointer is null. */
KIV_EVENT_API bool kiv_log_encode(const KivMessage* message, uint8_t* buffer, size_t buffer_size,
                                  size_t* out_written);

/** A kiv_encode_fn: writes the KivByteBuffer that *arg points to as the field's
 * bytes; nothing, with success, when there is none or it is empty. */
KIV_EVENT_API bool encode_payload_callback(struct pb_ostream_s* stream,
                                           const struct pb_field_iter_s* field, void* const* arg);

/** Copies [length] bytes into words in host byte order, the rest of the last
 * word zero. destination has room for length / 4 words, rounded up.
 *
 * @return the words written; 0: a pointer is null or length is 0. */
KIV_EVENT_API size_t convertBytestoInt32Array(const uint8_t* source, size_t length,
                                              int32_t* destination);

/** Writes [length] bytes as words to the event log; nothing when null or empty.
 * The log takes KIV_EVENT_WORDS_MAX words; on Linux a longer list is dropped. */
KIV_EVENT_API void log_buffer_as_int32(const uint8_t* buffer, size_t length);

/** Marks the hashes of a debug build. One byte, false; set by the host, before
 * its first event. */
KIV_EVENT_API extern bool isDebugBuild;

/** Where tools keep decoded event payloads. The library never opens it. */
KIV_EVENT_API extern const char* event_payload_file;

#pragma pack(push, 1)
/** One field of a message as older encoders describe it: 14 bytes on 64-bit
 * systems. An all-zero entry ends a table. */
typedef struct kiv_field_s {
  uint8_t tag;         /**< Field number. */
  uint8_t type;        /**< Storage (high two bits), repetition, encoding (low four). */
  uint8_t data_offset; /**< From the end of the field before; for the first, of the message. */
  int8_t size_offset;  /**< From the data to the selector of a oneof; else 0. */
  uint8_t data_size;   /**< Bytes of the field in memory. */
  uint8_t array_size;  /**< 0: none of the fields is an array in memory. */
  const void* ptr;     /**< The table of a sub-message, else null. */
} kiv_field_s;
#pragma pack(pop)

/** The table of KivMessage. This one and the next are data only, for encoders of the
 * host's; the library encodes by means of its own. */
KIV_EVENT_API extern const kiv_field_s KivMessage_fields[3];
/** Of KivHeader. */
KIV_EVENT_API extern const kiv_field_s KivHeader_fields[5];
/** Of KivPayload. */
KIV_EVENT_API extern const kiv_field_s KivPayload_fields[2];
/** Of the message orbtr.MetaData. */
KIV_EVENT_API extern const kiv_field_s orbtr_MetaData_fields[7];
/** Of the message orbtr.Counter. */
KIV_EVENT_API extern const kiv_field_s orbtr_Counter_fields[3];
/** Of the message orbtr.Gauge. */
KIV_EVENT_API extern const kiv_field_s orbtr_Gauge_fields[5];
/** Of the message orbtr.Histogram. */
KIV_EVENT_API extern const kiv_field_s orbtr_Histogram_fields[3];
/** Of the message orbtr.Blob. */
KIV_EVENT_API extern const kiv_field_s orbtr_Blob_fields[3];
/** Of the message orbtr.KPIData. */
KIV_EVENT_API extern const kiv_field_s orbtr_KPIData_fields[6];

#ifdef __cplusplus
}
#endif

#endif /* ORB_EVENT_LOG_H_ */
