// A spool with one thing wrong at a time, and the finding that names it.
#include "tools/orbctl/verify_command.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <sstream>

#include "tests/reader/upload_builder.h"
#include "tests/support/child_process.h"
#include "tests/support/json_lines.h"

namespace orb::orbctl {
namespace {

namespace fs = std::filesystem;
using orb::test::ReadFileOrEmpty;
using orb::test::WriteFile;

constexpr char kRecord[] = "\x08\x01\x12\x02\x10\x07";

// Numbers 0 to 9 of one client, over an owner in the clear and one sealed.
class VerifyCommandTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (uint32_t seqno = 0; seqno < 10; ++seqno) Add(seqno % 2 == 0 ? 42 : 43, seqno);
    key_ = temp_.path() + "/key.pem";
    ASSERT_TRUE(WriteFile(key_, reader::test::PrivatePem(1)));
  }
  std::string Path(uint64_t lic_sn, uint32_t seqno) const {
    return fmt::format("{}/spool/up/7/radio.{}/{:010}-1763716800000.orb", temp_.path(), lic_sn,
                       seqno);
  }
  void Add(uint64_t lic_sn, uint32_t seqno) {
    reader::test::UploadPlan plan;
    plan.records = kRecord;
    plan.lic_sn = lic_sn;
    plan.seqno = seqno;
    if (lic_sn == 43) plan.public_pem = reader::test::PublicPem(1);
    const std::vector<uint8_t> bytes = reader::test::BuildUpload(plan);
    fs::create_directories(fs::path(Path(lic_sn, seqno)).parent_path());
    ASSERT_TRUE(WriteFile(Path(lic_sn, seqno), {bytes.begin(), bytes.end()}));
  }
  void Flip(const std::string& path, size_t at, int bits) {
    std::string content = ReadFileOrEmpty(path);
    content.at(at) = static_cast<char>(content.at(at) ^ bits);
    ASSERT_TRUE(WriteFile(path, content));
  }
  // The findings as "kind WHERE: TEXT", WHERE below the spool.
  std::vector<std::string> Run(bool with_key = true) {
    VerifyCommand command{temp_.path() + "/spool", {}, true};
    if (with_key) command.key_paths = {key_};
    std::ostringstream out;
    const int code = command.Run(out);
    std::vector<std::string> findings;
    for (const nlohmann::json& line : orb::test::JsonLines(out.str())) {
      counts_ = line;  // The last one.
      if (!line.contains("finding")) continue;
      findings.push_back(std::string(line["finding"]) + " " +
                         std::string(line["where"]).substr(command.directory.size() + 1) + ": " +
                         std::string(line["text"]));
    }
    EXPECT_EQ(counts_["findings"], findings.size());
    EXPECT_EQ(code, findings.empty() ? 0 : 1);
    return findings;
  }

  orb::test::TempDir temp_;
  std::string key_;
  nlohmann::json counts_;
};

TEST_F(VerifyCommandTest, FindsNothingInASoundSpool) {
  EXPECT_THAT(Run(), ::testing::IsEmpty());
  EXPECT_EQ(counts_["uploads"], 10);
  EXPECT_EQ(counts_["clients"], 1);
  EXPECT_EQ(counts_["unopened"], 0);
  Run(false);
  EXPECT_EQ(counts_["unopened"], 5);
  // Evictions take the oldest: a row need not begin with 0. Nor are two clients one row.
  fs::remove(Path(42, 0));
  fs::create_directories(temp_.path() + "/spool/up/8");
  fs::copy(temp_.path() + "/spool/up/7/radio.42", temp_.path() + "/spool/up/8/tuner.42");
  for (const uint32_t gone : {4U, 6U, 8U}) {
    fs::remove(temp_.path() + fmt::format("/spool/up/8/tuner.42/{:010}-1763716800000.orb", gone));
  }
  EXPECT_THAT(Run(), ::testing::IsEmpty());
  EXPECT_EQ(counts_["clients"], 2);
}

