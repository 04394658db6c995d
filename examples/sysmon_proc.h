/* What the kernel counts, read from /proc. */
#ifndef SYSMON_PROC_H_
#define SYSMON_PROC_H_

#include <stdint.h>

typedef struct proc_reading {
  uint64_t context_switches; /* Since boot, as all that follow up to page faults. */
  uint64_t interrupts;
  uint64_t forks;
  uint64_t net_in_bytes; /* Over all interfaces, loopback included. */
  uint64_t net_out_bytes;
  uint64_t page_faults;
  uint64_t cpu_busy_ticks;
  uint64_t cpu_total_ticks;
  uint64_t mem_available_kib; /* Now. */
  uint32_t load_centi;        /* One-minute load average times 100. */
  char loadavg[128];          /* /proc/loadavg as it stands, NUL-terminated. */
} proc_reading;

/* Fills *out; what cannot be read is 0. Returns 0, or -1 when /proc/stat could
 * not be read at all. */
int proc_read(proc_reading* out);

#endif /* SYSMON_PROC_H_ */
