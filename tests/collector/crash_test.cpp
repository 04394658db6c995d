// A client killed at every system call that changes a file, from its first session to the
// end, and started again: what the HAL has then is every record that was written, none
// twice in an upload, and every number once.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <sstream>

#include "tests/collector/collector_fixture.h"
#include "tests/collector/gunzip.h"
#include "tests/support/traced_child.h"

namespace orb::test {
namespace {

namespace fs = std::filesystem;

constexpr uint64_t kOwners[] = {42, 43};
constexpr uint32_t kRecords = 9;       // Over three files of each owner, by size and by flush.
constexpr uint32_t kRecordBytes = 16;  // A number and blanks before it.
constexpr size_t kStartBytes = 68;     // Header and version record.

// An upload, as one line of the HAL's file.
struct Received {
  uint64_t owner = 0;
  uint32_t seqno = 0;
  uint64_t creation_ms = 0;
  size_t torn_bytes = 0;
  std::vector<uint64_t> ids;

  // The same data file sent again.
  bool SameFile(const Received& other) const {
    return owner == other.owner && ids == other.ids && creation_ms == other.creation_ms;
  }
};

// A HAL whose memory outlives the client: an upload is one write to the end of a file.
class FileHal : public FakeAidlClient {
 public:
  explicit FileHal(const std::string& path)
      : fd_(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600)) {}
  int sendData(const std::string&, const std::string&, const uint8_t* header, uint32_t,
               const uint8_t* data, uint32_t data_len, const uint8_t*, uint32_t) override {
    std::string text = Gunzip(data, data_len).substr(2);  // Behind the version.
    const size_t torn_bytes = text.size() % kRecordBytes;
    text.resize(text.size() - torn_bytes);
    const std::string line = std::to_string(header::kLicSn.Load(header)) + " " +
                             std::to_string(header::kSeqno.Load(header)) + " " +
                             std::to_string(header::kCreated.Load(header)) + " " +
                             std::to_string(torn_bytes) + " " + text + "\n";
    return write(fd_.get(), line.data(), line.size()) == static_cast<ssize_t>(line.size()) ? 0 : -1;
  }

 private:
  UniqueFd fd_;
};

std::vector<Received> ReadHal(const std::string& dir) {
  std::vector<Received> uploads;
  std::istringstream lines(ReadFileOrEmpty(dir + "/hal"));
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    Received& got = uploads.emplace_back();
    fields >> got.owner >> got.seqno >> got.creation_ms >> got.torn_bytes;
    for (uint64_t id; fields >> id;) got.ids.push_back(id);
  }
  return uploads;
}

// A session that logs `records` records, the client's own and all to both owners.
int RunClient(const std::string& dir, uint32_t records) {
  const LogCapture quiet;
  const std::string data_dir = dir + "/data/";
  kiv_cfg_s cfg{};
  cfg.name = "radio";
  cfg.data_dir = data_dir.c_str();
  cfg.sync_register = 1;
  kiv_collector collector(&cfg);
  collector.SetClientForTest(std::make_shared<FileHal>(dir + "/hal"));
  LTCCampaignDef def = MakeCampaign();
  def.set_threshold_size(120);
  std::vector<LicInfo> infos;
  for (const uint64_t owner : kOwners) {
    AddLicSn(&def, owner, false);
    infos.push_back(MakeLicInfo(static_cast<int64_t>(owner)));
  }
  int failed = collector.Register() | collector.StartSession(MakeConfig(def, infos));
  for (uint32_t i = 1; i <= records; ++i) {
    const std::string number = std::to_string(i);
    const std::string record = std::string(kRecordBytes - number.size(), ' ') + number;
    failed |= collector.LogBuf(Bytes(record), kRecordBytes);
    if (i == 7) collector.Flush();
  }
  failed |= collector.StopSession() | collector.DeRegister();
  collector.Unroute();
  return failed == 0 ? 0 : 1;
}

// Records of an owner that the kernel had when the client died.
uint64_t WrittenFor(uint64_t owner, const std::vector<FileCall>& calls) {
  const std::string path_end = "radio-" + std::to_string(owner) + ".tmp";
  return static_cast<uint64_t>(std::count_if(calls.begin(), calls.end(), [&](const FileCall& call) {
    return call.name == "write" && call.path.ends_with(path_end) && call.result > 0 &&
           static_cast<size_t>(call.result) < kStartBytes;
  }));
}