TEST_F(VerifyCommandTest, NamesWhatIsWrong) {
  const std::string plain = Path(42, 4);
  const std::string sealed = Path(43, 5);
  const std::string again = plain.substr(0, plain.size() - 4) + ".1.orb";
  const std::string other_key = temp_.path() + "/other.pem";
  ASSERT_TRUE(WriteFile(other_key, reader::test::PrivatePem(2)));
  const struct {
    std::function<void()> damage;
    // How the findings begin; PLAIN and SEALED stand for the two files.
    std::vector<std::string> want;
  } kCases[] = {
      {[&] { fs::remove(plain); }, {"gap up/7/radio: number 4 is missing"}},
      {[&] { fs::remove(plain), fs::remove(sealed); }, {"gap up/7/radio: numbers 4 to 5 are "}},
      {[&] { Add(43, 4); }, {"repeat up/7/radio: number 4 has 2 uploads: "}},
      {[&] { fs::copy(plain, again); }, {"repeat up/7/radio: number 4 has 2 uploads: "}},
      {[&] { fs::resize_file(plain, 70); }, {"short PLAIN: at offset 70: cut short"}},
      {[&] { Flip(plain, 29, 9); }, {"header PLAIN: at offset 29"}},
      {[&] { Flip(plain, 52, 7); }, {"header PLAIN: the header has number 3"}},
      {[&] { Flip(plain, fs::file_size(plain) - 1, 1); }, {"data PLAIN: at offset "}},
      {[&] { Flip(sealed, fs::file_size(sealed) - 1, 1); },
       {"tag SEALED: the key of LicSN 43 opens others"}},
      {[&] { fs::rename(plain, temp_.path() + "/spool/x.orb"); },
       {"header x.orb: no name", "gap up/7/radio: number 4"}},
      {[&] { key_ = other_key; }, std::vector<std::string>(5, "sealed ")},
  };
  const fs::path spool = temp_.path() + "/spool";
  const fs::path sound = temp_.path() + "/sound";
  fs::rename(spool, sound);
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.want[0]);
    fs::remove_all(spool);
    fs::copy(sound, spool, fs::copy_options::recursive);
    c.damage();
    std::vector<std::string> got = Run();
    ASSERT_EQ(got.size(), c.want.size()) << ::testing::PrintToString(got);
    for (size_t i = 0; i < got.size(); ++i) {
      for (const auto& [path, name] : {std::pair(plain, "PLAIN"), std::pair(sealed, "SEALED")}) {
        const std::string below = fs::relative(path, spool);
        const size_t at = got[i].find(below);
        if (at != std::string::npos) got[i].replace(at, below.size(), name);
      }
      EXPECT_THAT(got[i], ::testing::StartsWith(c.want[i]));
    }
  }
}

TEST_F(VerifyCommandTest, TellsLeftoversFromWhatIsBeingWritten) {
  const std::string file = temp_.path() + "/spool/.incoming/17";
  fs::create_directories(fs::path(file).parent_path());
  ASSERT_TRUE(WriteFile(file, "half"));
  EXPECT_THAT(Run(), ::testing::IsEmpty());
  fs::last_write_time(file, fs::file_time_type::clock::now() - std::chrono::minutes(2));
  EXPECT_THAT(Run(), ::testing::ElementsAre(::testing::StartsWith("leftover .incoming/17: ")));
}

TEST_F(VerifyCommandTest, FailsWhereThereIsNoSpool) {
  std::ostringstream out;
  EXPECT_EQ((VerifyCommand{temp_.path() + "/none", {}, false}).Run(out), 1);
  EXPECT_EQ((VerifyCommand{temp_.path() + "/spool", {temp_.path() + "/none"}, false}).Run(out), 1);
}

}  // namespace
}  // namespace orb::orbctl
