/* The least that a vendor daemon does: register, log, and leave on a signal. Its samples
 * go through slots of shared memory, which need most of the device. */
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include "orb_sdk.h"

enum { KPI_LOOPS = 1 };

static volatile sig_atomic_t stop_requested;

static void on_signal(int sig) {
  (void)sig;
  stop_requested = 1;
}

int main(void) {
  kiv_cfg_s cfg;
  memset(&cfg, 0, sizeof cfg);
  cfg.name = "orb_sample_client";
  cfg.data_dir = "/data/vendor/orb/sample/";
  cfg.hbt = 1;
  cfg.allocate_fd = 1;
  cfg.fd_slot_size = 4096;
  cfg.fd_nof_slots = 4;

  signal(SIGTERM, on_signal);
  kiv_collector* c = kiv_register(&cfg);
  if (c == NULL) return 1;
  while (!stop_requested) {
    (void)kiv_log(c, KPI_LOOPS, 1);
    sleep(1);
  }
  (void)kiv_deregister(c);
  return 0;
}
