/* Reads /proc/stat, /proc/net/dev, /proc/vmstat, /proc/meminfo and /proc/loadavg. */
#include "sysmon_proc.h"

#include <inttypes.h>
#include <stdio.h>
#include <string.h>

static int read_stat(proc_reading* out) {
  char line[512];
  uint64_t v[8] = {0};
  FILE* file = fopen("/proc/stat", "re");
  if (file == NULL) return -1;
  while (fgets(line, sizeof line, file) != NULL) {
    if (sscanf(line,
               "cpu  %" SCNu64 " %" SCNu64 " %" SCNu64 " %" SCNu64 " %" SCNu64 " %" SCNu64
               " %" SCNu64 " %" SCNu64,
               &v[0], &v[1], &v[2], &v[3], &v[4], &v[5], &v[6], &v[7]) == 8) {
      out->cpu_busy_ticks = v[0] + v[1] + v[2] + v[5] + v[6] + v[7];
      out->cpu_total_ticks = out->cpu_busy_ticks + v[3] + v[4];
    }
    /* The interrupt line is long: its first number is the sum of the rest. */
    (void)sscanf(line, "intr %" SCNu64, &out->interrupts);
    (void)sscanf(line, "ctxt %" SCNu64, &out->context_switches);
    (void)sscanf(line, "processes %" SCNu64, &out->forks);
  }
  fclose(file);
  return 0;
}

static void read_net(proc_reading* out) {
  char line[512];
  FILE* file = fopen("/proc/net/dev", "re");
  if (file == NULL) return;
  while (fgets(line, sizeof line, file) != NULL) {
    uint64_t in = 0;
    uint64_t sent = 0;
    char* colon = strchr(line, ':');
    if (colon == NULL) continue;
    if (sscanf(colon + 1, "%" SCNu64 " %*u %*u %*u %*u %*u %*u %*u %" SCNu64, &in, &sent) == 2) {
      out->net_in_bytes += in;
      out->net_out_bytes += sent;
    }
  }
  fclose(file);
}

/* The number after `key` at the start of a line of `path`; 0 when absent. */
static uint64_t read_keyed(const char* path, const char* key) {
  char line[256];
  uint64_t value = 0;
  const size_t key_len = strlen(key);
  FILE* file = fopen(path, "re");
  if (file == NULL) return 0;
  while (fgets(line, sizeof line, file) != NULL) {
    if (strncmp(line, key, key_len) != 0) continue;
    (void)sscanf(line + key_len, " %" SCNu64, &value);
    break;
  }
  fclose(file);
  return value;
}

static void read_load(proc_reading* out) {
  unsigned whole = 0;
  unsigned hundredths = 0;
  FILE* file = fopen("/proc/loadavg", "re");
  if (file == NULL) return;
  if (fgets(out->loadavg, sizeof out->loadavg, file) != NULL &&
      sscanf(out->loadavg, "%u.%2u", &whole, &hundredths) == 2) {
    out->load_centi = whole * 100 + hundredths;
  }
  fclose(file);
}

int proc_read(proc_reading* out) {
  memset(out, 0, sizeof *out);
  if (read_stat(out) != 0) return -1;
  read_net(out);
  out->page_faults = read_keyed("/proc/vmstat", "pgfault");
  out->mem_available_kib = read_keyed("/proc/meminfo", "MemAvailable:");
  read_load(out);
  return 0;
}
