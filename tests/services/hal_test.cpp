// The HAL against clients that behave, and clients that do not.
#include "services/hal/hal.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <future>

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
constexpr const char* kName = "/up/7/radio.42";
constexpr const char* kFile = "/up/7/radio.42/0000000003-0000000000005.orb";

UniqueFd Memory(const Bytes& content) {
  UniqueFd fd(memfd_create("test", MFD_CLOEXEC));
  EXPECT_EQ(pwrite(fd.get(), content.data(), content.size(), 0),
            static_cast<ssize_t>(content.size()));
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
    std::string error;
    hal_ = std::make_unique<Hal>(Spool::Open(temp_.path(), 0, &error));
  }
  // A channel over `content`; confirmations are appended to confirmed_.
  int32_t Channel(const Caller& caller, const Bytes& content) {
    return static_cast<int32_t>(
        hal_->AddChannel(caller, Memory(content), 0, static_cast<int32_t>(content.size()),
                         [this](int32_t token, int32_t a, int32_t b, int32_t c) {
                           MutexLock lock(mutex_);
                           confirmed_.push_back({token, a, b, c});
                         }));
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
  std::vector<std::vector<int32_t>> confirmed_ GUARDED_BY(mutex_);
};

TEST_F(HalTest, StoresAQueuedPayloadAlsoOneThatWrapsAround) {
  const Bytes upload = Upload(3, 5, 100);
  for (const uint64_t skip : {uint64_t{0}, uint64_t{100}}) {
    SCOPED_TRACE(skip);
    ASSERT_TRUE(hal_->ConfigureQueue(kRadio, Queue(upload, skip)));
    EXPECT_TRUE(hal_->StoreQueue(kRadio, kName, static_cast<int32_t>(upload.size())));
    EXPECT_EQ(ReadFileOrEmpty(temp_.path() + kFile), Text(upload));
  }
}

TEST_F(HalTest, KeepsTheQueuesOfTwoClientsApart) {
  const Bytes mine = Upload(3, 5, 10);
  const Bytes other = Upload(4, 6, 20);
  ASSERT_TRUE(hal_->ConfigureQueue(kRadio, Queue(mine)));
  ASSERT_TRUE(hal_->ConfigureQueue(kMallory, Queue(other)));
  EXPECT_TRUE(hal_->StoreQueue(kRadio, kName, static_cast<int32_t>(mine.size())));
  EXPECT_EQ(ReadFileOrEmpty(temp_.path() + kFile), Text(mine));
  EXPECT_FALSE(hal_->StoreQueue(kRadio, kName, static_cast<int32_t>(mine.size())))
      << "a queue is read once";
  EXPECT_TRUE(log_.Contains("payload /up/7/radio.42 of pid 100 uid 1000 refused: no queue"));
  EXPECT_TRUE(hal_->StoreQueue(kMallory, "/up/8/m.1", static_cast<int32_t>(other.size())));
}

TEST_F(HalTest, RefusesQueuesThatAreNotWhatTheyClaim) {
  const Bytes upload = Upload(3, 5, 34);
  const struct {
    const char* what;
    std::function<void(QueueLayout*)> change;
  } kCases[] = {
      {"empty", [](QueueLayout* q) { *q = QueueLayout(); }},
      {"words", [](QueueLayout* q) { q->quantum_bytes = 4; }},
      {"unsynchronized", [](QueueLayout* q) { q->flags = 2; }},
      {"two pieces", [](QueueLayout* q) { q->pieces.pop_back(); }},
      {"five pieces", [](QueueLayout* q) { q->pieces.resize(5); }},
      {"no descriptor", [](QueueLayout* q) { q->fds.clear(); }},
      {"another's index", [](QueueLayout* q) { q->pieces[2].fd_index = 1; }},
      {"negative index", [](QueueLayout* q) { q->pieces[0].fd_index = -1; }},
      {"closed descriptor", [](QueueLayout* q) { q->fds[0].reset(); }},
      {"short counter", [](QueueLayout* q) { q->pieces[1].extent = 4; }},
      {"negative offset", [](QueueLayout* q) { q->pieces[2].offset = -1; }},
      {"offset behind the end", [](QueueLayout* q) { q->pieces[2].offset = 1000; }},
      {"extent beyond the end", [](QueueLayout* q) { q->pieces[2].extent = INT64_MAX; }},
      {"no data", [](QueueLayout* q) { q->pieces[2].extent = 0; }},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.what);
    log_.Clear();
    QueueLayout layout = Queue(upload);
    c.change(&layout);
    EXPECT_FALSE(hal_->ConfigureQueue(kMallory, std::move(layout)));
    EXPECT_TRUE(log_.Contains("queue of pid 666 uid 1000 refused: "));
    EXPECT_FALSE(hal_->StoreQueue(kMallory, kName, 100));
  }
  EXPECT_TRUE(ListFiles(temp_.path()).empty());
}

