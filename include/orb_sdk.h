/** @file
 * orb SDK: the telemetry API that a native daemon links (liborb_sdk.so).
 *
 * A daemon registers once, logs samples against numeric KPI ids as they happen
 * and forgets about them. Whether anything is collected, and over which
 * windows, a campaign decides at run time; without one every call is cheap.
 *
 * Compiles as C99 and C++17. Unless a function says otherwise it may be called
 * from any thread, at any time between kiv_register and kiv_deregister, but
 * not from inside a session callback of the same collector and not from a signal
 * handler.
 *
 * A process that forks does so before its first kiv_register: a child has none of
 * the library's threads. In a child of a later fork() every function, kiv_register
 * included, answers -1 or NULL, the first one after an error line, and nothing of the
 * parent's is touched: no file, no region, no connection. Only kiv_get_api_version
 * works as ever. A program that the child executes is not concerned. A child that is
 * forked inside a callback must not return from it.
 *
 * The functions that log, and kiv_is_kpi_enabled, wait for each other and while a
 * session callback of the client runs. They wait for no registration and no upload: until
 * a session that starts is ready, and as soon as one that stops hands its last data
 * over, they answer as without a session. With slots, the call that fills one up also
 * writes its number to storage (milliseconds, more on a busy disk) and waits for the
 * receiver's answer; other calls that log wait with it. There is no limit to that while
 * a receiver lives and is silent.
 *
 * When the process or the machine has no thread, descriptor or memory left, the call
 * that needs one answers -1 or NULL with one error line, what it was about is lost and
 * counted, and later calls work again. No exception leaves a function.
 *
 * A count or a sum that no longer fits its type ends the process by abort(), as does a
 * use of the library that breaks its own invariants; the log's last line says which. What
 * one window of a KPI bears, for values of magnitude M:
 *  - every KPI: 2^32 - 1 samples, a gauge 2^31 - 1;
 *  - counter: a sum of 2^63 - 1;
 *  - gauge of n samples: n * M * M < 2^63, so 96,000,000 with a thousand samples;
 *  - gauge with stdev or variance: n * M <= 3,037,000,499;
 *  - gauge with slope or offset: X <= 3,037,000,499 and X * n * M < 2^63, where X adds
 *    up the second of each sample, the first one's being 1; X is n * (n + 1) / 2 with
 *    one sample a second.
 * Windows and statistics are the campaign's: choose a unit in which the largest value
 * fits, and let `orbctl campaign lint --max-value` check campaigns for it.
 */
#ifndef ORB_SDK_H_
#define ORB_SDK_H_

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Marks what the library exports. */
#define KIV_API __attribute__((visibility("default")))

/** What kiv_get_api_version answers. */
#define KIV_API_VERSION 3u

/** One registered client. Opaque; owned by the library. */
typedef struct kiv_collector kiv_collector;

/** A region of shared memory that was announced with kiv_set_fd. Opaque. */
typedef struct kiv_fd_handle_s kiv_fd_handle_s;

/** Called at every session start, on a thread of the library.
 *
 * @param c        the collector. Of its functions only kiv_flush, kiv_set_cfg,
 *                 kiv_get_campaign_id, kiv_set_fd, kiv_log_fd_buf and kiv_unset_fd
 *                 may be called; any other one waits for ever.
 * @param payload  the campaign's payload for the client, borrowed for the call;
 *                 may be null when len is 0.
 * @param len      its bytes.
 *
 * @return 0 accepts; any other value refuses the session and is what the manager
 *         is told. What a refused session has set up stays until the next start:
 *         logging goes on answering 0. */
typedef int (*kiv_start_session_cb)(kiv_collector* c, const uint8_t* payload, uint32_t len);

/** Called at every session stop, before the last data goes out; same rules. Its
 * result is the stop's result. */
typedef int (*kiv_stop_session_cb)(kiv_collector* c);

