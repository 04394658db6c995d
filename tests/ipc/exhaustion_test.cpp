// Whole lives of two clients, one of files and one of slots, in each of which one
// allocation, thread, mapping or file is refused: the n-th, for every n. The process
// stays, each call answers, a failure is logged, and the next life is as if nothing
// had been.
#include <android/log.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <orb_platform/local_service_manager.h>
#include <pthread.h>
#include <stdio.h>
#include <sys/mman.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <new>

#include "collector/kiv_collector.h"
#include "ipc/KIVCampConfig.h"
#include "ipc/kiv_aidl_client.h"
#include "orb_sdk.h"
#include "proto/ltc_campaign.pb.h"
#include "tests/ipc/fake_hal.h"
#include "tests/ipc/fake_manager.h"
#include "tests/support/child_process.h"
#include "utility/files.h"

namespace {

enum Kind { kNone, kNew, kMalloc, kThread, kMapping, kFile, kKinds, kForkHandler };
const char* const kKindNames[kKinds] = {"none", "new", "malloc", "thread", "mapping", "file"};

std::atomic<Kind> failing{kNone};
std::atomic<int64_t> left{-1};  // Until the one that fails.
std::atomic<int> errors_logged{0};

bool FailsNow(Kind kind) { return failing.load() == kind && left.fetch_sub(1) == 0; }

// The test's own allocations are not refused.
class Spared {
 public:
  ~Spared() { failing = before_; }

 private:
  const Kind before_ = failing.exchange(kNone);
};

void CountErrors(const __android_logger_data* message, const char*) {
  if (message->priority >= ANDROID_LOG_ERROR) ++errors_logged;
}

}  // namespace

// The linker has the library's own calls end here; every new does, in every library.
extern "C" {
void* __real_malloc(size_t bytes);
void* __wrap_malloc(size_t bytes) { return FailsNow(kMalloc) ? nullptr : __real_malloc(bytes); }
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*run)(void*),
                          void* argument);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*run)(void*),
                          void* argument) {
  return FailsNow(kThread) ? EAGAIN : __real_pthread_create(thread, attr, run, argument);
}
int __real_pthread_atfork(void (*prepare)(), void (*parent)(), void (*child)());
int __wrap_pthread_atfork(void (*prepare)(), void (*parent)(), void (*child)()) {
  return FailsNow(kForkHandler) ? ENOMEM : __real_pthread_atfork(prepare, parent, child);
}
void* __real_mmap(void* where, size_t bytes, int protection, int flags, int fd, off_t offset);
void* __wrap_mmap(void* where, size_t bytes, int protection, int flags, int fd, off_t offset) {
  if (!FailsNow(kMapping)) return __real_mmap(where, bytes, protection, flags, fd, offset);
  errno = ENOMEM;
  return MAP_FAILED;
}
int __real_open(const char* path, int flags, mode_t mode);
int __wrap_open(const char* path, int flags, mode_t mode) {
  if (!FailsNow(kFile)) return __real_open(path, flags, mode);
  errno = EMFILE;
  return -1;
}
}  // extern "C"

// What protobuf and the platform's objects were building is lost to them when memory runs
// out in the middle; the library itself loses nothing.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:google::protobuf\nleak:asBinder\n";
}