TEST_F(HalTest, ReadsNoMoreThanTheQueueHolds) {
  const Bytes upload = Upload(3, 5, 34);
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
      {"huge", INT32_MAX, {}},
      {"nothing", 0, {}},
      {"written more than fits", 100, set_written(101)},
      {"written less than read", 100, set_written(UINT64_MAX)},
      {"shrunk after it was configured", 100, [](int fd) { EXPECT_EQ(ftruncate(fd, 50), 0); }},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.what);
    QueueLayout layout = Queue(upload);
    const UniqueFd client_side(dup(layout.fds[0].get()));
    ASSERT_TRUE(hal_->ConfigureQueue(kMallory, std::move(layout)));
    if (c.change) c.change(client_side.get());
    EXPECT_FALSE(hal_->StoreQueue(kMallory, kName, c.total));
  }
  EXPECT_TRUE(ListFiles(temp_.path()).empty());
}

TEST_F(HalTest, BoundsTheQueuesThatNobodyReads) {
  for (size_t i = 0; i <= PendingQueues::kMaxQueues; ++i) {
    const Caller caller{static_cast<pid_t>(i), 1};
    ASSERT_TRUE(hal_->ConfigureQueue(caller, Queue(Upload(3, 5, 34))));
  }
  EXPECT_FALSE(hal_->StoreQueue(Caller{0, 1}, kName, 100)) << "the oldest stayed";
  EXPECT_TRUE(hal_->StoreQueue(Caller{1, 1}, kName, 100));
}

TEST_F(HalTest, StoresASlotBehindItsHeaderAndConfirmsIt) {
  const int32_t token = Channel(kRadio, {'0', '1', '2', '3', '4', '5', '6', '7'});
  ASSERT_GT(token, 0);
  const Bytes header = Upload(3, 5, 0);
  EXPECT_EQ(hal_->StoreSlot(kRadio, kName, header, token, 4, 3), 0);
  EXPECT_EQ(ReadFileOrEmpty(temp_.path() + kFile), Text(header) + "456");
  ASSERT_TRUE(WaitConfirmed(1));
  MutexLock lock(mutex_);
  EXPECT_EQ(confirmed_[0], (std::vector<int32_t>{token, 4, 3, 0}));
}

TEST_F(HalTest, RefusesSlotsOutsideTheRegionAndOfOthers) {
  const int32_t token = Channel(kRadio, Bytes(64, 'x'));
  const Bytes header = Upload(3, 5, 0);
  const struct {
    const char* what;
    Caller caller;
    std::string name;
    Bytes header;
    int32_t token;
    int32_t offset;
    int32_t size;
    int32_t want;
  } kCases[] = {
      {"offset behind the end", kRadio, kName, header, token, 65, 1, -EINVAL},
      {"negative offset", kRadio, kName, header, token, -1, 1, -EINVAL},
      {"lowest offset", kRadio, kName, header, token, INT32_MIN, 1, -EINVAL},
      {"beyond the end", kRadio, kName, header, token, 60, 5, -EINVAL},
      {"highest size", kRadio, kName, header, token, 60, INT32_MAX, -EINVAL},
      {"no size", kRadio, kName, header, token, 0, 0, -EINVAL},
      {"negative size", kRadio, kName, header, token, 0, -8, -EINVAL},
      {"short header", kRadio, kName, Bytes(65), token, 0, 8, -EINVAL},
      {"long header", kRadio, kName, Bytes(67), token, 0, 8, -EINVAL},
      {"no header", kRadio, kName, {}, token, 0, 8, -EINVAL},
      {"unknown token", kRadio, kName, header, token + 1, 0, 8, -EBADF},
      {"token 0", kRadio, kName, header, 0, 0, 8, -EBADF},
      {"another's channel", kMallory, kName, header, token, 0, 8, -EBADF},
      {"another user", Caller{100, 0}, kName, header, token, 0, 8, -EBADF},
      {"hostile name", kRadio, "/up/../../etc/passwd", header, token, 0, 8, -EIO},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(hal_->StoreSlot(c.caller, c.name, c.header, c.token, c.offset, c.size), c.want);
  }
  EXPECT_FALSE(hal_->RemoveChannel(kMallory, token));
  EXPECT_TRUE(ListFiles(temp_.path()).empty());
  EXPECT_EQ(hal_->StoreSlot(kRadio, kName, header, token, 0, 64), 0) << "refusals cost nothing";
  ASSERT_TRUE(WaitConfirmed(1));
}

