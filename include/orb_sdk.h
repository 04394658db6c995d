/* orb SDK: the telemetry API that a native daemon links (liborb_sdk.so).
 *
 * A daemon registers once, logs samples against numeric KPI ids as they happen
 * and forgets about them. Whether anything is collected, and over which
 * windows, a campaign decides at run time; without one every call is cheap.
 *
 * Compiles as C99 and C++17. Unless a function says otherwise it may be called
 * from any thread, at any time between kiv_register and kiv_deregister, but
 * not from inside a session callback of the same collector.
 */
#ifndef ORB_SDK_H_
#define ORB_SDK_H_

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KIV_API __attribute__((visibility("default")))

/* What kiv_get_api_version answers. */
#define KIV_API_VERSION 3u

/* One registered client. Opaque; owned by the library. */
typedef struct kiv_collector kiv_collector;

/* One piece of shared memory that was announced with kiv_set_fd. */
typedef struct kiv_fd_handle_s kiv_fd_handle_s;

/* Called at every session start, on a thread of the library, with the
 * campaign's payload for the client: [len] bytes, borrowed for the call.
 * 0 accepts; any other value refuses the session and is what the manager is
 * told. Must not log, and must not register or de-register; kiv_flush,
 * kiv_set_cfg, kiv_get_campaign_id, kiv_set_fd, kiv_log_fd_buf and kiv_unset_fd
 * are allowed. */
typedef int (*kiv_start_session_cb)(kiv_collector* c, const uint8_t* payload, uint32_t len);

/* Called at every session stop, same rules. Its result is the stop's result. */
typedef int (*kiv_stop_session_cb)(kiv_collector* c);

/* Called on a thread of the library when the receiver has consumed a piece
 * that kiv_log_fd_buf announced; a, b and c are what it reports: byte offset of
 * the piece, and two values of the receiver's own. May run before
 * kiv_log_fd_buf has returned. */
typedef int (*kiv_fd_done_cb)(kiv_fd_handle_s* h, uint32_t a, uint32_t b, int c);

#pragma pack(push, 1)
/* The registration record: 70 bytes without padding, its layout is part of the
 * interface. Read only during kiv_register; the strings are copied. Zero the
 * record first, then set what is needed. On processors that trap unaligned
 * access, copy fields by value and never take their address. */
typedef struct kiv_cfg_s {
  const char* name;                      /* Client name, not null: identity towards the manager. */
  uint32_t registration_arg1;            /* Client type, passed to the manager unchanged. */
  const char* data_dir;                  /* Directory for data files, not null; must end with '/'.
                                            "orb_sdk.conf" is looked for there. */
  kiv_start_session_cb start_session_cb; /* May be null. */
  kiv_stop_session_cb stop_session_cb;   /* May be null. */
  uint32_t client_mode;                  /* Below 2: connect to the manager. */
  uint8_t hbt;                           /* Non-zero: records go to shared-memory slots instead of
                                            files, and a campaign may name one LicSN only. */
  uint8_t allocate_fd;                   /* With hbt: non-zero, the library allocates the memory. */
  uint32_t fd_slot_size;                 /* With hbt and allocate_fd: bytes of one slot. */
  uint32_t fd_nof_slots;                 /* With hbt and allocate_fd: slots, 1 to 64; at most 31 are
                                            in use at a time. */
  uint32_t fd_arg3;                      /* Where slots are compressed: 0, by the receiver. */
  uint32_t fd_arg4;                      /* How slots are compressed. */
  uint8_t custom_session_format;         /* Non-zero: campaigns are the client's own; the library
                                            passes them to start_session_cb uninterpreted. */
  uint8_t header_override;               /* Non-zero: the next two fields are used. */
  uint8_t header_kind;                   /* Header byte 12; default 4. */
  uint32_t header_version;               /* Header bytes 13 to 16; default 1. */
  uint32_t registration_arg2;            /* Client option; the low byte reaches the manager. */
  uint8_t sync_register;                 /* Non-zero: kiv_register waits for the manager. */
} kiv_cfg_s;
#pragma pack(pop)

/* What kiv_set_cfg changes, for the running session. Other values may be passed,
 * so C++ needs the type named that C compilers choose. */
