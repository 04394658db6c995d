// Good uploads open; every damage is named with its place.
#include "reader/upload_reader.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <random>

#include "proto/kpi_data.pb.h"
#include "reader/gunzip.h"
#include "tests/reader/upload_builder.h"
#include "utility/byte_order.h"

namespace orb::reader {
namespace {

using test::BuildUpload;
using test::PrivatePem;
using test::PublicPem;
using test::UploadPlan;
using ::testing::HasSubstr;
using Bytes = std::vector<uint8_t>;

constexpr const char* kRecords = "\x08\x01\x12\x02\x10\x07";

const std::vector<PrivateKey> kOwner = {{"owner.pem", PrivatePem(1)}};

std::string Text(const Bytes& bytes) { return {bytes.begin(), bytes.end()}; }

UploadPlan Sealed(bool gcm) {
  UploadPlan plan;
  plan.records = kRecords;
  plan.public_pem = PublicPem(1);
  plan.gcm = gcm;
  return plan;
}

TEST(UploadReaderTest, OpensPlainZippedAndSealedUploads) {
  const PrivateKey keys[] = {
      {"other.pem", PrivatePem(2)}, {"none.pem", "no key at all"}, {"owner.pem", PrivatePem(1)}};
  UploadPlan plain;
  plain.records = kRecords;
  plain.gzip = false;  // As from a shared-memory slot: the flag says 1, the data are plain.
  UploadPlan zipped;
  zipped.records = kRecords;
  const std::pair<UploadPlan, const char*> kCases[] = {
      {plain, ""}, {zipped, ""}, {Sealed(true), "owner.pem"}, {Sealed(false), "owner.pem"}};
  for (const auto& [plan, key] : kCases) {
    const Upload upload = OpenUpload(BuildUpload(plan), keys);
    EXPECT_EQ(upload.status, UploadStatus::kOpened) << upload.reason;
    EXPECT_EQ(Text(upload.records), kRecords);
    EXPECT_EQ(upload.key_path, key);
    if (plan.public_pem.empty()) continue;
    EXPECT_EQ(OpenUpload(BuildUpload(plan), {}).reason, "encrypted, and no --key is given");
    EXPECT_EQ(OpenUpload(BuildUpload(plan), std::span(keys).first(2)).reason,
              "encrypted, and none of the keys opens it");
  }
}

TEST(UploadReaderTest, ReadsEveryNumberOfTheHeader) {
  UploadPlan plan;
  plan.gzip = false;
  plan.records = kRecords;
  const UploadHeader h = OpenUpload(BuildUpload(plan), {}).header;
  EXPECT_EQ(fmt::format("{} {} {} {} {} {} {} {} {} {} {} {}", h.client_id, h.kind, h.version,
                        h.timestamp_ms, h.length_bytes, h.compressed, h.boot_ms, h.zone_minutes,
                        h.campaign_id, h.seqno, h.lic_sn, h.encrypted),
            "7 4 1 1763716800000 6 true 5000 -180 9 3 42 false");
}

// Damage of one place.
using Damage = std::function<void(Bytes*)>;
Damage Set(size_t at, uint8_t value) {
  return [=](Bytes* file) { (*file)[at] = value; };
}
Damage Flip(size_t at) {
  return [=](Bytes* file) { (*file)[at] ^= 1; };
}
Damage Set32(size_t at, uint32_t value) {
  return [=](Bytes* file) { StoreBigEndian<uint32_t>(&(*file)[at], value); };
}
Damage Resize(size_t size) {
  return [=](Bytes* file) { file->resize(size); };
}
// The header announces the new size.
Damage ResizeKnowingly(size_t size) {
  return [=](Bytes* file) {
    file->resize(size);
    header::kLength.Store(file->data(), static_cast<uint32_t>(size - header::kBytes));
  };
}

TEST(UploadReaderTest, NamesEveryDamageWithItsPlace) {
  UploadPlan zipped;
  zipped.records = std::string(1000, 'r');
  const Bytes plain = BuildUpload(zipped);
  const Bytes sealed = BuildUpload(Sealed(true));
  const size_t end = plain.size();
  const uint32_t footer_at = header::kFooterOffset.Load(sealed.data());
  const std::optional<uint64_t> kAnywhere;  // zlib decides.
  const struct {
    const char* reason;
    const Bytes& good;
    Damage damage;
    std::optional<uint64_t> offset;
  } kCases[] = {
      {"the file ends inside the 66-byte header", plain, Resize(65), 65},
      {"the first word is not 9", plain, Set(3, 8), 0},
      {"the header size is not 66", plain, Set(7, 65), 4},
      {"the constant byte is not 1", plain, Set(29, 0), 29},
      {"the flag is neither 0 nor 1", plain, Set(30, 2), 30},
      {"the flag is neither 0 nor 1", plain, Set(61, 0xFF), 61},
      {"bytes are announced behind the header, 0 are there", plain, Resize(66), 66},
      {"cut short: ", plain, Resize(end - 1), end - 1},
      {"3 bytes follow the announced end", plain, Resize(end + 3), end},
      {"nothing follows the header", plain, ResizeKnowingly(66), 66},
      {"a footer offset, but", plain, Set32(62, 70), 62},
      {"the gzip stream is damaged: ", plain, Set(66 + 2, 7), kAnywhere},
      {"the gzip stream is damaged: ", plain, Set(end - 5, 0xEE), kAnywhere},
      {"the gzip stream is cut short", plain, ResizeKnowingly(end - 4), end - 4},
      {"bytes follow the gzip stream", plain, ResizeKnowingly(end + 4), end},
      {"footer offset 66 lies outside", sealed, Set32(62, 66), 62},
      {"lies outside the payload", sealed, Set32(62, UINT32_MAX), 62},
      {"the footer is no TelemetryFooter", sealed, Set(footer_at, 0xFF), footer_at},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.reason);
    Bytes file = c.good;
    c.damage(&file);
    const Upload upload = OpenUpload(file, kOwner);
    EXPECT_EQ(upload.status, UploadStatus::kDamaged);
    EXPECT_THAT(upload.reason, HasSubstr(c.reason));
    EXPECT_EQ(upload.offset_bytes, c.offset.value_or(upload.offset_bytes));
    EXPECT_TRUE(upload.records.empty());
  }
  Bytes tampered = sealed;
  tampered[66] ^= 1;
  EXPECT_EQ(OpenUpload(tampered, kOwner).status, UploadStatus::kSealed);
}

// What comes out of a damaged upload is what was not damaged.
TEST(UploadReaderTest, SalvagesWhatIsSound) {
  // Enough records that damage in the middle leaves something in front.
  UploadPlan plan;
  std::mt19937 random(11);
  for (int i = 0; i < 400; ++i) {
    orbtr::KPIData data;
    data.add_blobs()->set_data(std::to_string(random()) + std::to_string(random()));
    plan.records += data.SerializeAsString();
  }
  const Bytes plain = BuildUpload(plan);
  plan.public_pem = PublicPem(1);
  const Bytes gcm = BuildUpload(plan);
  plan.gcm = false;
  const Bytes cbc = BuildUpload(plan);
  const uint32_t footer_at = header::kFooterOffset.Load(cbc.data());
  const Damage constants = [](Bytes* f) { (*f)[3] = (*f)[7] = (*f)[29] = (*f)[30] = 7; };
  const Damage hole = [](Bytes* f) { f->erase(f->begin() + 3000, f->begin() + 3333); };
  enum Want { kAll, kStart, kSealed, kDamaged };
  const struct {
    const char* reason;
    const Bytes& good;
    Damage damage;
    Want want;
  } kCases[] = {
      {"the first word is not 9", plain, constants, kAll},
      {"it announces ", plain, Set(25, 0x10), kAll},
      {"bytes early", plain, Set(28, 0), kAll},
      {"bytes follow the gzip stream", plain, Resize(plain.size() + 3), kAll},
      {"cut short", plain, Resize(plain.size() / 2), kStart},
      {"the gzip stream is damaged", plain, Set(plain.size() / 2, 0), kStart},
      {"66-byte", plain, Resize(65), kDamaged},
      {"flag is wrong", cbc, Set(61, 9), kAll},
      {"offset is wrong", cbc, Set(62, 9), kAll},
      {"bytes follow the announced end", cbc, Resize(cbc.size() + 5), kAll},
      {"the gzip stream is damaged", cbc, Flip(footer_at / 2), kStart},
      {"the gzip stream is ", cbc, Flip(footer_at - 17), kStart},
      {"offset is wrong", cbc, hole, kStart},
      {"lies outside", cbc, Resize(footer_at - 5), kDamaged},
      {"none of the keys opens it, or it is damaged where no part of it can be trusted", gcm,
       Flip(3000), kSealed},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.reason);
    Bytes file = c.good;
    c.damage(&file);
    const Upload upload = SalvageUpload(file, kOwner);
    EXPECT_EQ(upload.status, c.want == kSealed    ? UploadStatus::kSealed
                             : c.want == kDamaged ? UploadStatus::kDamaged
                                                  : UploadStatus::kOpened)
        << upload.reason;
    EXPECT_EQ(upload.unchecked, c.want == kStart);
    const std::string got = Text(upload.records);
    if (c.want == kAll) {
      EXPECT_EQ(got, plan.records);
    } else if (c.want == kStart) {
      EXPECT_EQ(got.substr(0, 3000), plan.records.substr(0, 3000));
    } else {
      EXPECT_EQ(got, "");
      EXPECT_EQ(upload.skipped.at(0).bytes, file.size());
    }
    std::string reasons;
    for (const Skipped& part : upload.skipped) reasons += part.reason + "; ";
    EXPECT_THAT(reasons, HasSubstr(c.reason));
  }
  EXPECT_TRUE(SalvageUpload(gcm, kOwner).skipped.empty());
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
}  // namespace orb::reader