// `kills` bounds how many files are sent again: one that dies between the HAL's answer and
// the deletion of the file does that.
void ExpectDelivered(const std::string& dir, const std::vector<FileCall>& first_run, size_t kills,
                     uint64_t torn_owner = 0) {
  const std::vector<Received> uploads = ReadHal(dir);
  std::set<uint32_t> numbers;
  size_t repeats = 0;
  for (const Received& upload : uploads) {
    EXPECT_TRUE(numbers.insert(upload.seqno).second) << "number " << upload.seqno << " twice";
    EXPECT_TRUE(torn_owner == upload.owner || upload.torn_bytes == 0);
  }
  for (const uint64_t owner : kOwners) {
    std::vector<uint64_t> ids;
    const Received* last = nullptr;
    for (const Received& upload : uploads) {
      if (upload.owner != owner) continue;
      if (last != nullptr && last->SameFile(upload)) {
        ++repeats;
        continue;
      }
      last = &upload;
      ids.insert(ids.end(), upload.ids.begin(), upload.ids.end());
    }
    std::vector<uint64_t> want(WrittenFor(owner, first_run) - (owner == torn_owner ? 1 : 0));
    for (size_t i = 0; i < want.size(); ++i) want[i] = i + 1;
    EXPECT_EQ(ids, want) << "of owner " << owner;
  }
  EXPECT_LE(repeats, kills);
  EXPECT_LE(ListFiles(dir + "/data").size(), 3u) << "an empty file for each owner, and the number";
}

class CrashTest : public testing::Test {
 protected:
  // A directory as the client finds it: a copy of `from`, or an empty one.
  std::string Fresh(const std::string& from = "") {
    const std::string dir = temp_.path() + "/" + std::to_string(++dirs_);
    if (from.empty()) {
      fs::create_directories(dir + "/data");
    } else {
      fs::copy(from, dir, fs::copy_options::recursive);
    }
    return dir;
  }
  static TraceResult Run(const std::string& dir, uint32_t records, size_t nth,
                         KillAt when = KillAt::kEntry) {
    return RunTraced([&] { return RunClient(dir, records); }, dir, nth, when);
  }
  static void Recover(const std::string& dir) {
    const TraceResult run = Run(dir, 0, 0);
    ASSERT_EQ(run.exit_code, 0);
  }
  // A run that logs `records`, killed at each of its calls in turn, and recovered from;
  // before it there was `first`, which left `from`. What the run does that nobody kills.
  TraceResult KillAtEveryCall(uint32_t records, const std::string& from = "",
                              const TraceResult* first = nullptr) {
    for (size_t n = 1;; ++n) {
      SCOPED_TRACE("killed before call " + std::to_string(n));
      const std::string dir = Fresh(from);
      const TraceResult run = Run(dir, records, n);
      EXPECT_TRUE(run.killed || run.exit_code == 0);
      if (run.killed) Recover(dir);
      const size_t kills = (first != nullptr ? 1 : 0) + (run.killed ? 1 : 0);
      ExpectDelivered(dir, (first != nullptr ? *first : run).done, kills);
      if (!run.killed || HasFailure()) return run;
    }
  }

  // In memory where there is such a place: what the kernel has is what a kill leaves, and
  // some thousand synchronisations cost nothing.
  const int in_memory_ = access("/dev/shm", W_OK) == 0 ? setenv("TMPDIR", "/dev/shm", 1) : 0;
  TempDir temp_;
  int dirs_ = 0;
};

TEST_F(CrashTest, RecoveryLosesNothingThatWasWritten) {
  const TraceResult whole = KillAtEveryCall(kRecords);
  EXPECT_EQ(WrittenFor(42, whole.done), kRecords);
  EXPECT_GT(whole.done.size(), 100U) << "the write path has become short, or is not seen";
}

// A record that got to the disk in part is the only one that is lost.
TEST_F(CrashTest, ATornRecordCostsItselfOnly) {
  const TraceResult whole = Run(Fresh(), kRecords, 0);
  size_t torn = 0;
  for (size_t n = 1; n <= whole.done.size(); ++n) {
    const FileCall& call = whole.done[n - 1];
    if (call.name != "write" || !call.path.ends_with(".tmp")) continue;
    SCOPED_TRACE("torn in call " + std::to_string(n));
    const std::string dir = Fresh();
    const TraceResult run = Run(dir, kRecords, n, KillAt::kReturn);
    ASSERT_TRUE(run.killed);
    const std::string path = run.done.back().path;
    fs::resize_file(path, fs::file_size(path) - 3);
    const bool record = static_cast<size_t>(run.done.back().result) < kStartBytes;
    Recover(dir);
    ExpectDelivered(dir, run.done, 1, !record ? 0 : path.ends_with("-42.tmp") ? 42 : 43);
    torn += record ? 1 : 0;
  }
  EXPECT_EQ(torn, 2 * kRecords);
}

// The second life dies as well, anywhere.
TEST_F(CrashTest, RecoveryMayBeKilledToo) {
  const size_t calls = Run(Fresh(), kRecords, 0).done.size();
  const std::string dead = Fresh();
  const TraceResult first = Run(dead, kRecords, calls / 2);
  EXPECT_GT(KillAtEveryCall(0, dead, &first).done.size(), 15U);
}

}  // namespace
}  // namespace orb::test
