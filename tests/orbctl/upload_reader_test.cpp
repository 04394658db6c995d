// Good uploads open; every damage is named with its place.
#include "tools/orbctl/upload_reader.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>

#include "tests/orbctl/upload_builder.h"
#include "tools/orbctl/gunzip.h"
#include "utility/byte_order.h"

namespace orb::orbctl {
namespace {

using test::BuildUpload;
using test::PrivatePem;
using test::PublicPem;
using test::UploadPlan;
using Bytes = std::vector<uint8_t>;

constexpr const char* kRecords = "\x08\x01\x12\x02\x10\x07";

std::string Text(const Bytes& bytes) { return {bytes.begin(), bytes.end()}; }

UploadPlan Sealed(bool gcm) {
  UploadPlan plan;
  plan.records = kRecords;
  plan.public_pem = PublicPem(1);
  plan.gcm = gcm;
  return plan;
}

TEST(UploadReaderTest, OpensPlainZippedAndSealedUploads) {
  const PrivateKey keys[] = {{"other.pem", PrivatePem(2)}, {"owner.pem", PrivatePem(1)}};
  UploadPlan plain;
  plain.records = kRecords;
  plain.gzip = false;  // As from a shared-memory slot: the flag says 1, the data are plain.
  UploadPlan zipped;
  zipped.records = kRecords;
  const struct {
    const char* name;
    UploadPlan plan;
    const char* key;
  } kCases[] = {{"plain", plain, ""},
                {"zipped", zipped, ""},
                {"gcm", Sealed(true), "owner.pem"},
                {"cbc", Sealed(false), "owner.pem"}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    const Upload upload = OpenUpload(BuildUpload(c.plan), keys);
    EXPECT_EQ(upload.status, UploadStatus::kOpened) << upload.reason;
    EXPECT_EQ(Text(upload.records), kRecords);
    EXPECT_EQ(upload.key_path, c.key);
  }
}

TEST(UploadReaderTest, ReadsEveryNumberOfTheHeader) {
  UploadPlan plan;
  plan.records = kRecords;
  plan.gzip = false;
  const UploadHeader header = OpenUpload(BuildUpload(plan), {}).header;
  EXPECT_EQ(header.client_id, 7U);
  EXPECT_EQ(header.kind, 4);
  EXPECT_EQ(header.version, 1U);
  EXPECT_EQ(header.timestamp_ms, 1763716800000U);
  EXPECT_EQ(header.length_bytes, 6U);
  EXPECT_TRUE(header.compressed);
  EXPECT_EQ(header.boot_ms, 5000U);
  EXPECT_EQ(header.zone_minutes, -180);
  EXPECT_EQ(header.campaign_id, 9U);
  EXPECT_EQ(header.seqno, 3U);
  EXPECT_EQ(header.lic_sn, 42U);
  EXPECT_FALSE(header.encrypted);
}

TEST(UploadReaderTest, SaysWhyASealedUploadStaysShut) {
  for (const bool gcm : {true, false}) {
    const Bytes file = BuildUpload(Sealed(gcm));
    const PrivateKey wrong[] = {{"a", PrivatePem(2)}, {"b", "no key at all"}};
    Upload upload = OpenUpload(file, {});
    EXPECT_EQ(upload.status, UploadStatus::kSealed);
    EXPECT_EQ(upload.reason, "encrypted, and no --key is given");
    EXPECT_EQ(upload.header.lic_sn, 42U);
    upload = OpenUpload(file, wrong);
    EXPECT_EQ(upload.status, UploadStatus::kSealed);
    EXPECT_EQ(upload.reason, "encrypted, and none of the keys opens it");
  }
}

// Each case damages a good upload in one place.
TEST(UploadReaderTest, NamesEveryDamageWithItsPlace) {
  UploadPlan zipped;
  zipped.records = std::string(1000, 'r');
  const Bytes plain = BuildUpload(zipped);
  const Bytes sealed = BuildUpload(Sealed(true));
  const uint32_t footer_at = LoadBigEndian<uint32_t>(&sealed[62]);
  const auto set = [](size_t at, uint8_t value) {
    return [at, value](Bytes* file) { (*file)[at] = value; };
  };
  const auto set32 = [](size_t at, uint32_t value) {
    return [at, value](Bytes* file) { StoreBigEndian<uint32_t>(&(*file)[at], value); };
  };
  const auto resize = [](size_t size) { return [size](Bytes* file) { file->resize(size); }; };
  const struct {
    const char* name;
    const Bytes& good;
    std::function<void(Bytes*)> damage;
    std::optional<uint64_t> offset;  // Unset: zlib decides.
    const char* reason;
  } kCases[] = {
      {"empty", plain, resize(0), 0, "the file ends inside the 66-byte header"},
      {"header only in part", plain, resize(65), 65, "the file ends inside the 66-byte header"},
      {"first word", plain, set(3, 8), 0, "the first word is not 9"},
      {"header size", plain, set(7, 65), 4, "the header size is not 66"},
      {"constant", plain, set(29, 0), 29, "the constant byte is not 1"},
      {"compressed flag", plain, set(30, 2), 30, "the flag is neither 0 nor 1"},
      {"encrypted flag", plain, set(61, 0xFF), 61, "the flag is neither 0 nor 1"},
      {"no data", plain, resize(66), 66, "bytes are announced behind the header, 0 are there"},
      {"cut", plain, resize(plain.size() - 1), plain.size() - 1, "cut short: "},
      {"longer", plain, resize(plain.size() + 3), plain.size(), "3 bytes follow the announced end"},
      {"announces nothing", plain,
       [](Bytes* file) {
         file->resize(66);
         StoreBigEndian<uint32_t>(&(*file)[25], 0);
       },
       66, "nothing follows the header"},
      {"footer of a plain one", plain, set32(62, 70), 62, "a footer offset, but"},
      {"claims to be encrypted", plain, set(61, 1), 62, "footer offset 0 lies outside"},
      {"gzip header", plain, set(66 + 2, 7), std::nullopt, "the gzip stream is damaged: "},
      {"gzip checksum", plain, set(plain.size() - 5, 0xEE), std::nullopt,
       "the gzip stream is damaged: "},
      {"gzip cut", plain,
       [](Bytes* file) {
         file->resize(file->size() - 4);
         StoreBigEndian<uint32_t>(&(*file)[25], static_cast<uint32_t>(file->size() - 66));
       },
       plain.size() - 4, "the gzip stream is cut short"},
      {"behind the gzip stream", plain,
       [](Bytes* file) {
         file->resize(file->size() + 4);
         StoreBigEndian<uint32_t>(&(*file)[25], static_cast<uint32_t>(file->size() - 66));
       },
       plain.size(), "bytes follow the gzip stream"},
      {"footer before the data", sealed, set32(62, 66), 62, "footer offset 66 lies outside"},
      {"footer behind the end", sealed, set32(62, UINT32_MAX), 62, "lies outside the payload"},
      {"footer tag", sealed, set(footer_at, 0xFF), footer_at, "the footer is no TelemetryFooter"},
  };
  const PrivateKey keys[] = {{"owner.pem", PrivatePem(1)}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Bytes file = c.good;
    c.damage(&file);
    const Upload upload = OpenUpload(file, keys);
    EXPECT_EQ(upload.status, UploadStatus::kDamaged);
    EXPECT_NE(upload.reason.find(c.reason), std::string::npos) << upload.reason;
    if (c.offset) {
      EXPECT_EQ(upload.offset_bytes, *c.offset);
    }
    EXPECT_TRUE(upload.records.empty());
  }
  Bytes tampered = sealed;
  tampered[66] ^= 1;
  EXPECT_EQ(OpenUpload(tampered, keys).status, UploadStatus::kSealed);
}

TEST(UploadReaderTest, StopsAtABomb) {
  const std::string bomb = test::Gzip(std::string(1 << 20, '\0'));
  const Bytes data(bomb.begin(), bomb.end());
  Bytes out;
  uint64_t fault_at = 0;
  EXPECT_EQ(Gunzip(data, 1000, &out, &fault_at), "the data unzip to more than the tool accepts");
  EXPECT_LT(out.size(), size_t{100000});
}

}  // namespace
}  // namespace orb::orbctl
