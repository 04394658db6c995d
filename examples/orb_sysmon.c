/* orb-sysmon: a small system monitor that reports through orb SDK.
 *
 * Ten times a second it reads what the kernel counted and logs it; whether any
 * of it is collected, a campaign decides (examples/sysmon.txtpb). It is also
 * the shortest complete client: register, log in a loop, de-register.
 */
#include <getopt.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "orb_event_log.h"
#include "orb_sdk.h"
#include "sysmon_proc.h"

/* The ids that campaigns name. */
enum {
  KPI_CONTEXT_SWITCHES = 1001,
  KPI_INTERRUPTS = 1002,
  KPI_FORKS = 1003,
  KPI_NET_IN_BYTES = 1004,
  KPI_NET_OUT_BYTES = 1005,
  KPI_PAGE_FAULTS = 1006,
  KPI_MEM_AVAILABLE_MIB = 2001,
  KPI_LOAD_CENTI = 2002,
  KPI_CPU_BUSY_PERMILLE = 2003,
  KPI_TIMER_LATENESS_US = 3001,
  KPI_LOADAVG_TEXT = 4001,
  KPI_LOADAVG_SEGMENTS = 4002,
  KPI_CPU_STATE = 5001
};

enum { PERIOD_MS = 100, BLOB_EVERY_TICKS = 10, EVENT_LIFECYCLE = 1 };

static volatile sig_atomic_t stop_requested;
/* Set when a session starts: the next reading is the baseline to count from. */
static int rebase_requested;

static void on_signal(int sig) {
  (void)sig;
  stop_requested = 1;
}

static void log_event(const char* event, const char* detail) {
  ORBEventLog(EVENT_LIFECYCLE, "orb-sysmon", event, (const uint8_t*)detail, strlen(detail));
}

static int on_session_start(kiv_collector* c, const uint8_t* payload, uint32_t len) {
  (void)c;
  (void)payload;
  fprintf(stderr, "orb-sysmon: session starts, %u bytes of campaign info\n", len);
  log_event("session_start", "a campaign is collecting");
  __atomic_store_n(&rebase_requested, 1, __ATOMIC_RELEASE);
  return 0;
}

static int on_session_stop(kiv_collector* c) {
  (void)c;
  fprintf(stderr, "orb-sysmon: session stops\n");
  log_event("session_stop", "the campaign has ended");
  return 0;
}

/* Logs the growth of a counter that only grows; a campaign that does not ask
 * for it answers -1, which is fine. */
static void log_growth(kiv_collector* c, uint32_t kpi, uint64_t before, uint64_t now) {
  uint64_t growth = now >= before ? now - before : 0;
  while (growth > UINT32_MAX) {
    (void)kiv_log(c, kpi, UINT32_MAX);
    growth -= UINT32_MAX;
  }
  (void)kiv_log(c, kpi, (uint32_t)growth);
}

static void log_counters(kiv_collector* c, const proc_reading* before, const proc_reading* now) {
  log_growth(c, KPI_CONTEXT_SWITCHES, before->context_switches, now->context_switches);
  log_growth(c, KPI_INTERRUPTS, before->interrupts, now->interrupts);
  log_growth(c, KPI_FORKS, before->forks, now->forks);
  log_growth(c, KPI_NET_IN_BYTES, before->net_in_bytes, now->net_in_bytes);
  log_growth(c, KPI_NET_OUT_BYTES, before->net_out_bytes, now->net_out_bytes);
  log_growth(c, KPI_PAGE_FAULTS, before->page_faults, now->page_faults);
}

static void log_gauges(kiv_collector* c, const proc_reading* before, const proc_reading* now) {
  static uint32_t cpu_state;
  const uint64_t total = now->cpu_total_ticks - before->cpu_total_ticks;
  const uint64_t busy = now->cpu_busy_ticks - before->cpu_busy_ticks;

  /* The campaign asks for the deviation, so the values of one window must add up to at most
   * 3,037,000,499. In MiB, the thirty samples of its window leave room up to 90 TiB. */
  (void)kiv_log(c, KPI_MEM_AVAILABLE_MIB, (uint32_t)(now->mem_available_kib / 1024));
  (void)kiv_log(c, KPI_LOAD_CENTI, now->load_centi);
  if (total == 0 || busy > total) return;
  (void)kiv_log(c, KPI_CPU_BUSY_PERMILLE, (uint32_t)(busy * 1000 / total));
  const uint32_t state = busy * 2 > total;
  if (state != cpu_state) (void)kiv_log_state(c, KPI_CPU_STATE, cpu_state, state);
  cpu_state = state;
}

