// The HAL against clients that behave, and clients that do not.
#include "services/hal/hal.h"

#include <aidl/vendor/nuv/orbsyshal_aidl/BnOrbFdCallback.h>
#include <android/binder_manager.h>
#include <cutils/ashmem.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <future>

#include "orb_platform/local_service_manager.h"
#include "services/hal/orbsyshal_service.h"
#include "tests/services/upload_bytes.h"
#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"

namespace orb::hal {
namespace {

using orb::test::ListFiles;
using orb::test::ReadFileOrEmpty;
using Bytes = std::vector<uint8_t>;

constexpr Caller kRadio{100, 1000};
constexpr Caller kMallory{666, 1000};
constexpr pid_t kGone = 10000;  // And above.
constexpr const char* kName = "/up/7/radio.42";
constexpr const char* kFile = "/up/7/radio.42/0000000003-0000000000005.orb";
const Bytes kHeader = Upload(3, 5, 0);
const Bytes kRegion = {'0', '1', '2', '3', '4', '5', '6', '7'};

UniqueFd Memory(const Bytes& content, int seals = F_SEAL_SHRINK) {
  UniqueFd fd(memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  EXPECT_EQ(pwrite(fd.get(), content.data(), content.size(), 0),
            static_cast<ssize_t>(content.size()));
  EXPECT_EQ(fcntl(fd.get(), F_ADD_SEALS, seals), 0);
  return fd;
}

std::string Text(const Bytes& bytes) { return {bytes.begin(), bytes.end()}; }

// A queue that holds `payload` behind `skip` bytes that were read before.
QueueLayout Queue(const Bytes& payload, uint64_t skip = 0) {
  const uint64_t written = skip + payload.size();
  Bytes memory(16 + payload.size());
  memcpy(&memory[0], &skip, sizeof skip);
  memcpy(&memory[8], &written, sizeof written);
  for (size_t i = 0; i < payload.size(); ++i) {
    memory[16 + (skip + i) % payload.size()] = payload[i];
  }
  QueueLayout layout;
  layout.fds.push_back(Memory(memory));
  layout.pieces = {{0, 0, 8}, {0, 8, 8}, {0, 16, static_cast<int64_t>(payload.size())}};
  layout.quantum_bytes = 1;
  layout.flags = 1;
  return layout;
}

class HalTest : public ::testing::Test {
 protected:
  HalTest() {
    HalLimits limits;
    limits.queues = limits.channels = 400;
    limits.is_gone = [](pid_t process) { return process >= kGone; };
    limits.queue_patience = std::chrono::milliseconds(0);
    limits.notice_patience = std::chrono::milliseconds(1);
    hal_ = std::make_unique<Hal>(*Spool::Open(temp_.path(), 0), nullptr, limits);
  }
  // A channel over "01234567"; confirmations are appended to confirmed_.
  int32_t Channel(const Caller& caller) {
    const auto confirm = [this](const Notice& notice, const Receipt&) {
      MutexLock lock(mutex_);
      confirmed_.push_back({notice.token, notice.offset, notice.size, notice.result});
      return Sent::kYes;
    };
    return static_cast<int32_t>(hal_->AddChannel(caller, Memory(kRegion), 0, 8, confirm));
  }
  bool StoreQueue(const Caller& caller, size_t total) {
    return hal_->StoreQueue(caller, kName, static_cast<int32_t>(total));
  }
  int32_t StoreSlot(const Caller& caller, int32_t token) {
    return hal_->StoreSlot(caller, kName, kHeader, token, 0, 8);
  }
  bool WaitConfirmed(size_t count) {
    return orb::test::WaitFor([&] {
      MutexLock lock(mutex_);
      return confirmed_.size() == count;
    });
  }

  LogCapture log_;
  orb::test::TempDir temp_;
  std::unique_ptr<Hal> hal_;
  Mutex mutex_;
  std::vector<std::vector<int32_t>> confirmed_ ORB_GUARDED_BY(mutex_);
};

TEST_F(HalTest, StoresTheQueuesOfTwoClientsApart) {
  const Bytes mine = Upload(3, 5, 10);
  const Bytes other = Upload(4, 6, 20);
  ASSERT_TRUE(hal_->ConfigureQueue(kRadio, Queue(mine, 50))) << "it wraps around";
  ASSERT_TRUE(hal_->ConfigureQueue(kMallory, Queue(other)));
  EXPECT_TRUE(StoreQueue(kRadio, mine.size()));
  EXPECT_EQ(ReadFileOrEmpty(temp_.path() + kFile), Text(mine));
  EXPECT_FALSE(StoreQueue(kRadio, mine.size())) << "a queue is read once";
  EXPECT_TRUE(log_.Contains("payload /up/7/radio.42 of pid 100 uid 1000 refused: no queue"));
  EXPECT_TRUE(StoreQueue(kMallory, other.size()));
}

TEST_F(HalTest, RefusesQueuesThatAreNotWhatTheyClaim) {
  const std::pair<const char*, std::function<void(QueueLayout*)>> kCases[] = {
      {"words", [](QueueLayout* q) { q->quantum_bytes = 4; }},
      {"unsynchronized", [](QueueLayout* q) { q->flags = 2; }},
      {"two pieces", [](QueueLayout* q) { q->pieces.pop_back(); }},
      {"five pieces", [](QueueLayout* q) { q->pieces.resize(5); }},
      {"another's index", [](QueueLayout* q) { q->pieces[2].fd_index = 1; }},
      {"negative index", [](QueueLayout* q) { q->pieces[0].fd_index = -1; }},
      {"closed descriptor", [](QueueLayout* q) { q->fds[0].reset(); }},
      {"two descriptors", [](QueueLayout* q) { q->fds.push_back(Memory(kRegion)); }},
      {"negative offset", [](QueueLayout* q) { q->pieces[1].offset = -8; }},
      {"more than an upload", [](QueueLayout* q) { q->pieces[2].extent = (64 << 20) + 1; }},
      {"short counter", [](QueueLayout* q) { q->pieces[1].extent = 4; }},
      {"extent beyond the end", [](QueueLayout* q) { q->pieces[2].extent = INT64_MAX; }},
      {"no data", [](QueueLayout* q) { q->pieces[2].extent = 0; }},
  };
  for (const auto& [what, change] : kCases) {
    SCOPED_TRACE(what);
    log_.Clear();
    QueueLayout layout = Queue(Upload(3, 5, 34));
    change(&layout);
    EXPECT_FALSE(hal_->ConfigureQueue(kMallory, std::move(layout)));
    EXPECT_TRUE(log_.Contains("queue of pid 666 uid 1000 refused: "));
    EXPECT_FALSE(StoreQueue(kMallory, 100));
  }
}

TEST_F(HalTest, ReadsNoMoreThanTheQueueHolds) {
  const auto set_written = [](uint64_t value) {
    return [value](int fd) { EXPECT_EQ(pwrite(fd, &value, 8, 8), 8); };
  };
  const struct {
    const char* what;
    int32_t total;
    std::function<void(int)> change;
  } kCases[] = {
      {"negative", -1, {}},
      {"one more", 101, {}},
      {"nothing", 0, {}},
      {"written more than fits", 100, set_written(101)},
      {"written less than read", 100, set_written(UINT64_MAX)},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.what);
    QueueLayout layout = Queue(Upload(3, 5, 34));
    const UniqueFd client_side(dup(layout.fds[0].get()));
    ASSERT_TRUE(hal_->ConfigureQueue(kMallory, std::move(layout)));
    if (c.change) c.change(client_side.get());
    EXPECT_FALSE(hal_->StoreQueue(kMallory, kName, c.total));
  }
  EXPECT_TRUE(ListFiles(temp_.path()).empty());
}

// The most memory that this process has had, in bytes.
int64_t MostMemory() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return int64_t{usage.ru_maxrss} * 1024;
}

TEST_F(HalTest, CopiesAnUploadInPieces) {
  constexpr int64_t kBytes = 48 << 20;
  QueueLayout layout = Queue(Upload(0, 0, 34));
  const uint64_t counters[] = {100, 100 + kBytes};
  ASSERT_EQ(ftruncate(layout.fds[0].get(), 16 + kBytes), 0);
  ASSERT_EQ(pwrite(layout.fds[0].get(), counters, 16, 0), 16);
  layout.pieces[2].extent = kBytes;
  const int64_t before = MostMemory();
  ASSERT_TRUE(hal_->ConfigureQueue(kRadio, std::move(layout)));
  EXPECT_TRUE(StoreQueue(kRadio, kBytes));
  EXPECT_LT(MostMemory() - before, 16 << 20);
  EXPECT_GE(hal_->spool().StoredBytes(), uint64_t{kBytes});
}

TEST_F(HalTest, KeepsTheQueueOfEveryLivingClient) {
  const auto configure = [&](pid_t process, uid_t user) {
    return hal_->ConfigureQueue(Caller{process, user}, Queue(Upload(3, 5, 34)));
  };
  for (pid_t i = 1; i <= 200; ++i) ASSERT_TRUE(configure(kGone + i, 1));
  EXPECT_FALSE(configure(1, 1)) << "one user has more than half of the places";
  EXPECT_TRUE(log_.Contains("queue of pid 1 uid 1 refused: too many wait to be read"));
  for (pid_t i = 1; i <= 100; ++i) ASSERT_TRUE(configure(i, 2));
  EXPECT_TRUE(configure(100, 2)) << "in place of its own";
  EXPECT_FALSE(configure(101, 2)) << "a user with many has one of the last places";
  EXPECT_TRUE(configure(102, 3));
  ASSERT_TRUE(orb::test::WaitFor([&] { return configure(1, 1); })) << "the dead keep places";
  for (pid_t i = 1; i <= 100; ++i) EXPECT_TRUE(StoreQueue(Caller{i, 2}, 100)) << i;
  EXPECT_FALSE(StoreQueue(Caller{kGone + 1, 1}, 100));
}

TEST(PendingQueuesTest, WaitForAPlace) {
  const auto queue = [] { return *PayloadQueue::Open(Queue(Upload(3, 5, 34))); };
  PendingQueues queues(1, std::chrono::seconds(20), [](pid_t) { return false; });
  ASSERT_TRUE(queues.Put(kRadio, queue()));
  std::future<bool> waits =
      std::async(std::launch::async, [&] { return queues.Put(kMallory, queue()); });
  EXPECT_EQ(waits.wait_for(std::chrono::milliseconds(1)), std::future_status::timeout);
  EXPECT_NE(queues.Take(kRadio), nullptr);
  EXPECT_TRUE(waits.get());
  EXPECT_NE(queues.Take(kMallory), nullptr);
}

TEST_F(HalTest, StoresASlotBehindItsHeaderAndConfirmsIt) {
  const int32_t token = Channel(kRadio);
  EXPECT_EQ(hal_->StoreSlot(kRadio, kName, kHeader, token, 4, 3), 0);
  EXPECT_EQ(ReadFileOrEmpty(temp_.path() + kFile), Text(kHeader) + "456");
  ASSERT_TRUE(WaitConfirmed(1));
  MutexLock lock(mutex_);
  EXPECT_EQ(confirmed_[0], (std::vector<int32_t>{token, 4, 3, 0}));
}

TEST_F(HalTest, RefusesSlotsOutsideTheRegionAndOfOthers) {
  const int32_t token = Channel(kRadio);
  const struct {
    const char* what;
    Caller caller;
    int32_t token;
    int32_t offset;
    int32_t size;
    int32_t want;
  } kCases[] = {
      {"offset behind the end", kRadio, token, 9, 1, -EINVAL},
      {"negative offset", kRadio, token, -1, 1, -EINVAL},
      {"beyond the end", kRadio, token, 4, 5, -EINVAL},
      {"highest size", kRadio, token, 4, INT32_MAX, -EINVAL},
      {"no size", kRadio, token, 0, 0, -EINVAL},
      {"unknown token", kRadio, token + 1, 0, 8, -EBADF},
      {"another's channel", kMallory, token, 0, 8, -EBADF},
      {"another user", Caller{100, 0}, token, 0, 8, -EBADF},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(hal_->StoreSlot(c.caller, kName, kHeader, c.token, c.offset, c.size), c.want);
  }
  EXPECT_EQ(hal_->StoreSlot(kRadio, kName, Bytes(65), token, 0, 8), -EINVAL);
  EXPECT_EQ(hal_->StoreSlot(kRadio, "/up/../../etc/passwd", kHeader, token, 0, 8), -EIO);
  EXPECT_FALSE(hal_->RemoveChannel(kMallory, token));
  EXPECT_TRUE(ListFiles(temp_.path()).empty());
  EXPECT_EQ(StoreSlot(kRadio, token), 0) << "refusals cost nothing";
  ASSERT_TRUE(WaitConfirmed(1));
}

TEST_F(HalTest, RefusesTheSlotsOfAClientThatTakesNoNote) {
  std::atomic<bool> answers{false};
  Receipt kept;
  const auto keep = [&](const Notice&, Receipt receipt) {
    if (!answers) kept = std::move(receipt);
    return Sent::kYes;
  };
  const auto token = static_cast<int32_t>(hal_->AddChannel(kMallory, Memory(kRegion), 0, 8, keep));
  EXPECT_TRUE(orb::test::WaitFor([&] { return StoreSlot(kMallory, token) == -EBUSY; }));
  EXPECT_TRUE(log_.Contains("refused: the client does not answer"));
  EXPECT_EQ(StoreSlot(kRadio, Channel(kRadio)), 0);
  EXPECT_TRUE(WaitConfirmed(1));
  answers = true;
  kept.reset();
  EXPECT_TRUE(orb::test::WaitFor([&] { return StoreSlot(kMallory, token) == 0; }));
  hal_.reset();  // Before what its channel writes to.
}

TEST_F(HalTest, BoundsTheChannelsOfAClientAndForgetsThem) {
  const int32_t closed = Channel(kMallory);
  const int32_t dead = Channel(kMallory);
  for (size_t i = 2; i < ChannelTable::kMaxPerCaller; ++i) ASSERT_GT(Channel(kMallory), 0);
  EXPECT_EQ(Channel(kMallory), 0);
  EXPECT_TRUE(log_.Contains("channel of pid 666 uid 1000 refused: too many channels are open"));
  EXPECT_GT(Channel(kRadio), 0);
  EXPECT_TRUE(hal_->RemoveChannel(kMallory, closed));
  hal_->ChannelDied(static_cast<uint32_t>(dead));
  EXPECT_TRUE(log_.Contains("closed: its client died"));
  for (const int32_t token : {closed, dead}) {
    EXPECT_EQ(StoreSlot(kMallory, token), -EBADF);
    EXPECT_FALSE(hal_->RemoveChannel(kMallory, token));
    EXPECT_GT(Channel(kMallory), 0);
  }
}

UniqueFd WriteOnly(const UniqueFd& memory) {
  return UniqueFd(open(("/proc/self/fd/" + std::to_string(memory.get())).c_str(), O_WRONLY));
}

TEST(SharedRegionTest, RefusesWhatIsNoSharedMemory) {
  const orb::test::TempDir temp;
  const std::string path = temp.path() + "/file";
  ASSERT_TRUE(orb::test::WriteFile(path, "01234567"));
  struct Case {
    const char* what;
    UniqueFd fd;
    int64_t offset;
    int64_t length;
  };
  Case cases[] = {
      {"none", UniqueFd(), 0, 4},
      {"directory", UniqueFd(open("/", O_RDONLY | O_DIRECTORY)), 0, 4},
      {"file", UniqueFd(open(path.c_str(), O_RDONLY)), 0, 4},
      {"memory that may shrink", Memory(kRegion, F_SEAL_GROW | F_SEAL_WRITE), 0, 4},
      {"cannot be read", WriteOnly(Memory(kRegion)), 0, 4},
      {"no length", Memory(kRegion), 0, 0},
      {"negative offset", Memory(kRegion), -4, 4},
      {"offset behind the end", Memory(kRegion), 9, 1},
      {"length beyond the end", Memory(kRegion), 4, 5},
      {"sum that overflows", Memory(kRegion), 8, INT64_MAX},
  };
  for (Case& c : cases) {
    SCOPED_TRACE(c.what);
    const auto region = SharedRegion::Open(std::move(c.fd), c.offset, c.length);
    ASSERT_FALSE(region.ok());
    EXPECT_NE(region.error().text, "");
  }
  UniqueFd region(ashmem_create_region("region", 4096));
  EXPECT_TRUE(SharedRegion::Open(std::move(region), 0, 4096).ok());
}

struct IgnoringCallback : ::aidl::vendor::nuv::orbsyshal_aidl::BnOrbFdCallback {
  ::ndk::ScopedAStatus fd_write_done(int32_t, int32_t, int32_t, int32_t) override {
    return ::ndk::ScopedAStatus::ok();
  }
};

// Through a proxy.
TEST_F(HalTest, ServiceRefusesHandlesOfAnotherShape) {
  using ::aidl::vendor::nuv::orbsyshal_aidl::IOrbsyshal;
  android::setDefaultServiceManager(new orb_platform::LocalServiceManager());
  const auto service = ::ndk::SharedRefBase::make<OrbsyshalService>(std::move(hal_));
  ASSERT_EQ(AServiceManager_addService(service->asBinder().get(), kHalServiceName), EX_NONE);
  const auto proxy =
      IOrbsyshal::fromBinder(::ndk::SpAIBinder(AServiceManager_checkService(kHalServiceName)));
  ASSERT_NE(proxy, nullptr);
  const auto callback = ::ndk::SharedRefBase::make<IgnoringCallback>();
  ::aidl::vendor::nuv::orbsyshal_aidl::SetFdResult channel;
  IOrbsyshal::NativeHandle handle;
  const auto refused = [&] {
    EXPECT_TRUE(proxy->set_fd(handle, callback, &channel).isOk());
    return channel.result != 0 && channel.fdToken == 0;
  };
  EXPECT_TRUE(refused()) << "nothing";
  handle.fds.emplace_back(Memory(kRegion).release());
  const std::vector<int32_t> kInts[] = {{0}, {0, 4, 0}, {0, 9}, {-1, 4}, {0, INT32_MIN}};
  for (const std::vector<int32_t>& ints : kInts) {
    handle.ints = ints;
    EXPECT_TRUE(refused()) << ::testing::PrintToString(ints);
  }
  handle.ints = {0, 8};
  EXPECT_FALSE(refused());
  EXPECT_TRUE(proxy->unset_fd(channel.fdToken).isOk());
  EXPECT_EQ(proxy->unset_fd(channel.fdToken).getExceptionCode(), EX_ILLEGAL_ARGUMENT);
  EXPECT_EQ(proxy->set_fd(handle, nullptr, &channel).getStatus(), STATUS_UNEXPECTED_NULL);
  handle.fds.emplace_back(Memory(kRegion).release());
  EXPECT_TRUE(refused()) << "two descriptors";
  handle.fds[0].set(-1);
  EXPECT_EQ(proxy->set_fd(handle, callback, &channel).getStatus(), STATUS_UNEXPECTED_NULL);
  EXPECT_EQ(log_.Count(" refused: "), 7U) << log_.Dump();
  android::setDefaultServiceManager(nullptr);
}

}  // namespace
}  // namespace orb::hal
