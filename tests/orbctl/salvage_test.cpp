// Uploads damaged in one place: what comes out is what was not damaged, and the
// report adds up.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>

#include "proto/kpi_data.pb.h"
#include "tests/orbctl/upload_builder.h"
#include "tests/support/child_process.h"
#include "tools/orbctl/decode_command.h"
#include "tools/orbctl/upload_reader.h"
#include "utility/byte_order.h"

namespace orb::orbctl {
namespace {

using orb::test::WriteFile;
using test::BuildUpload;
using test::PrivatePem;
using test::PublicPem;
using test::UploadPlan;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Bytes = std::vector<uint8_t>;

orbtr::MetaData* SetMeta(uint32_t kpi, orbtr::MetaData* meta) {
  meta->set_kpi_id(kpi);
  meta->set_ts_start(36000 + kpi);
  meta->set_ts_end(36100 + kpi);
  meta->set_num_samples(3);
  return meta;
}

std::string Counter(uint32_t kpi) {
  orbtr::KPIData data;
  SetMeta(kpi, data.add_counters()->mutable_meta());
  data.mutable_counters(0)->set_count(60);
  return data.SerializeAsString();
}

std::string Blob(uint32_t kpi, const std::string& bytes) {
  orbtr::KPIData data;
  SetMeta(kpi, data.add_blobs()->mutable_meta());
  data.mutable_blobs(0)->set_data(bytes);
  return data.SerializeAsString();
}

struct Salvaged {
  std::vector<uint32_t> kpis;
  std::vector<size_t> offsets;
  size_t skipped_bytes = 0;
};

Salvaged SalvageAll(const std::string& payload) {
  RecordSplitter splitter(payload, RecordSplitter::Trust::kWary);
  PayloadRecord record;
  Salvaged out;
  for (;;) {
    while (splitter.Next(&record)) {
      out.kpis.push_back(record.meta().kpi_id());
      out.offsets.push_back(record.offset_bytes);
    }
    if (splitter.damage().empty()) return out;
    out.skipped_bytes += splitter.Resync();
  }
}

// What a full disk leaves: the start of a record, and the next ones behind it.
TEST(SalvageTest, FindsTheRecordBehindATornOneWhereverItTore) {
  const std::string start("\x08\x01");
  for (const std::string& torn : {Counter(2), Blob(2, std::string(60, 'b'))}) {
    for (size_t kept = 1; kept < torn.size(); ++kept) {
      SCOPED_TRACE(kept);
      // A blob that ends with whole records is what a blob may be.
      if ((torn.size() - kept) % Counter(3).size() == 0) continue;
      const Salvaged got =
          SalvageAll(start + Counter(1) + torn.substr(0, kept) + Counter(3) + Counter(4));
      EXPECT_THAT(got.kpis, ElementsAre(1, 3, 4));
      EXPECT_EQ(got.skipped_bytes, kept);
    }
  }
  const Salvaged last = SalvageAll(start + Counter(1) + Counter(2).substr(0, 9));
  EXPECT_THAT(last.kpis, ElementsAre(1));
  EXPECT_EQ(last.skipped_bytes, 9U);
}

// A client's own buffers can be anything, and a later library may know more fields.
TEST(SalvageTest, KeepsWhatFollowsForeignBytesAndRecordsOfNewerClients) {
  std::string newer = Counter(2);
  newer += std::string("\x38\x05", 2);
  newer[1] = static_cast<char>(newer[1] + 2);
  EXPECT_THAT(SalvageAll(Counter(1) + newer + Counter(3)).kpis, ElementsAre(1, 2, 3));
  EXPECT_THAT(SalvageAll(Counter(1) + newer).kpis, ElementsAre(1, 2));
  std::mt19937 random(7);
  std::string noise(10000, '\0');
  for (char& byte : noise) byte = static_cast<char>(random());
  const Salvaged got = SalvageAll(Counter(1) + noise + Counter(3));
  EXPECT_THAT(got.kpis, ElementsAre(1, 3)) << "seed 7";
  EXPECT_EQ(got.skipped_bytes, noise.size());
}

// Each candidate claims all that is left: a search without a bound would take hours.
TEST(SalvageTest, GivesUpOnDataMadeOfFalseStarts) {
  std::string hostile;
  while (hostile.size() < (1U << 20)) hostile += std::string("\x2a\x80\x80\x20\x0a\x02\x08\x01", 8);
  EXPECT_THAT(SalvageAll(std::string("\xff", 1) + hostile).skipped_bytes, ::testing::Gt(1U << 19));
}

class SalvageUploadTest : public ::testing::Test {
 protected:
  // Enough of it that damage in the middle leaves something in front.
  static UploadPlan Plan(const std::string& public_pem = "", bool gcm = false) {
    UploadPlan plan;
    std::mt19937 random(11);
    plan.records = std::string("\x08\x01");
    for (uint32_t kpi = 1; kpi <= 400; ++kpi) {
      plan.records += Blob(kpi, std::to_string(random()) + std::to_string(random()));
    }
    plan.public_pem = public_pem;
    plan.gcm = gcm;
    return plan;
  }
  const std::vector<PrivateKey> keys_ = {{"owner.pem", PrivatePem(1)}};
};

TEST_F(SalvageUploadTest, TakesOutOfEveryDamageWhatIsSound) {
  const Bytes plain = BuildUpload(Plan());
  const Bytes cbc = BuildUpload(Plan(PublicPem(1), false));
  const Bytes gcm = BuildUpload(Plan(PublicPem(1), true));
  const uint32_t footer_at = LoadBigEndian<uint32_t>(&cbc[62]);
  const auto set = [](size_t at, uint8_t value) {
    return [at, value](Bytes* file) { (*file)[at] = value; };
  };
  const auto resize = [](size_t size) { return [size](Bytes* file) { file->resize(size); }; };
  enum Want { kAll, kSome, kNothing };
  const struct {
    const char* name;
    const Bytes& good;
    std::function<void(Bytes*)> damage;
    UploadStatus status;
    Want want;
    bool unchecked;
    const char* reason;
  } kCases[] = {
      {"constants", plain, [](Bytes* f) { (*f)[3] = (*f)[7] = (*f)[29] = (*f)[30] = 7; },
       UploadStatus::kOpened, kAll, false, "the first word is not 9"},
      {"length", plain, set(25, 0x10), UploadStatus::kOpened, kAll, false, "it announces "},
      {"short length", plain, set(28, 0), UploadStatus::kOpened, kAll, false, "bytes early"},
      {"cut", plain, resize(plain.size() / 2), UploadStatus::kOpened, kSome, true, "cut short"},
      {"gzip damaged", plain, set(plain.size() / 2, 0), UploadStatus::kOpened, kSome, true,
       "the gzip stream is damaged"},
      {"longer", plain, resize(plain.size() + 3), UploadStatus::kOpened, kAll, false,
       "bytes follow the gzip stream"},
      {"encrypted flag", cbc, set(61, 9), UploadStatus::kOpened, kAll, false, "flag is wrong"},
      {"footer offset", cbc, set(62, 9), UploadStatus::kOpened, kAll, false, "offset is wrong"},
      {"behind the footer", cbc, resize(cbc.size() + 5), UploadStatus::kOpened, kAll, false,
       "bytes follow the announced end"},
      {"CBC damaged", cbc, set(footer_at / 2, cbc[footer_at / 2] ^ 1), UploadStatus::kOpened, kSome,
       true, "the gzip stream is damaged"},
      {"CBC end damaged", cbc, set(footer_at - 17, cbc[footer_at - 17] ^ 1), UploadStatus::kOpened,
       kSome, true, "the gzip stream is "},
      {"hole in CBC", cbc, [&](Bytes* f) { f->erase(f->begin() + 3000, f->begin() + 3333); },
       UploadStatus::kOpened, kSome, true, "offset is wrong"},
      {"CBC cut", cbc, resize(footer_at - 5), UploadStatus::kDamaged, kNothing, false,
       "lies outside"},
      {"GCM damaged", gcm, set(3000, gcm[3000] ^ 1), UploadStatus::kSealed, kNothing, false,
       "none of the keys opens it, or it is damaged where no part of it can be trusted"},
      {"header in part", plain, resize(65), UploadStatus::kDamaged, kNothing, false, "66-byte"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Bytes file = c.good;
    c.damage(&file);
    const Upload upload = SalvageUpload(file, keys_);
    EXPECT_EQ(upload.status, c.status) << upload.reason;
    EXPECT_EQ(upload.unchecked, c.unchecked);
    const std::string whole = Plan().records;
    const std::string got(upload.records.begin(), upload.records.end());
    if (c.want == kAll) {
      EXPECT_EQ(got, whole);
    } else if (c.want == kSome) {
      EXPECT_THAT(SalvageAll(got).kpis, ::testing::Contains(100)) << got.size();
      EXPECT_EQ(got.substr(0, 3000), whole.substr(0, 3000));
    } else {
      EXPECT_EQ(got, "");
      EXPECT_EQ(upload.skipped.at(0).bytes, file.size());
    }
    std::string reasons;
    for (const Skipped& part : upload.skipped) reasons += part.reason + "; ";
    EXPECT_THAT(reasons, HasSubstr(c.reason));
  }
  EXPECT_TRUE(SalvageUpload(gcm, keys_).skipped.empty());
}

TEST(SalvageCommandTest, TellsPerFileWhatItSkipped) {
  const orb::test::TempDir temp;
  UploadPlan plan;
  plan.records = Counter(1) + Counter(2).substr(0, 10) + Counter(3);
  const Bytes torn = BuildUpload(plan);
  plan.records = Counter(4);
  const Bytes sound = BuildUpload(plan);
  ASSERT_TRUE(WriteFile(temp.path() + "/0.orb", {torn.begin(), torn.end()}));
  ASSERT_TRUE(WriteFile(temp.path() + "/1.orb", {sound.begin(), sound.end()}));
  DecodeCommand command{{temp.path()}, {}, "", RecordFormat::kJson};
  command.salvage = true;
  std::ostringstream out;
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(command.Run(out), 1);
  const std::string err = ::testing::internal::GetCapturedStderr();
  std::vector<nlohmann::json> lines;
  std::istringstream in(out.str());
  for (std::string line; std::getline(in, line);) lines.push_back(nlohmann::json::parse(line));
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[1]["kpi_id"], 3);
  EXPECT_EQ(lines[2]["salvage"]["records"], 2);
  EXPECT_EQ(lines[2]["salvage"]["skipped_data_bytes"], 10);
  EXPECT_EQ(lines[2]["salvage"]["skipped"][0]["offset"], Counter(1).size());
  EXPECT_EQ(lines[3]["kpi_id"], 4);
  EXPECT_THAT(err, HasSubstr("0.orb: 10 bytes skipped at offset " +
                             std::to_string(Counter(1).size()) + " of the unzipped data: "));
  EXPECT_THAT(err, HasSubstr("0.orb: 2 records salvaged, 0 bytes of the file and 10 of the "));
  EXPECT_EQ(err.find("1.orb"), std::string::npos);
  command.paths = {temp.path() + "/1.orb"};
  EXPECT_EQ(command.Run(out), 0);
}

}  // namespace
}  // namespace orb::orbctl
