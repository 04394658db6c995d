// A spool with one thing wrong at a time, and the finding that names it.
#include "tools/orbctl/verify_command.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tests/orbctl/upload_builder.h"
#include "tests/support/child_process.h"

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
    ASSERT_TRUE(WriteFile(key_, test::PrivatePem(1)));
  }
  std::string Path(uint64_t lic_sn, uint32_t seqno) const {
    return fmt::format("{}/spool/up/7/radio.{}/{:010}-1763716800000.orb", temp_.path(), lic_sn,
                       seqno);
  }
  void Add(uint64_t lic_sn, uint32_t seqno) {
    test::UploadPlan plan;
    plan.records = kRecord;
    plan.lic_sn = lic_sn;
    plan.seqno = seqno;
    if (lic_sn == 43) plan.public_pem = test::PublicPem(1);
    const std::vector<uint8_t> bytes = test::BuildUpload(plan);
    fs::create_directories(fs::path(Path(lic_sn, seqno)).parent_path());
    ASSERT_TRUE(WriteFile(Path(lic_sn, seqno), {bytes.begin(), bytes.end()}));
  }
  void Change(const std::string& path, const std::function<void(std::string*)>& change) {
    std::string content = ReadFileOrEmpty(path);
    change(&content);
    ASSERT_TRUE(WriteFile(path, content));
  }
  // The findings as "kind WHERE: TEXT", WHERE below the spool.
  std::vector<std::string> Run(bool with_key = true) {
    VerifyCommand command{temp_.path() + "/spool", {}, true};
    if (with_key) command.key_paths = {key_};
    std::ostringstream out;
    code_ = command.Run(out);
    std::vector<std::string> findings;
    std::istringstream lines(out.str());
    for (std::string line; std::getline(lines, line);) {
      const nlohmann::json object = nlohmann::json::parse(line);
      if (!object.contains("finding")) {
        counts_ = object;
        continue;
      }
      findings.push_back(std::string(object["finding"]) + " " +
                         std::string(object["where"]).substr(command.directory.size() + 1) + ": " +
                         std::string(object["text"]));
    }
    EXPECT_EQ(counts_["findings"], findings.size());
    EXPECT_EQ(code_, findings.empty() ? 0 : 1);
    return findings;
  }

  orb::test::TempDir temp_;
  std::string key_;
  int code_ = -1;
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
  const struct {
    const char* name;
    std::function<void()> damage;
    std::vector<const char*> want;  // How the findings begin.
  } kCases[] = {
      {"gap", [&] { fs::remove(plain); }, {"gap up/7/radio: number 4 is missing"}},
      {"gap over owners",
       [&] { fs::remove(plain), fs::remove(sealed); },
       {"gap up/7/radio: numbers 4 to 5 are missing"}},
      {"repeat", [&] { Add(43, 4); }, {"repeat up/7/radio: number 4 has 2 uploads: "}},
      {"repeat of the same time",
       [&] { fs::copy(plain, plain.substr(0, plain.size() - 4) + ".1.orb"); },
       {"repeat up/7/radio: number 4 has 2 uploads: "}},
      {"short",
       [&] { Change(plain, [](std::string* s) { s->resize(70); }); },
       {"short up/7/radio.42/0000000004-1763716800000.orb: at offset 70: cut short"}},
      {"half a header",
       [&] { Change(plain, [](std::string* s) { s->resize(7); }); },
       {"short up/7/radio.42/0000000004-1763716800000.orb: at offset 7: "}},
      {"header",
       [&] { Change(plain, [](std::string* s) { (*s)[29] = 9; }); },
       {"header up/7/radio.42/0000000004-1763716800000.orb: at offset 29"}},
      {"another's header",
       [&] { Change(plain, [](std::string* s) { (*s)[52] = 3; }); },
       {"header up/7/radio.42/0000000004-1763716800000.orb: the header has number 3"}},
      {"gzip",
       [&] { Change(plain, [](std::string* s) { s->back() ^= 1; }); },
       {"data up/7/radio.42/0000000004-1763716800000.orb: at offset "}},
      {"tag",
       [&] { Change(sealed, [](std::string* s) { s->back() ^= 1; }); },
       {"tag up/7/radio.43/0000000005-1763716800000.orb: the key of LicSN 43 opens others"}},
      {"no name",
       [&] { fs::rename(plain, temp_.path() + "/spool/x.orb"); },
       {"header x.orb: no name", "gap up/7/radio: number 4"}},
      {"another key",
       [&] {
         key_ = temp_.path() + "/other.pem";
         ASSERT_TRUE(WriteFile(key_, test::PrivatePem(2)));
       },
       std::vector<const char*>(5, "sealed up/7/radio.43/")},
  };
  const fs::path spool = temp_.path() + "/spool";
  const fs::path sound = temp_.path() + "/sound";
  fs::rename(spool, sound);
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(spool);
    fs::copy(sound, spool, fs::copy_options::recursive);
    c.damage();
    const std::vector<std::string> got = Run();
    ASSERT_EQ(got.size(), c.want.size()) << ::testing::PrintToString(got);
    for (size_t i = 0; i < got.size(); ++i) EXPECT_THAT(got[i], ::testing::StartsWith(c.want[i]));
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
