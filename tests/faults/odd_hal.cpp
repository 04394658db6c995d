// A HAL that stores uploads like orb-hald, and misbehaves as told on standard
// input, one word a line:
//
//   well          answers truly, at once
//   slow          every call takes 200 ms
//   wrong         every second call fails, refuses, lies about what it did, or
//                 confirms slots that it never got
//   never         no call is answered until the next word
//
//   usage: odd_hal SPOOL      "ready" on standard output once it can be found
#include <android/binder_manager.h>
#include <android/binder_process.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <iostream>
#include <random>
#include <thread>

#include "services/hal/orbsyshal_service.h"

namespace orb::test {
namespace {

using ::ndk::ScopedAStatus;

constexpr std::chrono::milliseconds kSlow(200);
constexpr std::chrono::milliseconds kPoll(5);

enum class Mood { kWell, kSlow, kWrong, kNever };
// What becomes of one call.
enum class Fate { kServe, kFail, kRefuse, kServeAndDeny };

class OddHal : public ::aidl::vendor::nuv::orbsyshal_aidl::BnOrbsyshal {
 public:
  using IOrbFdCallback = ::aidl::vendor::nuv::orbsyshal_aidl::IOrbFdCallback;
  using SetFdResult = ::aidl::vendor::nuv::orbsyshal_aidl::SetFdResult;

  explicit OddHal(std::shared_ptr<hal::OrbsyshalService> inner) : inner_(std::move(inner)) {}
  void SetMood(Mood mood) { mood_ = mood; }

  ScopedAStatus configure_fmq(const QueueDescriptor& queue, bool* result) override {
    return Meet(result, false, [&] { return inner_->configure_fmq(queue, result); });
  }
  ScopedAStatus request_read(const std::string& name, int32_t total, bool* result) override {
    return Meet(result, false, [&] { return inner_->request_read(name, total, result); });
  }
  ScopedAStatus set_fd(const NativeHandle& region, const std::shared_ptr<IOrbFdCallback>& callback,
                       SetFdResult* result) override {
    MutexLock lock(mutex_);
    callback_ = callback;
    return inner_->set_fd(region, callback, result);
  }
  ScopedAStatus fd_write_to_system_dropbox(const std::string& name,
                                           const std::vector<uint8_t>& header, int32_t token,
                                           int32_t offset, int32_t size, int32_t compress,
                                           int32_t* result) override {
    if (mood_ == Mood::kWrong) ConfirmAnything(token, offset);
    return Meet(result, -5, [&] {
      return inner_->fd_write_to_system_dropbox(name, header, token, offset, size, compress,
                                                result);
    });
  }
  ScopedAStatus unset_fd(int32_t token) override { return inner_->unset_fd(token); }

 private:
  uint32_t Random(uint32_t below) {
    MutexLock lock(mutex_);
    return static_cast<uint32_t>(random_() % below);
  }

  Fate NextFate() {
    while (mood_ == Mood::kNever) std::this_thread::sleep_for(kPoll);
    if (mood_ == Mood::kSlow) std::this_thread::sleep_for(kSlow);
    if (mood_ != Mood::kWrong || Random(2) == 0) return Fate::kServe;
    return static_cast<Fate>(1 + Random(3));
  }

  template <typename Result, typename Serve>
  ScopedAStatus Meet(Result* result, Result refusal, Serve serve) {
    const Fate fate = NextFate();
    if (fate == Fate::kFail) return ScopedAStatus::fromStatus(STATUS_FAILED_TRANSACTION);
    if (fate == Fate::kServe) return serve();
    if (fate == Fate::kServeAndDeny) serve();
    *result = refusal;
    return ScopedAStatus::ok();
  }

  // Of another region, of a slot beyond it, of one that is being filled, of this one early.
  void ConfirmAnything(int32_t token, int32_t offset) {
    std::shared_ptr<IOrbFdCallback> callback;
    {
      MutexLock lock(mutex_);
      callback = callback_;
    }
    const int32_t tokens[] = {token, token + 1, 0, -1};
    const int32_t offsets[] = {offset, offset + 1, -2048, 1 << 30};
    callback->fd_write_done(tokens[Random(4)], offsets[Random(4)], 1, -1);
  }

  const std::shared_ptr<hal::OrbsyshalService> inner_;
  std::atomic<Mood> mood_{Mood::kWell};
  Mutex mutex_;
  std::mt19937 random_ ORB_GUARDED_BY(mutex_);
  std::shared_ptr<IOrbFdCallback> callback_ ORB_GUARDED_BY(mutex_);
};

int Main(const std::string& spool_dir) {
  auto spool = hal::Spool::Open(spool_dir, 0);
  if (!spool.ok()) return 1;
  ABinderProcess_startThreadPool();
  const auto hal = std::make_shared<hal::Hal>(*std::move(spool));
  const auto odd =
      ::ndk::SharedRefBase::make<OddHal>(::ndk::SharedRefBase::make<hal::OrbsyshalService>(hal));
  if (AServiceManager_addService(odd->asBinder().get(), hal::kHalServiceName) != EX_NONE) return 1;
  puts("ready");
  fflush(stdout);
  for (std::string word; std::getline(std::cin, word);) {
    odd->SetMood(word == "slow"    ? Mood::kSlow
                 : word == "wrong" ? Mood::kWrong
                 : word == "never" ? Mood::kNever
                                   : Mood::kWell);
  }
  hal->FinishBy(std::chrono::steady_clock::now() + std::chrono::seconds(2));
  _exit(0);
}

}  // namespace
}  // namespace orb::test

int main(int argc, char** argv) { return argc == 2 ? orb::test::Main(argv[1]) : 2; }
