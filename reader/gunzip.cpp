// Tested by tests/reader/upload_reader_test.cpp.
#include "reader/gunzip.h"

#include <zlib.h>

#include "utility/checked.h"

namespace orb::reader {
namespace {

constexpr int kGzipWindowBits = 15 + 16;
constexpr size_t kWindowBytes = 64U << 10;

}  // namespace

bool IsGzip(std::span<const uint8_t> data) {
  return data.size() >= 2 && data[0] == 0x1F && data[1] == 0x8B;
}

std::string Gunzip(std::span<const uint8_t> data, uint64_t max_bytes, std::vector<uint8_t>* out,
                   uint64_t* fault_at) {
  z_stream stream{};
  *fault_at = 0;
  if (inflateInit2(&stream, kGzipWindowBits) != Z_OK) return "zlib cannot start";
  stream.next_in = const_cast<Bytef*>(data.data());  // zlib only reads it.
  stream.avail_in = CheckedCast<uInt>(data.size());
  std::vector<uint8_t> window(kWindowBytes);
  int result = Z_OK;
  std::string fault;
  while (result == Z_OK && fault.empty()) {
    stream.next_out = window.data();
    stream.avail_out = static_cast<uInt>(window.size());
    result = inflate(&stream, Z_NO_FLUSH);
    out->insert(out->end(), window.data(), stream.next_out);
    if (out->size() > max_bytes) fault = "the data unzip to more than the tool accepts";
  }
  *fault_at = data.size() - stream.avail_in;
  if (fault.empty() && result == Z_BUF_ERROR) fault = "the gzip stream is cut short";
  if (fault.empty() && result != Z_STREAM_END) {
    fault = std::string("the gzip stream is damaged: ") +
            (stream.msg != nullptr ? stream.msg : zError(result));
  }
  if (fault.empty() && stream.avail_in != 0) fault = kTrailingBytes;
  inflateEnd(&stream);
  return fault;
}

}  // namespace orb::reader
