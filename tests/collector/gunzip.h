// The inverse of kiv_data_compress, by zlib's own means.
#pragma once

#include <gtest/gtest.h>
#include <zlib.h>

#include <string>
#include <vector>

namespace orb::test {

// "" (and a test failure) for anything but exactly one gzip member.
inline std::string Gunzip(const uint8_t* bytes, size_t len) {
  z_stream stream{};
  EXPECT_EQ(inflateInit2(&stream, 15 + 16), Z_OK);
  stream.next_in = const_cast<uint8_t*>(bytes);
  stream.avail_in = static_cast<uInt>(len);
  std::string out;
  int result = Z_OK;
  while (result == Z_OK) {
    char window[4096];
    stream.next_out = reinterpret_cast<uint8_t*>(window);
    stream.avail_out = sizeof window;
    result = inflate(&stream, Z_NO_FLUSH);
    out.append(window, sizeof window - stream.avail_out);
  }
  EXPECT_EQ(result, Z_STREAM_END);
  EXPECT_EQ(stream.avail_in, 0u);
  inflateEnd(&stream);
  return result == Z_STREAM_END ? out : std::string();
}

}  // namespace orb::test
