#include "serializer/kpi_file_serializer.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <thread>

#include "proto/kpi_data.pb.h"
#include "tests/collector/collector_fixture.h"
#include "tests/collector/gunzip.h"
#include "tests/serializer/open_descriptors.h"
#include "tests/support/file_size_limit.h"

namespace orb::test {
namespace {

using Owners = std::map<uint64_t, std::vector<uint32_t>>;  // LicSN to its KPIs.

const std::string kVersion("\x08\x01", 2);
constexpr size_t kPrefixBytes = 66 + 2;

// A session gives the collector its tables; the serializer under test works
// beside the session's own, in a directory of its own.
class FileSerializerTest : public CollectorFixture {
 protected:
  ~FileSerializerTest() override { files_.reset(); }

  void StartSession(const Owners& owners) {
    MakeRegistered();
    LTCCampaignDef def = MakeCampaign();
    std::vector<LicInfo> keys;
    for (const auto& [licSN, kpis] : owners) {
      AddLicSn(&def, licSN, false, kpis);
      keys.push_back(MakeLicInfo(static_cast<int64_t>(licSN)));
    }
    collector_->SetCampaignId(77);
    ASSERT_EQ(collector_->StartSession(MakeConfig(def, keys)), 0);
    log_.Clear();
  }
  void Open(uint32_t threshold = 4096) {
    files_ = std::make_unique<KPIFileSerializer>();
    ASSERT_EQ(files_->Initialize(cache_.path().c_str(), threshold, 60, collector_.get()), 0);
  }
  void Log(const std::string& record) {
    EXPECT_EQ(files_->WriteBuf(reinterpret_cast<const uint8_t*>(record.data()),
                               static_cast<uint32_t>(record.size())),
              0);
  }
  void LogBlob(uint32_t kpi, const std::string& bytes) {
    orbtr::KPIData data = BlobData(bytes);
    EXPECT_EQ(files_->Write(data, kpi), 0);
  }
  static orbtr::KPIData BlobData(const std::string& bytes) {
    orbtr::KPIData data;
    data.add_blobs()->set_data(bytes);
    return data;
  }
  static std::string BlobRecord(const std::string& bytes) {
    return BlobData(bytes).SerializeAsString();
  }
  std::string Tmp(uint64_t licSN) const {
    return cache_.path() + "/radio-" + std::to_string(licSN) + ".tmp";
  }
  bool WaitForBytes(uint64_t licSN, size_t bytes) const {
    return WaitFor([&] { return ReadFileOrEmpty(Tmp(licSN)).size() == bytes; });
  }
  // What went out for a LicSN, all uploads together, without their version records.
  std::string Sent(uint64_t licSN) const {
    std::string out;
    for (const auto& upload : client_->Uploads()) {
      if (upload.name != "/up/7/radio." + std::to_string(licSN)) continue;
      const std::string payload = Gunzip(upload.data.data(), upload.data.size());
      EXPECT_EQ(payload.substr(0, 2), kVersion);
      out += payload.substr(2);
    }
    return out;
  }

  TempDir cache_;
  std::unique_ptr<KPIFileSerializer> files_;
};

// The bytes that depend on the clock, as zeros.
std::string WithoutTimes(std::string header) {
  std::fill(header.begin() + 17, header.begin() + 25, 0);
  std::fill(header.begin() + 31, header.begin() + 41, 0);
  return header;
}

std::string Header(uint8_t kind, uint8_t version) {
  std::string header(66, 0);
  header[3] = 9;
  header[7] = 66;
  header[11] = 7;  // Client id.
  header[12] = static_cast<char>(kind);
  header[16] = static_cast<char>(version);
  header[29] = 1;
  header[48] = 77;  // Campaign.
  header[60] = 42;  // LicSN.
  return header;
}

TEST_F(FileSerializerTest, AFileIsHeaderVersionAndRecordsAsQueued) {
  StartSession({{42, {}}});
  Open();
  EXPECT_TRUE(Logged(ANDROID_LOG_INFO, "handleTmpFile: Creating 1 new tmp files - radio"));
  EXPECT_TRUE(Logged(ANDROID_LOG_INFO, "createFout: tmpfile created " + Tmp(42).substr(17)));
  ASSERT_EQ(ReadFileOrEmpty(Tmp(42)).size(), kPrefixBytes);
  Log("abc");
  LogBlob(1, "xyz");
  Log("");
  ASSERT_TRUE(WaitForBytes(42, kPrefixBytes + 3 + 7));
  EXPECT_EQ(WithoutTimes(ReadFileOrEmpty(Tmp(42))),
            Header(4, 1) + kVersion + "abc" + "\x2a\x05\x12\x03xyz");
  EXPECT_TRUE(log_.Contains("writer_func: q size: "));
  EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG, "add_to_file: licsn - 42"));
}