TEST_F(HalTest, OutlivesAClientThatShrinksItsRegion) {
  UniqueFd fd = Memory(Bytes(4096, 'x'));
  const UniqueFd client_side(dup(fd.get()));
  const uint32_t token =
      hal_->AddChannel(kMallory, std::move(fd), 0, 4096, [](int32_t, int32_t, int32_t, int32_t) {});
  ASSERT_NE(token, 0U);
  ASSERT_EQ(ftruncate(client_side.get(), 0), 0);
  EXPECT_EQ(hal_->StoreSlot(kMallory, kName, Upload(3, 5, 0), static_cast<int32_t>(token), 0, 4096),
            -EINVAL);
  EXPECT_TRUE(log_.Contains("it lies outside the region, or the region has shrunk"));
}

TEST_F(HalTest, ForgetsChannelsThatAreClosedOrDead) {
  const int32_t closed = Channel(kRadio, Bytes(8, 'x'));
  const int32_t dead = Channel(kRadio, Bytes(8, 'x'));
  EXPECT_NE(closed, dead);
  EXPECT_TRUE(hal_->RemoveChannel(kRadio, closed));
  hal_->ChannelDied(static_cast<uint32_t>(dead));
  EXPECT_TRUE(log_.Contains("closed: its client died"));
  for (const int32_t token : {closed, dead}) {
    EXPECT_EQ(hal_->StoreSlot(kRadio, kName, Upload(3, 5, 0), token, 0, 8), -EBADF);
    EXPECT_FALSE(hal_->RemoveChannel(kRadio, token));
  }
}

TEST_F(HalTest, BoundsTheChannelsOfOneClient) {
  for (size_t i = 0; i < ChannelTable::kMaxPerCaller; ++i) {
    ASSERT_GT(Channel(kMallory, Bytes(8, 'x')), 0);
  }
  EXPECT_EQ(Channel(kMallory, Bytes(8, 'x')), 0);
  EXPECT_TRUE(log_.Contains("channel of pid 666 uid 1000 refused: too many channels are open"));
  EXPECT_GT(Channel(kRadio, Bytes(8, 'x')), 0);
}

TEST_F(HalTest, ServesOthersWhileOneClientNeverTakesNote) {
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  const uint32_t stuck =
      hal_->AddChannel(kMallory, Memory(Bytes(8, 'x')), 0, 8,
                       [released](int32_t, int32_t, int32_t, int32_t) { released.wait(); });
  const Bytes header = Upload(3, 5, 0);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(hal_->StoreSlot(kMallory, "/up/9/m.1", header, static_cast<int32_t>(stuck), 0, 8), 0);
  }
  const int32_t token = Channel(kRadio, Bytes(8, 'x'));
  EXPECT_EQ(hal_->StoreSlot(kRadio, kName, header, token, 0, 8), 0);
  EXPECT_TRUE(WaitConfirmed(1));
  EXPECT_TRUE(hal_->RemoveChannel(kMallory, static_cast<int32_t>(stuck)));
  EXPECT_FALSE(hal_->channels().FinishBy(std::chrono::steady_clock::now()));
  release.set_value();
  EXPECT_TRUE(
      hal_->channels().FinishBy(std::chrono::steady_clock::now() + std::chrono::seconds(20)));
}

}  // namespace
}  // namespace orb::hal
