/* To be preloaded: a wall clock that steps. The first 8 bytes of the file
 * $ORB_CLOCK are how many seconds it is off; whoever writes them steps it. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

static const int64_t* offset_s;

static void find_offset(void) __attribute__((constructor));
static void find_offset(void) {
  const char* path = getenv("ORB_CLOCK");
  const int fd = path == NULL ? -1 : open(path, O_RDONLY | O_CLOEXEC);
  void* mapped = fd < 0 ? MAP_FAILED : mmap(NULL, sizeof *offset_s, PROT_READ, MAP_SHARED, fd, 0);
  if (mapped != MAP_FAILED) offset_s = mapped;
  if (fd >= 0) close(fd);
}

static int64_t offset(void) {
  return offset_s == NULL ? 0 : __atomic_load_n(offset_s, __ATOMIC_RELAXED);
}

__attribute__((visibility("default"))) int clock_gettime(clockid_t clock, struct timespec* now) {
  static int (*real)(clockid_t, struct timespec*);
  if (real == NULL) real = (int (*)(clockid_t, struct timespec*))dlsym(RTLD_NEXT, "clock_gettime");
  const int result = real(clock, now);
  if (result == 0 && clock == CLOCK_REALTIME) now->tv_sec += offset();
  return result;
}

__attribute__((visibility("default"))) time_t time(time_t* out) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  if (out != NULL) *out = now.tv_sec;
  return now.tv_sec;
}
