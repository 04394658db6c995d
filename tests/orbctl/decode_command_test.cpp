// A spool as people decode it: good, sealed and damaged uploads side by side.
#include "tools/orbctl/decode_command.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

#include "proto/kpi_data.pb.h"
#include "reader/upload_files.h"
#include "tests/reader/upload_builder.h"
#include "tests/support/child_process.h"
#include "tests/support/json_lines.h"

namespace orb::orbctl {
namespace {

using orb::test::WriteFile;
using ::testing::HasSubstr;
using ::testing::Not;

std::string Counter(uint32_t kpi_id, uint64_t count) {
  orbtr::KPIData data;
  orbtr::Counter* counter = data.add_counters();
  counter->mutable_meta()->set_kpi_id(kpi_id);
  counter->set_count(count);
  return data.SerializeAsString();
}

class DecodeCommandTest : public ::testing::Test {
 protected:
  // An upload of counter `kpi` below the spool; sealed when there is a key.
  void Add(const std::string& folder, uint32_t seqno, uint32_t kpi, uint64_t lic_sn,
           const std::string& public_pem = "") {
    reader::test::UploadPlan plan;
    plan.records = Counter(kpi, 10) + Counter(kpi, 20);
    plan.seqno = seqno;
    plan.lic_sn = lic_sn;
    plan.public_pem = public_pem;
    Put(folder, plan);
  }
  std::string Put(const std::string& folder, const reader::test::UploadPlan& plan) {
    const std::string dir = temp_.path() + "/" + folder;
    std::filesystem::create_directories(dir);
    const std::string path = dir + "/" + std::to_string(plan.seqno) + "-1763716800000.orb";
    const std::vector<uint8_t> bytes = reader::test::BuildUpload(plan);
    EXPECT_TRUE(WriteFile(path, {bytes.begin(), bytes.end()}));
    return path;
  }
  int Run() {
    std::ostringstream out;
    ::testing::internal::CaptureStderr();
    const int code = command_.Run(out);
    err_ = ::testing::internal::GetCapturedStderr();
    records_ = orb::test::JsonLines(out.str());
    return code;
  }
  std::string WriteKey(int number) {
    const std::string path = temp_.path() + "/key" + std::to_string(number) + ".pem";
    EXPECT_TRUE(WriteFile(path, reader::test::PrivatePem(number)));
    return path;
  }

