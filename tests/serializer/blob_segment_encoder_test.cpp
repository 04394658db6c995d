#include "serializer/blob_segment_encoder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "proto/kpi_data.pb.h"

namespace {

using Pieces = std::vector<std::string>;

std::vector<kiv_blob_segment_t> Segments(const Pieces& pieces) {
  std::vector<kiv_blob_segment_t> out;
  for (const std::string& piece : pieces) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(piece.data());
    out.push_back({piece.empty() ? nullptr : bytes, static_cast<uint32_t>(piece.size())});
  }
  return out;
}

// The record as protobuf's own encoder writes it, the pieces gathered first.
std::string Gathered(const BlobWindow& window, const Pieces& pieces) {
  std::string data;
  for (const std::string& piece : pieces) {
    const auto len = static_cast<uint32_t>(piece.size());
    data.append(reinterpret_cast<const char*>(&len), sizeof len).append(piece);
  }
  orbtr::KPIData record;
  orbtr::Blob* blob = record.add_blobs();
  blob->set_data(data);
  blob->mutable_meta()->set_kpi_id(window.kpi_id);
  blob->mutable_meta()->set_ts_start(static_cast<int64_t>(window.ts_start));
  blob->mutable_meta()->set_ts_end(static_cast<int64_t>(window.ts_end));
  blob->mutable_meta()->set_num_samples(window.num_samples);
  return record.SerializeAsString();
}

TEST(BlobSegmentEncoderTest, BytesAreThoseOfTheGatheredRecord) {
  const BlobWindow window{77, 1234567, 1234568, 3};
  const struct {
    const char* name;
    BlobWindow window;
    Pieces pieces;
  } kCases[] = {
      {"two pieces", window, {"abc", "hello"}},
      {"no pieces", window, {}},
      {"an empty piece between", window, {"a", "", "b"}},
      {"all zero", {0, 0, 0, 0}, {""}},
      {"widest numbers", {0xFFFFFFFF, UINT64_MAX, UINT64_MAX, 0xFFFFFFFF}, {"x"}},
      {"lengths of several bytes", window, {std::string(200, 'a'), std::string(70000, 'b')}},
      {"many pieces", window, Pieces(1000, "piece")},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    const auto segs = Segments(c.pieces);
    BlobSegmentEncoder encoder(c.window, segs.data(), static_cast<uint32_t>(segs.size()));
    size_t bytes = 0;
    ASSERT_TRUE(encoder.Measure(&bytes)) << encoder.reason();
    std::string out(bytes, '?');
    ASSERT_TRUE(encoder.Encode(reinterpret_cast<uint8_t*>(out.data()), bytes)) << encoder.reason();
    EXPECT_EQ(out, Gathered(c.window, c.pieces));
  }
}

TEST(BlobSegmentEncoderTest, WritesNothingBeyondTheBuffer) {
  const auto segs = Segments({"abc"});
  BlobSegmentEncoder encoder({1, 2, 3, 4}, segs.data(), 1);
  size_t bytes = 0;
  ASSERT_TRUE(encoder.Measure(&bytes));
  std::string guarded(bytes, '?');
  EXPECT_FALSE(encoder.Encode(reinterpret_cast<uint8_t*>(guarded.data()), bytes - 1));
  EXPECT_EQ(guarded.back(), '?');
  EXPECT_STREQ(encoder.reason(), "stream full");
}

}  // namespace
