// A host that forks after it has registered: the child's calls are refused, at once
// and without a trace outside the child; the parent goes on.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <future>
#include <map>
#include <optional>
#include <thread>

#include "tests/collector/collector_fixture.h"
#include "tests/collector/gunzip.h"
#include "utility/fork_guard.h"

namespace {
bool in_child = false;
}  // namespace

// The sanitizers' runtime: what they count as allocated, which the C library does not tell
// exactly, and whether they look for leaks, which a child has in what the parent's threads
// owned.
extern "C" [[gnu::weak]] size_t __sanitizer_get_current_allocated_bytes();
extern "C" int __lsan_is_turned_off() { return in_child ? 1 : 0; }

namespace orb::test {
namespace {

constexpr uint32_t kBlob = 7;

bool CountsHeap() { return __sanitizer_get_current_allocated_bytes != nullptr; }
size_t HeapBytes() { return CountsHeap() ? __sanitizer_get_current_allocated_bytes() : 0; }

class ForkTest : public CollectorFixture {
 protected:
  ForkTest() { EXPECT_TRUE(fork_guard::Watch()); }

  void StartSession() {
    LTCCampaignDef def = MakeCampaign({MakeKpi(kBlob, KPI_BLOB)});
    AddLicSn(&def, 1, false, {kBlob});
    ASSERT_EQ(MakeRegistered().StartSession(MakeConfig(def, {MakeLicInfo(1)})), 0);
    LogBlob("before the fork");
  }
  // Returns when the writer sleeps again.
  void LogBlob(const std::string& text) {
    ASSERT_EQ(
        kiv_log_blob(collector_.get(), kBlob, Bytes(text), static_cast<uint32_t>(text.size())), 0);
    ASSERT_TRUE(WaitFor([this] { return collector_->Pending() == 0; }));
  }
  std::map<std::string, std::string> Files() const {
    std::map<std::string, std::string> files;
    for (const std::string& name : ListFiles(dir_.path())) {
      files[name] = ReadFileOrEmpty(data_dir_ + name);
    }
    return files;
  }

  // In the child: 0, or the step that went wrong.
  int UseInChild(std::optional<bool> freed) {
    kiv_collector* const c = collector_.release();
    kiv_fd_handle_s handle{1, 0, 0, 1, nullptr, c};
    kiv_blob_segment_t segment{nullptr, 0};
    uint64_t id = 0;
    const std::string errors_path = errors_.path() + "/stderr";
    dup2(open(errors_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), STDERR_FILENO);
    const size_t lines = log_.Lines().size();
    const size_t calls = client_->Calls().size();
    const int results[] = {kiv_log(c, kBlob, 1),
                           kiv_log_event(c, kBlob, 1),
                           kiv_log_state(c, kBlob, 1, 1),
                           kiv_log_blob(c, kBlob, nullptr, 0),
                           kiv_log_blob_segments(c, kBlob, &segment, 1),
                           kiv_log_buf(c, nullptr, 0),
                           kiv_flush(c),
                           kiv_set_cfg(c, KIV_PARAM_SIZE_THRESHOLD, 0),
                           kiv_is_kpi_enabled(c, kBlob),
                           kiv_get_campaign_id(c, &id),
                           kiv_log_fd_buf(&handle, 0, 0, 1),
                           kiv_unset_fd(&handle)};
    for (size_t i = 0; i < std::size(results); ++i) {
      if (results[i] != -1) return static_cast<int>(i) + 1;
    }
    if (kiv_set_fd(c, 0, 0, 1, nullptr) != nullptr) return 20;
    if (kiv_register(&cfg_) != nullptr) return 21;
    const size_t before = HeapBytes();
    if (kiv_deregister(c) != -1) return 22;
    if (freed && CountsHeap() && *freed != (HeapBytes() + sizeof *c <= before)) return 23;
    const std::string errors = ReadFileOrEmpty(errors_path);
    if (errors.find(" E ") == std::string::npos || errors.find("kiv_log: ") == std::string::npos ||
        std::count(errors.begin(), errors.end(), '\n') != 1 || log_.Lines().size() != lines) {
      return 24;
    }
    return client_->Calls().size() == calls ? 0 : 25;
  }
  // What UseInChild gave in a child that then ends by exit(); `freed`: what it must
  // find of the collector's memory, if that is known.
  int Fork(std::optional<bool> freed) {
    fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
      in_child = true;
      exit(UseInChild(freed));
    }
    int status = 0;
    if (!WaitFor([&] { return waitpid(child, &status, WNOHANG) == child; })) {
      ADD_FAILURE() << "the child hangs";
      kill(child, SIGKILL);
      waitpid(child, &status, 0);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  TempDir errors_;
};

TEST_F(ForkTest, AChildsCallsAreRefusedAndItsParentGoesOn) {
  static std::promise<void> entered;
  static std::promise<void> leave;
  cfg_.stop_session_cb = [](kiv_collector*) {
    entered.set_value();
    leave.get_future().wait();
    return 0;
  };
  StartSession();
  const auto files = Files();
  EXPECT_EQ(Fork(true), 0);
  EXPECT_EQ(Files(), files) << "they are the parent's";
  LogBlob("after the fork");
  auto ended = std::async(std::launch::async, [this] { return collector_->DeRegister(); });
  entered.get_future().wait();
  EXPECT_EQ(Fork(false), 0) << "what may be half changed is left alone";
  leave.set_value();
  EXPECT_EQ(ended.get(), 0);
  const auto uploads = client_->Uploads();
  ASSERT_EQ(uploads.size(), 1u);
  const std::string sent = Gunzip(uploads[0].data.data(), uploads[0].data.size());
  for (const char* text : {"before the fork", "after the fork"}) {
    const size_t at = sent.find(text);
    EXPECT_NE(at, std::string::npos) << text;
    EXPECT_EQ(sent.find(text, at + 1), std::string::npos) << text << " is there twice";
  }
}

TEST_F(ForkTest, ARegionStaysTheParents) {
  cfg_.hbt = cfg_.allocate_fd = 1;
  cfg_.fd_slot_size = 4096;
  cfg_.fd_nof_slots = 4;
  StartSession();
  EXPECT_EQ(Fork(true), 0);
  LogBlob("after the fork");
  std::thread hal([this] {
    WaitFor([this] { return client_->Pieces().size() == 1; });
    collector_->FdWriteDone(FakeAidlClient::kFirstRegion, 0, 0, 0);
  });
  EXPECT_EQ(collector_->DeRegister(), 0);
  hal.join();
  EXPECT_EQ(client_->Count("UnsetFD"), 1u);
}

// A thread that waits between two attempts, for the first registration and for one
// after the manager's death.
TEST_F(ForkTest, AChildDoesNotWaitForThreadsThatItHasNot) {
  WriteConf("register_retry_wait_sec=3600\n");
  for (const bool lost : {false, true}) {
    SCOPED_TRACE(lost);
    client_ = std::make_shared<FakeAidlClient>();
    cfg_.sync_register = lost;
    if (lost) MakeRegistered();
    client_->Fail("registerClient", 1, 99);
    log_.Clear();
    if (lost) {
      collector_->LostConn();
    } else {
      EXPECT_EQ(Make().Register(), 0);
    }
    ASSERT_TRUE(log_.WaitFor("Resetting client ptr"));
    // The one after a loss waits with the session mutex held; the other may hold a leaf.
    EXPECT_EQ(Fork(lost ? std::optional(false) : std::nullopt), 0);
    Destroy();
  }
}

}  // namespace
}  // namespace orb::test