TEST_F(FileSerializerTest, AnOverriddenHeaderComesWithoutVersion) {
  cfg_.header_override = 1;
  cfg_.header_kind = 9;
  cfg_.header_version = 3;
  StartSession({{42, {}}});
  Open();
  Log("abc");
  ASSERT_TRUE(WaitForBytes(42, 69));
  EXPECT_EQ(WithoutTimes(ReadFileOrEmpty(Tmp(42))), Header(9, 3) + "abc");
}

TEST_F(FileSerializerTest, AFlushBecomesOneUploadOfAllRecords) {
  StartSession({{42, {}}});
  Open();
  Log("abc");
  EXPECT_EQ(files_->Flush(), 0);
  ASSERT_TRUE(client_->WaitForCalls("sendData", 1));
  EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG, "prepare_file: Flush received in thread"));
  const FakeAidlClient::Upload upload = client_->Uploads()[0];
  EXPECT_EQ(upload.name, "/up/7/radio.42");
  std::string want = Header(4, 1);
  want[28] = static_cast<char>(upload.data.size());
  want[30] = 1;  // Compressed; sequence number 0.
  EXPECT_EQ(WithoutTimes({upload.header.begin(), upload.header.end()}), want);
  EXPECT_EQ(Gunzip(upload.data.data(), upload.data.size()), kVersion + "abc");
  EXPECT_TRUE(upload.footer.empty());
  EXPECT_TRUE(WaitForBytes(42, kPrefixBytes)) << "a fresh file follows";
}

TEST_F(FileSerializerTest, FilesWithoutARecordAreDeletedNotSent) {
  StartSession({{42, {}}});
  Open();
  const auto created = [&] { return log_.Count("tmpfile created"); };
  ASSERT_EQ(created(), 1u);
  files_->Flush();
  ASSERT_TRUE(log_.WaitFor("tmpfile created", 2));
  Log("Flush");  // Raw bytes that read like the control word are one.
  ASSERT_TRUE(log_.WaitFor("tmpfile created", 3));
  EXPECT_TRUE(WaitForBytes(42, kPrefixBytes));
  EXPECT_EQ(client_->Count("sendData"), 0u);
}

TEST_F(FileSerializerTest, AFileBeyondTheThresholdIsSentAtOnce) {
  const struct {
    const char* name;
    std::vector<size_t> records;
    size_t want_uploads;
    size_t want_bytes;  // Of the file that is left.
  } kCases[] = {
      {"the third of 400 passes 1000", {400, 400, 400}, 1, kPrefixBytes},
      {"exactly 1000 stays", {1000 - kPrefixBytes}, 0, 1000},
      {"one more goes", {1000 - kPrefixBytes, 1}, 1, kPrefixBytes},
      {"each alone", {2000, 2000, 5}, 2, kPrefixBytes + 5},
  };
  StartSession({{42, {}}});
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    const size_t before = client_->Count("sendData");
    Open(1000);
    for (const size_t bytes : c.records) Log(std::string(bytes, 'r'));
    ASSERT_TRUE(client_->WaitForCalls("sendData", before + c.want_uploads));
    EXPECT_TRUE(WaitForBytes(42, c.want_bytes));
    EXPECT_EQ(client_->Count("sendData"), before + c.want_uploads);
    files_->Finalize();
  }
}

TEST_F(FileSerializerTest, RecordsGoToTheOwnersOfTheirKpi) {
  StartSession({{7, {2, 3}}, {42, {1, 3}}});
  Open();
  LogBlob(1, "one");
  LogBlob(2, "two");
  LogBlob(3, "both");
  LogBlob(99, "nobody's");
  Log("raw");
  files_->Finalize();
  const std::string everyones = BlobRecord("nobody's") + "raw";
  EXPECT_EQ(Sent(42), BlobRecord("one") + BlobRecord("both") + everyones);
  EXPECT_EQ(Sent(7), BlobRecord("two") + BlobRecord("both") + everyones);
}

