#include "serializer/kpi_file_serializer.h"

#include <unistd.h>

#include <filesystem>
#include <thread>

#include "proto/kpi_data.pb.h"
#include "tests/collector/collector_fixture.h"
#include "tests/collector/gunzip.h"
#include "tests/support/file_size_limit.h"

namespace orb::test {
namespace {

const std::string kVersion("\x08\x01", 2);
constexpr size_t kPrefixBytes = 66 + 2;

// A session gives the collector its tables, with one owner; the serializer under
// test works beside the session's own, in a directory of its own.
class FileSerializerTest : public CollectorFixture {
 protected:
  ~FileSerializerTest() override { files_.reset(); }

  void StartSession() {
    LTCCampaignDef def = MakeCampaign();
    AddLicSn(&def, 42, false, {1});
    MakeRegistered().SetCampaignId(77);
    ASSERT_EQ(collector_->StartSession(MakeConfig(def, {MakeLicInfo(42)})), 0);
    log_.Clear();
  }
  void Open(uint32_t threshold = 4096) {
    if (collector_ == nullptr) StartSession();
    files_ = std::make_unique<KPIFileSerializer>();
    ASSERT_EQ(files_->Initialize(cache_.path().c_str(), threshold, 60, collector_.get()), 0);
  }
  void Log(const std::string& record) {
    EXPECT_EQ(files_->WriteBuf(Bytes(record), static_cast<uint32_t>(record.size())), 0);
  }
  static orbtr::KPIData Blob(const std::string& bytes) {
    orbtr::KPIData data;
    data.add_blobs()->set_data(bytes);
    return data;
  }
  static std::string BlobRecord(const std::string& bytes) {
    return Blob(bytes).SerializeAsString();
  }
  void LogBlob(uint32_t kpi, const std::string& bytes) {
    orbtr::KPIData data = Blob(bytes);
    EXPECT_EQ(files_->Write(data, kpi), 0);
  }
  std::string Tmp(uint64_t licSN) const {
    return cache_.path() + "/radio-" + std::to_string(licSN) + ".tmp";
  }
  bool WaitForBytes(size_t bytes) const {
    return WaitFor([&] { return ReadFileOrEmpty(Tmp(42)).size() == bytes; });
  }
  // What went out, all uploads together, without their version records.
  std::string Sent() const {
    std::string out;
    for (const auto& upload : client_->Uploads()) {
      const std::string payload = Gunzip(upload.data.data(), upload.data.size());
      EXPECT_EQ(payload.substr(0, 2), kVersion);
      out += payload.substr(2);
    }
    return out;
  }