/** Called on a thread of the library when the receiver has consumed a piece that
 * kiv_log_fd_buf announced. May run before kiv_log_fd_buf has returned, and for
 * several pieces at once. Must not log, de-register or announce: it may be what
 * one of these waits for. Hand the work to a thread of your own: orb-hald refuses the
 * pieces of a process that has not returned after ten seconds, until it has.
 * kiv_unset_fd may be called, for this handle and for others.
 *
 * @param h  what kiv_set_fd returned.
 * @param a  byte offset of the piece in the region.
 * @param b  a value of the receiver's own; orb-hald: the piece's bytes.
 * @param c  another one; orb-hald: 0.
 *
 * @return ignored. */
typedef int (*kiv_fd_done_cb)(kiv_fd_handle_s* h, uint32_t a, uint32_t b, int c);

#pragma pack(push, 1)
/** The registration record: 70 bytes without padding, its layout is part of the
 * interface. Read only during kiv_register; the strings are copied. Zero the
 * record first, then set what is needed. On processors that trap unaligned
 * access, copy fields by value and never take their address. */
typedef struct kiv_cfg_s {
  /** Client name, not null: its identity towards the manager, and part of file and
   * upload names, so without '/' and not beginning with '.'. orb-managerd takes 1
   * to 200 bytes without control characters, orb-hald at most 179. */
  const char* name;
  uint32_t registration_arg1; /**< Client type, passed to the manager unchanged. */
  /** Directory for data files, not null; must exist, end with '/' and belong to
   * this client alone. "orb_sdk.conf" is looked for there. */
  const char* data_dir;
  kiv_start_session_cb start_session_cb; /**< May be null. */
  kiv_stop_session_cb stop_session_cb;   /**< May be null. */
  /** 0 or 1: connect to the manager. From 2 on every attempt to register fails. */
  uint32_t client_mode;
  /** Non-zero: records go to shared-memory slots instead of files, and a campaign
   * may name one LicSN only. */
  uint8_t hbt;
  /** With hbt: non-zero, the library allocates the memory; zero, campaigns are
   * refused unless they are the client's own (custom_session_format). */
  uint8_t allocate_fd;
  /** With hbt and allocate_fd: bytes of one slot. Must hold the longest record;
   * times fd_nof_slots it must stay below 2^32, or a session start ends the
   * process. */
  uint32_t fd_slot_size;
  /** With hbt and allocate_fd: slots, 1 to 64; at most 31 are in use at a time. */
  uint32_t fd_nof_slots;
  /** Where slots and pieces are compressed: 0, by the receiver, and their header
   * says that they are; else elsewhere, and it says that they are not. */
  uint32_t fd_arg3;
  /** How: the receiver is asked for type 1, or for none when this and fd_arg3 are 0.
   * orb-hald keeps the bytes as they come. */
  uint32_t fd_arg4;
  /** Non-zero: campaigns are the client's own; the library passes them to
   * start_session_cb uninterpreted and knows no KPIs: kiv_log_buf only. */
  uint8_t custom_session_format;
  uint8_t header_override;    /**< Non-zero: the next two fields are used. */
  uint8_t header_kind;        /**< Header byte 12; default 4. */
  uint32_t header_version;    /**< Header bytes 13 to 16; default 1. */
  uint32_t registration_arg2; /**< Client option; the low byte, signed, reaches the manager. */
  uint8_t sync_register;      /**< Non-zero: kiv_register waits for the manager. */
} kiv_cfg_s;
#pragma pack(pop)

/** What kiv_set_cfg changes, for the running session. Other values may be passed,
 * so C++ needs the type named that C compilers choose. */
