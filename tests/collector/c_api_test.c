/* The API as a C99 program sees it. Exit code 0, or the line that failed. */
#include "orb_sdk.h"

#include <stdio.h>
#include <string.h>

#define CHECK(condition)                                      \
  do {                                                        \
    if (!(condition)) {                                       \
      fprintf(stderr, "line %d: %s\n", __LINE__, #condition); \
      return 1;                                               \
    }                                                         \
  } while (0)

/* Neither no collector at all nor one without a session takes a sample. */
static int TakesNothing(kiv_collector* c) {
  const uint8_t byte = 0;
  kiv_blob_segment_t segment = {NULL, 0};
  CHECK(kiv_log(c, 1, 1) == -1);
  CHECK(kiv_log_event(c, 1, 1) == -1);
  CHECK(kiv_log_state(c, 1, 1, 1) == -1);
  CHECK(kiv_log_blob(c, 1, &byte, 1) == -1);
  CHECK(kiv_log_blob_segments(c, 1, &segment, 1) == -1);
  CHECK(kiv_log_buf(c, &byte, 1) == -1);
  CHECK(kiv_set_fd(c, 0, 0, 0, NULL) == NULL);
  CHECK(kiv_get_campaign_id(c, NULL) == -1);
  return 0;
}

static int NullObjects(void) {
  CHECK(kiv_deregister(NULL) == -1);
  CHECK(kiv_flush(NULL) == -1);
  CHECK(kiv_set_cfg(NULL, KIV_PARAM_SIZE_THRESHOLD, 1) == -1);
  CHECK(kiv_is_kpi_enabled(NULL, 1) == -1);
  CHECK(kiv_log_fd_buf(NULL, 0, 0, 0) == -1);
  CHECK(kiv_unset_fd(NULL) == -1);
  CHECK(kiv_get_api_version() == 3);
  return TakesNothing(NULL);
}

/* A collector that no manager knows, and that has no session. */
static int Idle(void) {
  kiv_cfg_s cfg;
  uint64_t id = 1;
  kiv_collector* c;
  memset(&cfg, 0, sizeof cfg);
  cfg.name = "radio";
  cfg.data_dir = "nowhere/";
  cfg.client_mode = 2; /* On its own. */
  c = kiv_register(&cfg);
  CHECK(c != NULL);
  CHECK(TakesNothing(c) == 0);
  CHECK(kiv_flush(c) == 0);
  CHECK(kiv_set_cfg(c, KIV_PARAM_SIZE_THRESHOLD, 1) == 0);
  CHECK(kiv_is_kpi_enabled(c, 1) == 0);
  CHECK(kiv_get_campaign_id(c, &id) == 0 && id == 0);
  CHECK(kiv_deregister(c) == -1); /* Was never registered. */
  return 0;
}

int main(void) { return NullObjects() || Idle(); }