  orb::test::TempDir temp_;
  DecodeCommand command_{{temp_.path()}, {}, "", reader::RecordFormat::kJson};
  std::vector<nlohmann::json> records_;
  std::string err_;
};

TEST_F(DecodeCommandTest, PrintsTheRecordsOfAWholeFolderInOrder) {
  Add("up/7/radio.42", 1, 5, 42);
  Add("up/7/radio.42", 0, 4, 42);
  Add(".incoming/x", 9, 9, 9);
  ASSERT_TRUE(WriteFile(temp_.path() + "/up/notes.txt", "no upload"));
  EXPECT_EQ(Run(), 0);
  EXPECT_EQ(err_, "");
  ASSERT_EQ(records_.size(), 4U);
  EXPECT_EQ(records_[0]["kpi_id"], 4);
  EXPECT_EQ(records_[1]["count"], 20);
  EXPECT_EQ(records_[2]["seqno"], 1);
  EXPECT_EQ(records_[0]["client"], "radio");
  EXPECT_EQ(records_[0]["campaign_id"], 9);
}

TEST_F(DecodeCommandTest, OpensWithTheKeyThatFitsAndNamesTheOwnersItHasNoneFor) {
  Add("up/7/radio.42", 0, 1, 42, reader::test::PublicPem(1));
  Add("up/7/radio.43", 0, 2, 43, reader::test::PublicPem(2));
  Add("up/7/radio.44", 0, 3, 44, reader::test::PublicPem(3));
  Add("up/7/radio.44", 1, 3, 44, reader::test::PublicPem(3));
  command_.key_paths = {WriteKey(1), WriteKey(2)};
  EXPECT_EQ(Run(), 1);
  EXPECT_EQ(records_.size(), 4U);
  EXPECT_THAT(err_, HasSubstr("orbctl: LicSN 44: encrypted, and none of the keys opens it (2 "
                              "files, first " +
                              temp_.path() + "/up/7/radio.44/0-1763716800000.orb)\n"));
  EXPECT_THAT(err_, Not(HasSubstr("LicSN 42")));
  command_.key_paths.push_back(WriteKey(3));
  EXPECT_EQ(Run(), 0);
  EXPECT_EQ(records_.size(), 8U);
}

TEST_F(DecodeCommandTest, NamesDamagedFilesAndDecodesTheOthers) {
  Add("up/7/radio.42", 0, 1, 42);
  const std::string cut = temp_.path() + "/up/7/radio.42/1-1.orb";
  ASSERT_TRUE(WriteFile(cut, "short"));
  reader::test::UploadPlan torn;
  torn.records = Counter(2, 1) + "\x07garbage" + Counter(3, 1);
  const std::string garbage = Put("up/7/radio.42", torn);
  command_.paths.push_back(temp_.path() + "/gone.orb");
  EXPECT_EQ(Run(), 1);
  EXPECT_EQ(records_.size(), 3U) << "what comes before the damage counts, too";
  EXPECT_THAT(err_, HasSubstr(cut + ": damaged at offset 5: the file ends inside"));
  EXPECT_THAT(err_, HasSubstr(garbage + ": damaged at offset 8 of the unzipped data, after 1 "));
  EXPECT_THAT(err_, HasSubstr("cannot open " + temp_.path() + "/gone.orb: "));

  // What comes behind it is salvaged, and each file told what it cost.
  command_.paths = {garbage};
  command_.salvage = true;
  EXPECT_EQ(Run(), 1);
  ASSERT_EQ(records_.size(), 3U);
  EXPECT_EQ(records_[1]["kpi_id"], 3);
  const nlohmann::json& told = records_[2]["salvage"];
  EXPECT_EQ(told["records"], 2);
  EXPECT_EQ(told["skipped_data_bytes"], 8);
  EXPECT_EQ(told["skipped"][0]["offset"], 8);
  EXPECT_THAT(err_, HasSubstr(garbage + ": 8 bytes skipped at offset 8 of the unzipped data: "));
  EXPECT_THAT(err_, HasSubstr(garbage + ": 2 records salvaged, 0 bytes of the file and 8 of the "));
  command_.paths = {temp_.path() + "/up/7/radio.42/0-1763716800000.orb"};
  EXPECT_EQ(Run(), 0);
  EXPECT_EQ(err_, "");
}

TEST_F(DecodeCommandTest, RefusesKeysAndCampaignsThatAreNone) {
  Add("up/7/radio.42", 0, 1, 42);
  ASSERT_TRUE(WriteFile(temp_.path() + "/pub.pem", reader::test::PublicPem(1)));
  command_.key_paths = {temp_.path() + "/pub.pem"};
  EXPECT_EQ(Run(), 1);
  EXPECT_THAT(err_, HasSubstr("pub.pem: no private key in PEM"));
  command_.key_paths = {};
  command_.campaign_path = temp_.path() + "/none.txtpb";
  EXPECT_EQ(Run(), 1);
  EXPECT_TRUE(records_.empty());
}

TEST(ClientOfPathTest, ReadsTheNameFromTheFolder) {
  EXPECT_EQ(reader::ClientOfPath("spool/up/7/radio.42/0-1.orb"), "radio");
  EXPECT_EQ(reader::ClientOfPath("a.b.c.18446744073709551615/0-1.orb"), "a.b.c");
  for (const char* path : {"0-1.orb", "x/0-1.orb", "x./0-1.orb", "x.4z/0-1.orb"}) {
    EXPECT_EQ(reader::ClientOfPath(path), "") << path;
  }
}

}  // namespace
}  // namespace orb::orbctl
