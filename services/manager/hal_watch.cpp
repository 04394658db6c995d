// Tested by tests/integration/campaign_test.cpp.
#include "services/manager/hal_watch.h"

#include <binder/IServiceManager.h>
#include <orb_platform/look_up.h>

#include <chrono>
#include <utility>

namespace orb::manager {
namespace {

using android::IBinder;
using android::sp;
using std::chrono::milliseconds;

constexpr const char* kHalServiceName = "vendor.nuv.orbsyshal_aidl.IOrbsyshal/default";
constexpr milliseconds kLookUpEvery{250};
// A bus policy that forbids it does not change often, and each look-up is logged.
constexpr milliseconds kLookUpForbidden{60000};

}  // namespace

class HalWatch::Notice : public IBinder::DeathRecipient {
 public:
  explicit Notice(HalWatch* watch) : watch_(watch) {}
  void binderDied(const android::wp<IBinder>&) override {
    MutexLock lock(mutex_);
    if (watch_ != nullptr) watch_->NoteDeath();
  }
  // No notice comes any more once this has returned.
  void Leave() {
    MutexLock lock(mutex_);
    watch_ = nullptr;
  }

 private:
  Mutex mutex_;
  HalWatch* watch_ ORB_GUARDED_BY(mutex_);
};

HalWatch::HalWatch(std::function<void()> came, std::function<void()> died)
    : came_(std::move(came)), died_(std::move(died)), thread_([this] { Run(); }) {}

HalWatch::~HalWatch() {
  {
    MutexLock lock(mutex_);
    stopping_ = true;
    changed_.NotifyAll();
  }
  thread_.join();
}

sp<IBinder> HalWatch::Find(const sp<Notice>& notice) {
  const sp<IBinder> hal =
      android::defaultServiceManager()->checkService(android::String16(kHalServiceName));
  return hal != nullptr && hal->linkToDeath(notice) == android::OK ? hal : nullptr;
}

void HalWatch::Look() {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  MutexLock lock(mutex_);
  // A look that is under way may have asked the bus before the HAL came.
  const uint64_t wanted = looks_begun_ + 1;
  asked_ = true;
  changed_.NotifyAll();
  while (!known_ && !forbidden_ && !stopping_ && looks_ended_ < wanted) {
    if (!changed_.WaitUntil(mutex_, deadline)) return;
  }
}

void HalWatch::Run() {
  const sp<Notice> notice = new Notice(this);
  sp<IBinder> hal;  // Held while it lives: its proxy carries the notice.
  do {
    if (hal != nullptr) died_();
    {
      MutexLock lock(mutex_);
      asked_ = false;
      ++looks_begun_;
    }
    hal = Find(notice);
    if (hal != nullptr) came_();
  } while (WaitAfterLook(hal != nullptr));
  notice->Leave();
}

bool HalWatch::WaitAfterLook(bool found) {
  const bool forbidden = orb_platform::LastLookUp() == android::PERMISSION_DENIED;
  const auto again =
      std::chrono::steady_clock::now() + (forbidden ? kLookUpForbidden : kLookUpEvery);
  MutexLock lock(mutex_);
  ++looks_ended_;
  known_ = found;
  forbidden_ = forbidden;
  changed_.NotifyAll();
  while (!stopping_ && !dead_) {
    if (found) {
      changed_.Wait(mutex_);
    } else if ((asked_ && !forbidden) || !changed_.WaitUntil(mutex_, again)) {
      break;
    }
  }
  known_ = false;
  dead_ = false;
  return !stopping_;
}

void HalWatch::NoteDeath() {
  MutexLock lock(mutex_);
  dead_ = true;
  known_ = false;
  changed_.NotifyAll();
}

}  // namespace orb::manager
