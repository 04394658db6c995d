/* orb-region: a client that owns its shared memory.
 *
 * Fills pieces of a region with the text of /proc/loadavg as records of its
 * own, announces each one and waits until the receiver has copied it. For
 * daemons whose data already lies in shared memory.
 */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include "orb_sdk.h"

enum { REGION_BYTES = 4096, PIECE_BYTES = 1024, PIECES = REGION_BYTES / PIECE_BYTES };
enum { BLOB_KPI = 9001, WAIT_MS_MAX = 5000 };

/* Bit i: piece i was announced and not yet consumed. */
static unsigned pending;

static int on_consumed(kiv_fd_handle_s* h, uint32_t offset, uint32_t b, int c) {
  (void)h;
  (void)b;
  (void)c;
  __atomic_fetch_and(&pending, ~(1u << (offset / PIECE_BYTES)), __ATOMIC_ACQ_REL);
  return 0;
}

static size_t put_varint(uint8_t* at, uint64_t value) {
  size_t n = 0;
  for (; value >= 0x80; value >>= 7) at[n++] = (uint8_t)(value | 0x80);
  at[n++] = (uint8_t)value;
  return n;
}

/* Encodes a text of less than 100 bytes as one record, KPIData{blobs{meta{kpi_id} data}}.
 * Returns its size. */
static size_t encode_blob(uint8_t* at, const char* text) {
  uint8_t meta[8];
  size_t meta_len = 0;
  const size_t text_len = strlen(text);
  meta[meta_len++] = 0x08;
  meta_len += put_varint(meta + meta_len, BLOB_KPI);

  size_t n = 0;
  at[n++] = 0x2a;
  n += put_varint(at + n, 2 + meta_len + 2 + text_len);
  at[n++] = 0x0a;
  n += put_varint(at + n, meta_len);
  memcpy(at + n, meta, meta_len);
  n += meta_len;
  at[n++] = 0x12;
  n += put_varint(at + n, text_len);
  memcpy(at + n, text, text_len);
  return n + text_len;
}

static void sleep_ms(long ms) {
  const struct timespec period = {ms / 1000, (ms % 1000) * 1000000};
  (void)nanosleep(&period, NULL);
}

static int announce_pieces(kiv_fd_handle_s* handle, uint8_t* region) {
  for (uint32_t i = 0; i < PIECES; ++i) {
    char text[100] = "";
    FILE* file = fopen("/proc/loadavg", "re");
    if (file == NULL || fgets(text, sizeof text, file) == NULL) strcpy(text, "unknown");
    if (file != NULL) fclose(file);

    const size_t len = encode_blob(region + (size_t)i * PIECE_BYTES, text);
    /* Set before the piece is announced, because the receiver may consume it before
     * kiv_log_fd_buf returns. */
    __atomic_fetch_or(&pending, 1u << i, __ATOMIC_ACQ_REL);
    const int result = kiv_log_fd_buf(handle, 0, (uint64_t)i * PIECE_BYTES, (uint32_t)len);
    if (result != 0) {
      fprintf(stderr, "orb-region: piece %u was refused: %d\n", i, result);
      return -1;
    }
    sleep_ms(100);
  }
  for (int waited = 0; waited < WAIT_MS_MAX; waited += 10) {
    if (__atomic_load_n(&pending, __ATOMIC_ACQUIRE) == 0) return 0;
    sleep_ms(10);
  }
  fprintf(stderr, "orb-region: not all pieces were consumed in %d ms\n", WAIT_MS_MAX);
  return -1;
}

/* Makes shared memory of a fixed size: the receiver refuses memory that can shrink. */
static int create_region(void) {
  const int fd = memfd_create("orb-region", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  if (fd >= 0 && ftruncate(fd, REGION_BYTES) == 0 &&
      fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW) == 0) {
    return fd;
  }
  if (fd >= 0) close(fd);
  return -1;
}

static int run(kiv_collector* c) {
  const int fd = create_region();
  if (fd < 0) {
    perror("orb-region: memory");
    return -1;
  }
  uint8_t* region = mmap(NULL, REGION_BYTES, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (region == MAP_FAILED) {
    perror("orb-region: map");
    close(fd);
    return -1;
  }
  int result = -1;
  kiv_fd_handle_s* handle = kiv_set_fd(c, fd, 0, REGION_BYTES, on_consumed);
  if (handle == NULL) {
    fprintf(stderr, "orb-region: the receiver did not take the region; is orb-hald running?\n");
  } else {
    result = announce_pieces(handle, region);
    if (kiv_unset_fd(handle) != 0) result = -1;
    free(handle);
  }
  munmap(region, REGION_BYTES);
  close(fd);
  return result;
}

int main(int argc, char** argv) {
  kiv_cfg_s cfg;
  if (argc > 2) {
    fputs("usage: orb-region [DATA_DIR/]\n", stderr);
    return 2;
  }
  memset(&cfg, 0, sizeof cfg);
  cfg.name = "orb-region";
  cfg.data_dir = argc == 2 ? argv[1] : "./";
  cfg.hbt = 1;
  cfg.custom_session_format = 1;
  cfg.sync_register = 1;

  kiv_collector* c = kiv_register(&cfg);
  if (c == NULL) {
    fprintf(stderr, "orb-region: no manager answered; is orb-managerd running on this bus?\n");
    return EXIT_FAILURE;
  }
  const int result = run(c);
  (void)kiv_deregister(c);
  if (result == 0) printf("orb-region: %d pieces sent and consumed\n", (int)PIECES);
  return result == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