static void log_blobs(kiv_collector* c, const proc_reading* now) {
  const uint32_t len = (uint32_t)strlen(now->loadavg);
  const uint32_t half = len / 2;
  const uint8_t* text = (const uint8_t*)now->loadavg;
  kiv_blob_segment_t segments[2] = {{text, half}, {text + half, len - half}};

  (void)kiv_log_blob(c, KPI_LOADAVG_TEXT, text, len);
  (void)kiv_log_blob_segments(c, KPI_LOADAVG_SEGMENTS, segments, 2);
}

static int64_t now_us(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (int64_t)now.tv_sec * 1000000 + now.tv_nsec / 1000;
}

static void sleep_until_us(int64_t deadline_us) {
  const struct timespec at = {deadline_us / 1000000, (deadline_us % 1000000) * 1000};
  (void)clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &at, NULL);
}

static void monitor(kiv_collector* c) {
  proc_reading before;
  proc_reading now;
  int64_t deadline_us = now_us();

  if (proc_read(&before) != 0) return;
  for (unsigned tick = 1; !stop_requested; ++tick) {
    deadline_us += (int64_t)PERIOD_MS * 1000;
    sleep_until_us(deadline_us);
    const int64_t late_us = now_us() - deadline_us;
    const int rebase = __atomic_exchange_n(&rebase_requested, 0, __ATOMIC_ACQUIRE);
    if (proc_read(&now) != 0) continue;
    if (!rebase) {
      log_counters(c, &before, &now);
      log_gauges(c, &before, &now);
      (void)kiv_log(c, KPI_TIMER_LATENESS_US, (uint32_t)(late_us > 0 ? late_us : 0));
      if (tick % BLOB_EVERY_TICKS == 0) log_blobs(c, &now);
    }
    before = now;
  }
}

static void usage(FILE* to) {
  fputs(
      "usage: orb-sysmon [--name NAME] [--data-dir DIR/] [--hbt] [--async]\n"
      "  --name NAME      client name (default orb-sysmon)\n"
      "  --data-dir DIR/  where data files go (default ./)\n"
      "  --hbt            send through shared-memory slots instead of files\n"
      "  --async          do not wait for the manager\n",
      to);
}

/* 0 to go on, else the exit code plus 1. */
static int parse(int argc, char** argv, kiv_cfg_s* cfg) {
  static const struct option options[] = {
      {"name", required_argument, NULL, 'n'}, {"data-dir", required_argument, NULL, 'd'},
      {"hbt", no_argument, NULL, 'b'},        {"async", no_argument, NULL, 'a'},
      {"help", no_argument, NULL, 'h'},       {NULL, 0, NULL, 0}};
  int option;
  while ((option = getopt_long(argc, argv, "", options, NULL)) != -1) {
    switch (option) {
      case 'n':
        cfg->name = optarg;
        break;
      case 'd':
        cfg->data_dir = optarg;
        break;
      case 'b':
        cfg->hbt = 1;
        cfg->allocate_fd = 1;
        cfg->fd_slot_size = 4096;
        cfg->fd_nof_slots = 8;
        break;
      case 'a':
        cfg->sync_register = 0;
        break;
      case 'h':
        usage(stdout);
        return 1;
      default:
        usage(stderr);
        return 3;
    }
  }
  return 0;
}

int main(int argc, char** argv) {
  kiv_cfg_s cfg;
  memset(&cfg, 0, sizeof cfg);
  cfg.name = "orb-sysmon";
  cfg.data_dir = "./";
  cfg.start_session_cb = on_session_start;
  cfg.stop_session_cb = on_session_stop;
  cfg.sync_register = 1;

  const int parsed = parse(argc, argv, &cfg);
  if (parsed != 0) return parsed - 1;

  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = on_signal;
  sigaction(SIGTERM, &action, NULL);
  sigaction(SIGINT, &action, NULL);

  log_event("start", cfg.name);
  kiv_collector* c = kiv_register(&cfg);
  if (c == NULL) {
    fprintf(stderr, "orb-sysmon: no manager answered; is orb-managerd running on this bus?\n");
    return EXIT_FAILURE;
  }
  monitor(c);
  /* The status only says whether the manager heard of it. */
  (void)kiv_deregister(c);
  return EXIT_SUCCESS;
}
