// The calls by which the library's data files are opened, written and brought to storage,
// as plain functions that tests and trials may replace: a disk that is full or slow, a
// descriptor that is not to be had. Everything else about files is libc's.
#pragma once

#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdio>

namespace orb {

// Any thread.
class Files {
 public:
  // As the functions of libc that stand there by default; errno likewise.
  struct Functions {
    FILE* (*open)(const char* path, const char* mode) = &fopen;
    size_t (*write)(const void* bytes, size_t size, size_t count, FILE* file) = &fwrite;
    int (*sync)(int fd) = &fsync;
  };

  // Each takes effect at once, but not all in one step.
  static void Use(const Functions& functions) {
    open_ = functions.open;
    write_ = functions.write;
    sync_ = functions.sync;
  }
  static void UseSystem() { Use({}); }

  static FILE* Open(const char* path, const char* mode) { return open_.load()(path, mode); }
  // The bytes that were taken; fewer than `count` after an error.
  static size_t Write(const void* bytes, size_t count, FILE* file) {
    return write_.load()(bytes, 1, count, file);
  }
  // 0 once all that was written is on storage.
  static int Sync(int fd) { return sync_.load()(fd); }

 private:
  static inline std::atomic<decltype(Functions::open)> open_{&fopen};
  static inline std::atomic<decltype(Functions::write)> write_{&fwrite};
  static inline std::atomic<decltype(Functions::sync)> sync_{&fsync};
};

}  // namespace orb