// Not inlined: the compiler would take malloc and free here for a mismatch of new and
// delete in their callers.
[[gnu::noinline]] void* operator new(size_t bytes) {
  void* const memory = FailsNow(kNew) ? nullptr : __real_malloc(bytes == 0 ? 1 : bytes);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
[[gnu::noinline]] void* operator new(size_t bytes, const std::nothrow_t&) noexcept {
  return FailsNow(kNew) ? nullptr : __real_malloc(bytes == 0 ? 1 : bytes);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept { std::free(memory); }

namespace orb::test {
namespace {

constexpr char kManagerService[] = "vendor_kivsdkservice";

// Takes each slot at once, before the announcement has returned.
class QuickHal : public FakeHal {
 public:
  QuickHal() = default;
  ::ndk::ScopedAStatus fd_write_to_system_dropbox(const std::string& name,
                                                  const std::vector<uint8_t>& header, int32_t token,
                                                  int32_t offset, int32_t size, int32_t compress,
                                                  int32_t* result) override {
    auto status =
        FakeHal::fd_write_to_system_dropbox(name, header, token, offset, size, compress, result);
    const Spared spared;  // The HAL tells until it is heard.
    if (status.isOk() && *result == 0 && !keeps) Complete(token, offset, size, 0);
    return status;
  }
  bool keeps = false;  // Every slot, without a word.
};

size_t CountEntries(const char* directory) {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(directory), {}));
}

class ExhaustionTest : public ::testing::Test {
 protected:
  ExhaustionTest() {
    __android_log_set_logger(CountErrors);
    Files::Functions files;
    files.open = [](const char* path, const char* mode) -> FILE* {
      if (!FailsNow(kFile)) return fopen(path, mode);
      errno = EMFILE;
      return nullptr;
    };
    files.sync = [](int) { return 0; };  // A thousand lives would wait for the disk.
    Files::Use(files);
    android::setDefaultServiceManager(services_);
    services_->addService(android::String16(kManagerService), manager_);
    EXPECT_TRUE(hal_->Publish());
    WriteFile(data_dir_ + "orb_sdk.conf", "register_max_retries=1\nregister_retry_wait_sec=-1\n");
    LTCCampaignDef def;
    def.set_threshold_size(100);
    def.set_threshold_time(60);
    for (const KPISubType type : {COUNTER, GAUGE, HISTOGRAM}) {
      KPICfg* const kpi = def.add_kpi_cfgs();
      kpi->set_kpi_id(static_cast<uint32_t>(type));
      kpi->set_type(KPI_NUMERIC);
      kpi->set_sub_type(type);
      kpi->set_sample_window(2);
    }
    KPICfg* const blob = def.add_kpi_cfgs();
    blob->set_kpi_id(100);
    blob->set_type(KPI_BLOB);
    blob->mutable_b_cfg()->set_single_sample_size_threshold_bytes(100);
    def.add_lic_sn_kpi_maps()->set_lic_sn(42);
    const std::string bytes = def.SerializeAsString();
    campaign_.campId = 1;
    campaign_.campaignDef.assign(bytes.begin(), bytes.end());
    campaign_.licInfo.emplace_back().licSN = 42;
  }

  // Notes the answer of one call, which is 0 or -1.
  void Answer(int result) {
    ++(result == 0 ? succeeded_ : failed_);
    EXPECT_TRUE(result == 0 || result == -1) << result;
  }

  // Registers, runs a session and ends. False when any call failed.
  bool Live(bool slots, bool sync) {
    succeeded_ = failed_ = 0;
    errors_logged = 0;
    kiv_collector* const c = Register(slots, sync);
    Answer(c == nullptr ? -1 : 0);
    if (c != nullptr) {
      Session(c);
      Answer(kiv_deregister(c));
    }
    EXPECT_TRUE(failed_ == 0 || errors_logged > 0) << failed_ << " calls failed without a line";
    return failed_ == 0;
  }

  kiv_collector* Register(bool slots, bool sync) {
    kiv_cfg_s cfg{};
    cfg.name = "radio";
    cfg.data_dir = data_dir_.c_str();
    cfg.sync_register = sync;
    cfg.hbt = cfg.allocate_fd = slots;
    cfg.fd_slot_size = 64;
    cfg.fd_nof_slots = 4;
    return kiv_register(&cfg);
  }

  void Session(kiv_collector* c) {
    std::string token;
    android::sp<IKIVCallback> callback;
    {
      const Spared spared;
      token = manager_->LastToken();
      callback = manager_->Callback();
    }
    int32_t started = -1;
    callback->StartSession(token, campaign_, &started);
    Answer(started);
    const bool running = started == 0;
    for (uint32_t value = 1; value <= 5 && running; ++value) {
      for (const KPISubType type : {COUNTER, GAUGE, HISTOGRAM}) Answer(kiv_log(c, type, value));
    }
    const uint8_t bytes[30] = {};
    if (running) Answer(kiv_log_blob(c, 100, bytes, sizeof bytes));
    if (running) Answer(kiv_log_buf(c, bytes, sizeof bytes));
    Answer(kiv_flush(c));
    callback->StopSession(token, 1);
  }

  TempDir dir_;
  const std::string data_dir_ = dir_.path() + "/";
  const android::sp<orb_platform::LocalServiceManager> services_{
      new orb_platform::LocalServiceManager()};
  const android::sp<FakeManager> manager_{new FakeManager()};
  const std::shared_ptr<QuickHal> hal_ = ::ndk::SharedRefBase::make<QuickHal>();
  KIVCampConfig campaign_;
  int succeeded_ = 0;
  int failed_ = 0;
};

// The first of the process, so that the handler is not there yet.
TEST_F(ExhaustionTest, ARegistrationThatCannotWatchForForksIsRefused) {
  left = 0;
  failing = kForkHandler;
  EXPECT_FALSE(Live(false, true));
  EXPECT_LT(left, 0);
  EXPECT_EQ(succeeded_, 0);
  EXPECT_TRUE(Live(false, true));
}

// A loss that nobody hears of would keep the end of the session waiting for ever.
TEST_F(ExhaustionTest, TheHalsDeathReachesItsSlotsWithoutMemory) {
  for (const Kind kind : {kNew, kMalloc}) {
    SCOPED_TRACE(kKindNames[kind]);
    hal_->keeps = true;
    kiv_collector* const c = Register(true, true);
    ASSERT_NE(c, nullptr);
    int32_t started = -1;
    manager_->Callback()->StartSession(manager_->LastToken(), campaign_, &started);
    ASSERT_EQ(started, 0);
    EXPECT_EQ(kiv_log_buf(c, reinterpret_cast<const uint8_t*>("record"), 6), 0);
    EXPECT_EQ(kiv_flush(c), 0);
    ASSERT_EQ(c->ledger().Copy().owners[42].under_way.records, 1u);
    left = 0;
    failing = kind;
    kivAIDLClient::serviceDied(nullptr);
    failing = kNone;
    EXPECT_EQ(left, 0) << "nothing is allocated";
    EXPECT_EQ(c->ledger().Copy().owners[42].under_way.records, 0u);
    if (HasFailure()) kivAIDLClient::serviceDied(nullptr);
    EXPECT_EQ(kiv_deregister(c), 0);
    hal_->keeps = false;
  }
}

TEST_F(ExhaustionTest, EveryCallAnswersWhateverIsRefused) {
  for (const bool slots : {false, true}) {
    ASSERT_TRUE(Live(slots, true));  // What is made once for the process is there.
    const size_t descriptors = CountEntries("/proc/self/fd");
    const size_t threads = CountEntries("/proc/self/task");
    for (int kind = kNew; kind < kKinds; ++kind) {
      int64_t nth = 0;
      for (bool refused = true; refused; ++nth) {
        SCOPED_TRACE(testing::Message()
                     << (slots ? "slots, " : "files, ") << kKindNames[kind] << " number " << nth);
        left = nth;
        failing = static_cast<Kind>(kind);
        Live(slots, true);
        failing = kNone;
        refused = left < 0;
        // Also what the failure left on disk.
        if (nth % 16 == 0) {
          ASSERT_TRUE(Live(slots, true));
        }
        ASSERT_FALSE(HasFailure());
      }
      printf("%s: %lld refusals of %s\n", slots ? "slots" : "files", static_cast<long long>(nth),
             kKindNames[kind]);
      EXPECT_TRUE(Live(slots, true));
    }
    EXPECT_EQ(CountEntries("/proc/self/fd"), descriptors);
    EXPECT_TRUE(WaitFor([&] { return CountEntries("/proc/self/task") == threads; }));
  }
}

}  // namespace
}  // namespace orb::test
