// One gzip member, window of 15 bits, default level.
// Tested by tests/collector/upload_test.cpp.
#include "collector/gzip.h"

#include <zlib.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "utility/checked.h"
#include "utility/log.h"
#include "utility/malloc_bytes.h"

namespace {

constexpr int kGzipWindowBits = 15 + 16;  // 16 asks for the gzip wrapper.
constexpr int kMemoryLevel = 8;
constexpr uint32_t kChunkBytes = 16384;

// Initialises a stream and ends it on every path.
struct Deflater {
  Deflater() {
    error = deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, kGzipWindowBits, kMemoryLevel,
                         Z_DEFAULT_STRATEGY);
  }
  ~Deflater() {
    if (error == Z_OK) deflateEnd(&stream);
  }
  Deflater(const Deflater&) = delete;
  Deflater& operator=(const Deflater&) = delete;

  z_stream stream{};
  int error;
};

// Compresses the stream's pending input onto `out`, [capacity] bytes of which
// out->size are used. False when they do not suffice.
bool AppendDeflated(z_stream* stream, int flush, uint64_t capacity, orb::MallocBytes* out) {
  uint8_t window[kChunkBytes];
  do {
    stream->next_out = window;
    stream->avail_out = kChunkBytes;
    deflate(stream, flush);
    const uint32_t produced = kChunkBytes - stream->avail_out;
    if (produced > capacity - out->size) return false;
    // cppcheck-suppress uninitvar ; deflate has filled `produced` bytes of it.
    memcpy(out->data + out->size, window, produced);
    out->size = orb::CheckedAdd<uint32_t>(out->size, produced);
  } while (stream->avail_out == 0);
  return true;
}

// Compresses all that remains in src. 0 or -EINVAL.
int DeflateFile(FILE* src, z_stream* stream, uint64_t capacity, orb::MallocBytes* out) {
  uint8_t chunk[kChunkBytes];
  for (int flush = Z_NO_FLUSH; flush != Z_FINISH;) {
    const size_t got = fread(chunk, 1, kChunkBytes, src);
    if (got < kChunkBytes && !feof(src)) {
      LOGE("orb_data_compress: fread failed.\n");
      return -EINVAL;
    }
    flush = feof(src) ? Z_FINISH : Z_NO_FLUSH;
    stream->next_in = chunk;
    stream->avail_in = static_cast<uint32_t>(got);
    if (!AppendDeflated(stream, flush, capacity, out)) {
      LOGE("orb_data_compress: more than %ld bytes of output", static_cast<long>(capacity));
      return -EINVAL;
    }
  }
  return 0;
}

}  // namespace

int GzipRest(FILE* src, uint32_t src_len, uint8_t** dst, uint32_t* dst_len) {
  if (src == nullptr || dst == nullptr || dst_len == nullptr) {
    LOGE("src fp/dst_buf/dst_buf_len is NULL");
    return -EINVAL;
  }
  *dst = nullptr;
  *dst_len = 0;
  Deflater deflater;
  if (deflater.error != Z_OK) {
    LOGE("deflateInit2 failed. err:%d\n", deflater.error);
    return deflater.error;
  }
  const uint64_t capacity = deflateBound(&deflater.stream, src_len);
  orb::MallocBytes out;
  out.data = static_cast<uint8_t*>(malloc(capacity));
  if (out.data == nullptr) {
    LOGE("orb_data_compress: failed to allocate dst_buf with size %ld",
         static_cast<long>(capacity));
    return -ENOMEM;
  }
  LOGI("orb_data_compress: allocated dst_buf with size %ld src_buf_len %ld",
       static_cast<long>(capacity), static_cast<long>(src_len));
  const int result = DeflateFile(src, &deflater.stream, capacity, &out);
  if (result != 0) return result;
  *dst_len = static_cast<uint32_t>(out.size);
  *dst = std::exchange(out.data, nullptr);
  return 0;
}