#ifdef __cplusplus
typedef enum kiv_param_type_t : unsigned int {
#else
typedef enum kiv_param_type_t {
#endif
  KIV_PARAM_SIZE_THRESHOLD = 0, /* Bytes of a data file before it is sent. */
  KIV_PARAM_TIME_THRESHOLD = 1, /* Seconds; kept, no flush depends on it. */
  KIV_PARAM_ANY = 0x7FFFFFFF    /* No parameter: makes every number a value of this type. */
} kiv_param_type_t;

/* One piece of a scattered blob; 16 bytes on 64-bit systems. */
typedef struct kiv_blob_segment_t {
  const uint8_t* buf; /* [len] bytes, borrowed for the call; may be null when len is 0. */
  uint32_t len;
} kiv_blob_segment_t;

/* Registers a client and returns its collector, or NULL when that failed; the
 * log says why. cfg must not be NULL.
 *
 * Synchronous (sync_register): blocks until the manager has answered, at most
 * register_max_retries attempts register_retry_wait_sec apart (orb_sdk.conf).
 * Otherwise returns a collector at once and registers on a thread of its own,
 * also when there is no manager yet.
 *
 * The collector is the library's; give it back with kiv_deregister. */
KIV_API kiv_collector* kiv_register(kiv_cfg_s* cfg);

/* Stops any session, tells the manager and destroys the collector, which must
 * not be in use by any other call and is gone afterwards. Blocks until the
 * library's threads for it have ended: at most one retry wait, plus the final
 * upload when a session was running; with slots, until the receiver has consumed
 * every one, which one that died never does. Not from inside a callback.
 *
 * Returns 0, or -1: c is NULL, the client was not registered, or the manager
 * could not be told. The collector is destroyed in every case. */
KIV_API int kiv_deregister(kiv_collector* c);

/* Logs one sample of a counter, gauge or histogram, in the KPI's own unit.
 * Gauges and histograms read the value as signed.
 *
 * Returns 0; -1 when c is NULL, when no running campaign collects kpi_id, or
 * when the KPI is not numeric. Allocates nothing unless a window closes. */
KIV_API int kiv_log(kiv_collector* c, uint32_t kpi_id, uint32_t value);

/* Checks that kpi_id is an event KPI. Returns 0; -1 when c is NULL or the KPI is
 * unknown or of another type. Nothing is recorded. */
KIV_API int kiv_log_event(kiv_collector* c, uint32_t kpi_id, uint32_t arg);

/* Checks that kpi_id is a state KPI. Returns 0; -1 when c is NULL or the KPI is
 * unknown; -2 when it is of another type. Nothing is recorded. */
KIV_API int kiv_log_state(kiv_collector* c, uint32_t kpi_id, uint32_t a, uint32_t b);

/* Logs one blob of [len] bytes, borrowed for the call, as one record.
 *
 * Returns 0; -1 when c is NULL, the KPI is unknown, or len exceeds the
 * campaign's limit for it; -2 when it is no blob KPI; with slots also what
 * kiv_log_buf may answer. */
KIV_API int kiv_log_blob(kiv_collector* c, uint32_t kpi_id, const uint8_t* buf, uint32_t len);

/* Logs one blob given as [count] segments, in order; each is stored as its
 * length, 32 bits in host byte order, and its bytes. The campaign's limit does
 * not apply.
 *
 * Returns 0; -1 when c is NULL, the KPI is unknown, there is no memory, or the
 * session writes to files while blob_segments_optimized is 1 (the default);
 * -2 when it is no blob KPI. */
KIV_API int kiv_log_blob_segments(kiv_collector* c, uint32_t kpi_id, kiv_blob_segment_t* segs,
                                  uint32_t count);

/* Appends [len] bytes of already encoded records to the session's data, past
 * all KPIs. Returns 0, or -1: c is NULL, no session, or no room. With slots also
 * the non-zero result of announcing the slot before, whose records are lost;
 * these bytes are kept then. */
KIV_API int kiv_log_buf(kiv_collector* c, const uint8_t* buf, uint32_t len);

/* Asks the running session to send what it has. Does not wait in file mode.
 * Returns 0 (also without a session), or -1 when c is NULL. */
KIV_API int kiv_flush(kiv_collector* c);

/* Changes a threshold of the running session. Unknown types are ignored.
 * Returns 0, or -1 when c is NULL. */
KIV_API int kiv_set_cfg(kiv_collector* c, kiv_param_type_t type, uint32_t value);

/* 1 when the running campaign collects kpi_id, else 0; -1 when c is NULL. */
KIV_API int kiv_is_kpi_enabled(kiv_collector* c, uint32_t kpi_id);

/* Announces a region of shared memory to the receiver: length bytes from
 * offset, of descriptor fd, which stays the caller's and must stay open until
 * kiv_unset_fd. done may be called from then on.
 *
 * Returns a handle, or NULL: c is NULL or the receiver is absent or refused. */
KIV_API kiv_fd_handle_s* kiv_set_fd(kiv_collector* c, int fd, uint32_t offset, uint32_t length,
                                    kiv_fd_done_cb done);

/* Announces len filled bytes at byte offset of the region; the receiver copies
 * them and then calls `done`. Leave the piece alone until it has. `unused` is
 * ignored; only the low 32 bits of offset count.
 *
 * Returns 0, the receiver's own non-zero result, or -1: h is NULL or the
 * receiver could not be reached; after that `done` is not called. */
KIV_API int kiv_log_fd_buf(kiv_fd_handle_s* h, uint64_t unused, uint64_t offset, uint32_t len);

/* Withdraws the region. The handle is out of use whatever the result; its
 * memory may then be released with free().
 *
 * Returns 0, or -1: h is NULL or the receiver could not be told. */
KIV_API int kiv_unset_fd(kiv_fd_handle_s* h);

/* KIV_API_VERSION of the library that is linked. */
KIV_API uint32_t kiv_get_api_version(void);

/* Stores the id of the current, or else the latest, campaign in *out; 0 before
 * the first. Returns 0, or -1 when c or out is NULL. */
KIV_API int kiv_get_campaign_id(kiv_collector* c, uint64_t* out);

#ifdef __cplusplus
}
#endif

#endif /* ORB_SDK_H_ */