#ifdef __cplusplus
typedef enum kiv_param_type_t : unsigned int {
#else
typedef enum kiv_param_type_t {
#endif
  KIV_PARAM_SIZE_THRESHOLD = 0, /**< Bytes of a data file before it is sent; 0: each record. */
  KIV_PARAM_TIME_THRESHOLD = 1, /**< Seconds; kept, no flush depends on it. */
  KIV_PARAM_ANY = 0x7FFFFFFF    /**< No parameter: makes every number a value of this type. */
} kiv_param_type_t;

/** One piece of a scattered blob; 16 bytes on 64-bit systems. */
typedef struct kiv_blob_segment_t {
  const uint8_t* buf; /**< [len] bytes, borrowed for the call; may be null when len is 0. */
  uint32_t len;       /**< Bytes. */
} kiv_blob_segment_t;

/** Registers a client. cfg must not be NULL; its name and data_dir may neither. "orb_sdk.conf" is
 * read, for all clients of the process.
 *
 * Synchronous (sync_register): blocks until the manager has answered, at most
 * register_max_retries attempts with register_retry_wait_sec after each
 * (orb_sdk.conf; 12 and 5 unless set). Otherwise returns at once and registers on
 * a thread of its own, also when there is no manager yet; after as many attempts
 * it gives up for good, and its last log line says so. While the platform has no
 * service manager, each attempt waits two seconds for it.
 *
 * @return a collector, the library's, to be given back with kiv_deregister; or
 *         NULL when a synchronous registration failed, name or data_dir is NULL, or
 *         in the child of a fork; the log says why. */
KIV_API kiv_collector* kiv_register(kiv_cfg_s* cfg);

/** Stops any session, tells the manager and destroys the collector, which must
 * not be in use by any other call and is gone afterwards. Blocks until the
 * library's threads for it have ended and the last data is handed over: a wait
 * between two attempts ends at once, a call to the manager or the receiver ends
 * with its answer. With slots, until the receiver has consumed every one or has died;
 * one that lives and does not consume them blocks it. Not from inside a callback.
 *
 * @return 0; -1: c is NULL, the client was not registered, or the manager could
 *         not be told. The collector is destroyed in every case. In the child of a
 *         fork: -1 at once; the memory is freed unless a thread of the parent was in
 *         the middle of changing it. */
KIV_API int kiv_deregister(kiv_collector* c);

/** Logs one sample of a counter, gauge or histogram, in the KPI's own unit.
 * Gauges and histograms read the value as signed. A value that no bucket of a
 * histogram is for counts in the last bucket. Allocates nothing unless a window closes; a gauge's
 * first long window grows a list of times.
 *
 * @return 0; -1: c is NULL, no running campaign collects kpi_id, or the KPI is
 *         not numeric. That the record of a window that closed was lost is not told
 *         here. */
KIV_API int kiv_log(kiv_collector* c, uint32_t kpi_id, uint32_t value);

/** Checks that kpi_id is an event KPI; arg is ignored and nothing is recorded.
 * Campaigns with event KPIs are refused, so no id is one.
 *
 * @return 0; -1: c is NULL, or the KPI is unknown or of another type. */
KIV_API int kiv_log_event(kiv_collector* c, uint32_t kpi_id, uint32_t arg);

/** Checks that kpi_id is a state KPI; a and b are ignored, nothing is recorded.
 *
 * @return 0; -1: c is NULL or the KPI is unknown; -2: it is of another type. */
KIV_API int kiv_log_state(kiv_collector* c, uint32_t kpi_id, uint32_t a, uint32_t b);

/** Logs one blob of [len] bytes, borrowed for the call, as one record. buf may be
 * null when len is 0.
 *
 * @return 0; -1: c is NULL, the KPI is unknown, or len exceeds the campaign's
 *         limit for it or is about 2 GiB; -2: it is no blob KPI; with slots also what kiv_log_buf
 *         may answer. */
KIV_API int kiv_log_blob(kiv_collector* c, uint32_t kpi_id, const uint8_t* buf, uint32_t len);

/** Logs one blob given as [count] segments, in order; each is stored as its
 * length, 32 bits in host byte order, and its bytes. The campaign's limit does
 * not apply; 4 GiB or more in all end the process. No thread may change the array
 * during the call.
 *
 * @return 0; -1: c is NULL, the KPI is unknown, there is no memory, a segment has a
 *         len and no buf, they are about 2 GiB in all, or the session writes to
 *         files while blob_segments_optimized is 1 (the default); -2: it is no
 *         blob KPI; with slots also what kiv_log_buf may answer. */
KIV_API int kiv_log_blob_segments(kiv_collector* c, uint32_t kpi_id, kiv_blob_segment_t* segs,
                                  uint32_t count);

/** Appends [len] bytes of already encoded records to the session's data, past
 * all KPIs; to the file of every owner. buf may be null when len is 0. With files
 * the five bytes "Flush" are not data but do what kiv_flush does.
 *
 * @return 0; -1: c is NULL, no session, or no room. With slots also the non-zero
 *         result of announcing the slot before, whose records are lost; these bytes
 *         are kept then. */
KIV_API int kiv_log_buf(kiv_collector* c, const uint8_t* buf, uint32_t len);

/** Asks the running session to send the records that it has; windows that are open
 * stay open. With files it does not wait; with slots it announces the current one.
 *
 * @return 0, also without a session; -1: c is NULL. */
KIV_API int kiv_flush(kiv_collector* c);

/** Changes a threshold of the running session, until it ends; campaigns' limits do
 * not apply. With slots, without a session and for unknown types nothing happens.
 *
 * @return 0; -1: c is NULL. */
KIV_API int kiv_set_cfg(kiv_collector* c, kiv_param_type_t type, uint32_t value);

/** Whether the running campaign collects a KPI.
 *
 * @return 1 or 0; -1: c is NULL. */
KIV_API int kiv_is_kpi_enabled(kiv_collector* c, uint32_t kpi_id);

/** Announces a region of shared memory to the receiver, which is not told again
 * when it dies and returns: then withdraw the handle and set the region anew. `done`
 * is not called for the pieces that a receiver had when it died.
 *
 * @param c       the collector.
 * @param fd      descriptor of shared memory that can be read; stays the caller's, and
 *                open until kiv_unset_fd. Android: ashmem or memfd. Linux: a memfd that
 *                cannot shrink, made with MFD_ALLOW_SEALING and, once it has its size,
 *                sealed with fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK); the receiver refuses
 *                any other, and its log says so.
 * @param offset  first byte of the region.
 * @param length  its bytes, at least 1; all of them must be there.
 * @param done    called for each piece that was consumed; may be null.
 *
 * @return a handle; NULL: c is NULL, its registration has not begun, or the
 *         receiver is absent or refused. */
KIV_API kiv_fd_handle_s* kiv_set_fd(kiv_collector* c, int fd, uint32_t offset, uint32_t length,
                                    kiv_fd_done_cb done);

/** Announces a filled piece of the region; the receiver copies it and then calls
 * `done`. Leave the piece alone until it has. Needs no session.
 *
 * @param h       what kiv_set_fd returned.
 * @param unused  ignored.
 * @param offset  first byte of the piece, counted from the region's first; only the
 *                low 32 bits count.
 * @param len     its bytes.
 *
 * @return 0; the receiver's own non-zero result; -1: h is NULL, the receiver could
 *         not be reached or has died since kiv_set_fd. `done` is called after 0 only. */
KIV_API int kiv_log_fd_buf(kiv_fd_handle_s* h, uint64_t unused, uint64_t offset, uint32_t len);

/** Withdraws the region. The handle is out of use whatever the result: once this has
 * returned, no `done` of it begins and none runs, so release the handle with free().
 * Waits for a `done` of the handle that runs on another thread, so hold no lock that
 * `done` takes. Inside a `done` it waits neither for that one nor for one that is
 * itself in this function; the handle may be released there, too.
 *
 * @return 0; -1: h is NULL or the receiver could not be told. */
KIV_API int kiv_unset_fd(kiv_fd_handle_s* h);

/** KIV_API_VERSION of the library that is linked. */
KIV_API uint32_t kiv_get_api_version(void);

/** Stores the id of the current, or else the latest, campaign in *out; 0 before
 * the first. A start that was refused counts.
 *
 * @return 0; -1: c or out is NULL. */
KIV_API int kiv_get_campaign_id(kiv_collector* c, uint64_t* out);

#ifdef __cplusplus
}
#endif

#endif /* ORB_SDK_H_ */