TEST_F(FileSerializerTest, CustomSessionsRouteNothing) {
  cfg_.custom_session_format = 1;
  MakeRegistered();
  ASSERT_EQ(collector_->StartSession(MakeConfig("x", {MakeLicInfo(7), MakeLicInfo(42)})), 0);
  Open();
  LogBlob(1, "one");
  files_->Finalize();
  EXPECT_EQ(Sent(7), BlobRecord("one"));
  EXPECT_EQ(Sent(42), BlobRecord("one"));
}

TEST_F(FileSerializerTest, ALicSnStopsAndStartsAgain) {
  StartSession({{42, {1}}});
  Open();
  LogBlob(1, "before");
  ASSERT_TRUE(WaitForBytes(42, kPrefixBytes + BlobRecord("before").size()));
  files_->DisableLicSN(42);
  EXPECT_EQ(Sent(42), BlobRecord("before"));
  EXPECT_FALSE(std::filesystem::exists(Tmp(42)));
  EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG, "removeLicSNfromMap: Removed Lic SN - 42 from map"));
  LogBlob(1, "lost");
  EXPECT_TRUE(log_.WaitFor("prepare_file: fout not found for lic SN: 42"));
  files_->DisableLicSN(42);
  EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "removeLicSNfromMap: could not find Lic Sn - 42 in map"));
  files_->Flush();  // Without an open file it does nothing.
  files_->EnableLicSN(42);
  LogBlob(1, "after");
  files_->Finalize();
  EXPECT_EQ(Sent(42), BlobRecord("before") + BlobRecord("after"));
}

TEST_F(FileSerializerTest, LeftOverFilesAreSentOrDeleted) {
  const std::string header = Header(4, 1) + kVersion;
  const std::map<std::string, std::string> left = {
      {"radio-7.tmp", header + "seven"},    {"radio-8.tmp", header},
      {"radio-9.tmp.bak", header + "nine"}, {"radio2-5.tmp", header + "five"},
      {"other-7.tmp", header + "other"},    {"radio-6.txt", header + "six"},
  };
  for (const auto& [name, content] : left) {
    ASSERT_TRUE(WriteFile(cache_.path() + "/" + name, content));
  }
  const std::string dangling = cache_.path() + "/radio-link.tmp";
  ASSERT_EQ(symlink("nowhere", dangling.c_str()), 0);
  StartSession({{42, {}}});
  Open();
  EXPECT_EQ(ListFiles(cache_.path()),
            (std::vector<std::string>{"other-7.tmp", "radio-42.tmp", "radio-6.txt"}));
  EXPECT_EQ(Sent(42),
            "sevennine"
            "five")
      << "the owner is in the header";
  EXPECT_TRUE(
      Logged(ANDROID_LOG_INFO, "handleTmpFile: Sending old tmp file with data - " + Tmp(7)));
  EXPECT_TRUE(
      Logged(ANDROID_LOG_INFO, "handleTmpFile: Deleting old tmp file with no data - " + Tmp(8)));
  EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "handleTmpFile: error in stat() call on tmpfile " +
                                            dangling + " - err: No such file or directory"));
}

TEST_F(FileSerializerTest, DestructionKeepsWhatIsNotSentForTheNextStart) {
  StartSession({{42, {}}});
  Open();
  Log("kept");
  files_.reset();  // Ends the writer thread, but sends nothing.
  EXPECT_EQ(client_->Count("sendData"), 0u);
  EXPECT_EQ(ReadFileOrEmpty(Tmp(42)).substr(kPrefixBytes), "kept");
  Open();
  EXPECT_EQ(Sent(42), "kept");
}

TEST_F(FileSerializerTest, SegmentsAreNotSupported) {
  StartSession({{42, {}}});
  Open();
  EXPECT_EQ(files_->WriteBlobSegsOptimized(1, 2, 3, 4, nullptr, 0), -1);
  EXPECT_TRUE(
      Logged(ANDROID_LOG_ERROR, "WriteBlobSegsOptimized not supported in KPIFileSerializer"));
}

TEST_F(FileSerializerTest, WithoutItsDirectoryALicSnHasNoFile) {
  StartSession({{42, {}}});
  Open();
  Log("lost");
  ASSERT_TRUE(WaitForBytes(42, kPrefixBytes + 4));
  const std::string away = cache_.path() + ".away";
  ASSERT_EQ(rename(cache_.path().c_str(), away.c_str()), 0);
  files_->Flush();
  EXPECT_TRUE(log_.WaitFor("createFout: file creation failed - " + Tmp(42).substr(17) +
                           " - err: No such file or directory"));
  Log("skipped");
  EXPECT_TRUE(log_.WaitFor("add_to_file: error: fout is NULL for licSN 42 - skipping data"));
  files_->Flush();
  EXPECT_TRUE(log_.WaitFor("fileFlush: error: fout is NULL for licSN 42 - not flushing"));
  ASSERT_EQ(rename(away.c_str(), cache_.path().c_str()), 0);
  files_->EnableLicSN(42);
  Log("after");
  files_->Finalize();
  EXPECT_EQ(Sent(42), "after");
}