  TempDir cache_;
  std::unique_ptr<KPIFileSerializer> files_;
};

TEST_F(FileSerializerTest, AFileIsHeaderVersionAndRecordsAsQueued) {
  const struct {
    uint8_t override;  // Its header comes without a version record.
    const char* want_kind;
    std::string want_version;
  } cases[] = {{0, "kind 4 version 1", kVersion}, {1, "kind 9 version 3", ""}};
  for (const auto& c : cases) {
    cfg_.header_override = c.override;
    cfg_.header_kind = 9;
    cfg_.header_version = 3;
    StartSession();
    Open();
    ExpectInfo("handleTmpFile: Creating 1 new tmp files - radio");
    ExpectInfo("createFout: tmpfile created " + Tmp(42).substr(17));
    Log("abc");
    LogBlob(1, "xyz");
    Log("");
    const std::string payload = c.want_version + "abc" + BlobRecord("xyz");
    ASSERT_TRUE(WaitForBytes(66 + payload.size()));
    const std::string file = ReadFileOrEmpty(Tmp(42));
    EXPECT_EQ(HeaderText({file.begin(), file.begin() + 66}),
              std::string("9 66 client 7 ") + c.want_kind +
                  " length 0 1 compressed 0 campaign 77 number 0 owner 42 sealed 0 footer at 0");
    EXPECT_EQ(file.substr(66), payload);
    EXPECT_TRUE(log_.Contains("writer_func: q size: "));
    ExpectDebug("add_to_file: licsn - 42");
    files_->Finalize();
  }
}

TEST_F(FileSerializerTest, FilesWithoutARecordAreDeletedNotSent) {
  Open();
  files_->Flush();
  ASSERT_TRUE(log_.WaitFor("tmpfile created", 2));
  ExpectDebug("prepare_file: Flush received in thread");
  Log("Flush");  // Raw bytes that read like the control word are one.
  ASSERT_TRUE(log_.WaitFor("tmpfile created", 3));
  EXPECT_TRUE(WaitForBytes(kPrefixBytes));
  EXPECT_EQ(client_->Count("sendData"), 0u);
  Log("abc");
  files_->Flush();
  ASSERT_TRUE(log_.WaitFor("tmpfile created", 4));
  EXPECT_EQ(Sent(), "abc");
}

TEST_F(FileSerializerTest, AFileBeyondTheThresholdIsSentAtOnce) {
  const struct {
    std::vector<size_t> records;
    std::vector<size_t> want;  // Bytes of each upload; the last one goes at the end.
  } cases[] = {{{400, 400, 400, 5}, {1200, 5}},
               {{1000 - kPrefixBytes, 1, 5}, {1001 - kPrefixBytes, 5}},
               {{2000, 2000, 5}, {2000, 2000, 5}}};
  for (const auto& c : cases) {
    std::vector<size_t> got;
    const size_t before = client_->Uploads().size();
    Open(1000);
    for (const size_t bytes : c.records) Log(std::string(bytes, 'r'));
    files_->Finalize();
    const auto uploads = client_->Uploads();
    for (size_t i = before; i < uploads.size(); ++i) {
      got.push_back(Gunzip(uploads[i].data.data(), uploads[i].data.size()).size() - 2);
    }
    EXPECT_EQ(got, c.want);
  }
}

TEST_F(FileSerializerTest, LeftOverFilesAreSentOrDeleted) {
  Open();
  Log("own");
  ASSERT_TRUE(WaitForBytes(kPrefixBytes + 3));
  files_.reset();  // Ends the writer thread, but sends nothing.
  EXPECT_EQ(client_->Count("sendData"), 0u);
  const std::string start = ReadFileOrEmpty(Tmp(42)).substr(0, kPrefixBytes);
  for (const char* name :
       {"radio-7.tmp", "radio-9.tmp.bak", "radio2-5.tmp", "other-7.tmp", "radio-6.txt"}) {
    ASSERT_TRUE(WriteFile(cache_.path() + "/" + name, start + name));
  }
  ASSERT_TRUE(WriteFile(Tmp(8), start));
  const std::string dangling = cache_.path() + "/radio-link.tmp";
  ASSERT_EQ(symlink("nowhere", dangling.c_str()), 0);
  Open();
  EXPECT_EQ(ListFiles(cache_.path()),
            (std::vector<std::string>{"other-7.tmp", "radio-42.tmp", "radio-6.txt"}));
  EXPECT_EQ(Sent(), "ownradio-7.tmpradio-9.tmp.bakradio2-5.tmp") << "the header tells the owner";
  ExpectInfo("handleTmpFile: Sending old tmp file with data - " + Tmp(7));
  ExpectInfo("handleTmpFile: Deleting old tmp file with no data - " + Tmp(8));
  ExpectError("handleTmpFile: error in stat() call on tmpfile " + dangling +
              " - err: No such file or directory");
}

TEST_F(FileSerializerTest, WithoutItsDirectoryALicSnHasNoFile) {
  Open();
  Log("lost");
  ASSERT_TRUE(WaitForBytes(kPrefixBytes + 4));
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
  EXPECT_EQ(Sent(), "after");
}

TEST_F(FileSerializerTest, NoRecordFollowsHalfAHeader) {
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
  EXPECT_EQ(Sent(), "next") << "under its own name, with a whole header";
  EXPECT_EQ(client_->Count("sendData"), 1u);
}

// The context switches of this process's writer threads.
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
  Open();
  Log("x");
  ASSERT_TRUE(WaitForBytes(kPrefixBytes + 1));
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

}  // namespace
}  // namespace orb::test