TEST_F(FileSerializerTest, AFullDiskKeepsThePartThatFits) {
  StartSession({{42, {}}});
  Open();
  {
    const FileSizeLimit full(kPrefixBytes + 4);
    Log("0123456789");
    EXPECT_TRUE(log_.WaitFor("add_to_file: error writing to file"));
  }
  Log("next");
  files_->Finalize();
  EXPECT_EQ(Sent(42), "0123next");
}

TEST_F(FileSerializerTest, NoRecordFollowsHalfAHeader) {
  StartSession({{42, {}}});
  Open();
  {
    const FileSizeLimit full(55);  // Ends within the LicSN.
    files_->Flush();
    EXPECT_TRUE(log_.WaitFor("createFout: error writing to file"));
    Log("lost");
    EXPECT_TRUE(log_.WaitFor("add_to_file: error writing to file"));
  }
  Log("next");
  files_->Finalize();
  EXPECT_EQ(Sent(42), "next") << "under its own name, with a whole header";
  EXPECT_EQ(client_->Count("sendData"), 1u);
}

TEST_F(FileSerializerTest, LosesNothingUnderLoad) {
  StartSession({{7, {}}, {42, {}}});
  Open(500);
  constexpr int kWriters = 4;
  constexpr int kRecords = 50;
  std::vector<std::thread> threads;
  for (int writer = 0; writer < kWriters; ++writer) {
    threads.emplace_back([this, writer] {
      for (int i = 0; i < kRecords; ++i) {
        char record[16];
        snprintf(record, sizeof record, "<%d:%03d>", writer, i);
        Log(record);
      }
    });
  }
  threads.emplace_back([this] {
    for (uint32_t i = 0; i < 10; ++i) {
      files_->DisableLicSN(7);
      files_->UpdateConfig(KIV_PARAM_SIZE_THRESHOLD, 300 + 20 * i);
      files_->Flush();
      files_->EnableLicSN(7);
    }
  });
  for (std::thread& thread : threads) thread.join();
  files_->Finalize();

  const std::string sent = Sent(42);
  EXPECT_EQ(sent.size(), size_t{kWriters * kRecords * 7});
  std::vector<int> next(kWriters, 0);
  for (size_t at = 0; at + 7 <= sent.size(); at += 7) {
    int writer = -1;
    int record = -1;
    ASSERT_EQ(sscanf(sent.c_str() + at, "<%d:%d>", &writer, &record), 2) << sent.substr(at, 7);
    ASSERT_EQ(record, next.at(static_cast<size_t>(writer))++) << "order of one thread";
  }
}

// "comm" and the context switches of this process's writer threads.
std::vector<std::string> WriterThreads() {
  std::vector<std::string> out;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    if (ReadFileOrEmpty(task.path() / "comm") != "orb_writer\n") continue;
    const std::string status = ReadFileOrEmpty(task.path() / "status");
    out.push_back(status.substr(status.find("voluntary_ctxt_switches")));
  }
  return out;
}

TEST_F(FileSerializerTest, TheWriterSleepsWhileThereIsNothingToDo) {
  StartSession({{42, {}}});
  Open();
  Log("x");
  ASSERT_TRUE(WaitForBytes(42, kPrefixBytes + 1));
  // Asleep once two looks in a row agree; a thread that polls never gets there.
  std::vector<std::string> last;
  EXPECT_TRUE(WaitFor([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    auto now = WriterThreads();
    std::swap(now, last);
    return now == last;
  }));
  EXPECT_EQ(last.size(), 2u) << "the session's and this one";
}

TEST_F(FileSerializerTest, RoundsLeaveNoDescriptorAndNoThread) {
  StartSession({{7, {}}, {42, {}}});
  const size_t descriptors = OpenDescriptors();
  for (int round = 0; round < 50; ++round) {
    Open();
    if (round % 2 == 0) files_->Finalize();
    files_.reset();
  }
  EXPECT_EQ(OpenDescriptors(), descriptors);
  EXPECT_EQ(WriterThreads().size(), 1u) << "the session's";
}

}  // namespace
}  // namespace orb::test
