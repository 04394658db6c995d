// Tested by tests/platform/contract_test.cpp.
#include <binder/Parcel.h>
#include <binder/Stability.h>
#include <binder/Status.h>
#include <orb_platform/local_service_manager.h>
#include <utils/String8.h>

#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <utility>

#include "platform/linux/src/remote_target.h"
#include "platform/linux/src/service_managers.h"
#include "platform/linux/src/threads.h"
#include "utility/thread_annotations.h"

namespace orb_platform {

namespace {

using android::BpBinder;
using android::IBinder;
using android::Parcel;
using android::sp;
using android::status_t;
using android::String16;
using android::String8;
using android::wp;
using android::internal::Stability;

// Runs tasks one after another, on a thread that exists while there are tasks.
class Serial : public std::enable_shared_from_this<Serial> {
 public:
  void Post(std::function<void()> task) {
    orb::MutexLock lock(mutex_);
    tasks_.push_back(std::move(task));
    if (running_) return;
    // When no thread can be started, the task waits until the next Post() starts one.
    running_ = StartThread("binder-local", [self = shared_from_this()] { self->Run(); });
  }

 private:
  void Run() {
    for (;;) {
      std::function<void()> task;
      {
        orb::MutexLock lock(mutex_);
        if (tasks_.empty()) {
          running_ = false;
          return;
        }
        task = std::move(tasks_.front());
        tasks_.pop_front();
      }
      task();
    }
  }

  orb::Mutex mutex_;
  std::deque<std::function<void()>> tasks_ ORB_GUARDED_BY(mutex_);
  bool running_ ORB_GUARDED_BY(mutex_) = false;
};

class LocalTarget : public RemoteTarget {
 public:
  explicit LocalTarget(const sp<IBinder>& service) : service_(service) {}

  status_t Transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
    if (dead_.load()) return android::DEAD_OBJECT;
    auto copy = std::make_shared<Parcel>();
    const status_t copied = copy->appendFrom(&data, 0, data.dataSize());
    if (copied != android::OK) return copied;
    if ((flags & IBinder::FLAG_ONEWAY) != 0) {
      oneway_->Post([service = service_, copy, code, flags] {
        Parcel ignored;
        service->transact(code, *copy, &ignored, flags);
      });
      return android::OK;
    }
    Parcel out;
    const status_t status = service_->transact(code, *copy, &out, flags);
    if (dead_.load()) return android::DEAD_OBJECT;
    if (status != android::OK) return status;
    if (ExceedsLimit(out, 0)) return android::FAILED_TRANSACTION;
    if (reply == nullptr) return android::OK;
    reply->freeData();
    const status_t returned = reply->appendFrom(&out, 0, out.dataSize());
    reply->setDataPosition(0);
    return returned;
  }
  void Released(BpBinder*) override {}
  void PostObituary(const sp<BpBinder>& proxy) override {
    reports_->Post([proxy] { proxy->sendObituary(); });
  }
  sp<IBinder> LocalObject() const override { return service_; }
  void Die() { dead_.store(true); }

 private:
  const sp<IBinder> service_;
  const std::shared_ptr<Serial> oneway_ = std::make_shared<Serial>();
  const std::shared_ptr<Serial> reports_ = std::make_shared<Serial>();
  std::atomic<bool> dead_{false};
};

// A served object. Its target, and so its one-way queue, lives as long as the object has a
// name; its proxies may come and go.
struct Served {
  sp<IBinder> service;
  std::shared_ptr<LocalTarget> target;
  wp<BpBinder> proxy;
};

}  // namespace

struct LocalServiceManager::State {
  orb::Mutex mutex;
  std::map<std::string, std::shared_ptr<Served>> by_name ORB_GUARDED_BY(mutex);
};

LocalServiceManager::LocalServiceManager() : state_(new State) {}
LocalServiceManager::~LocalServiceManager() = default;

sp<IBinder> LocalServiceManager::getService(const String16& name) const {
  return PollForService(*this, name, 5000);
}

sp<IBinder> LocalServiceManager::waitForService(const String16& name) {
  return PollForService(*this, name, -1);
}

bool LocalServiceManager::isDeclared(const String16& name) { return checkService(name) != nullptr; }

sp<IBinder> LocalServiceManager::checkService(const String16& name) const {
  orb::MutexLock lock(state_->mutex);
  const auto it = state_->by_name.find(String8(name).c_str());
  if (it == state_->by_name.end()) return nullptr;
  Served& served = *it->second;
  sp<BpBinder> proxy = served.proxy.promote();
  if (proxy == nullptr) {
    proxy = BpBinder::create(served.target);
    proxy->setStability(Stability::getLevel(served.service.get()));
    served.proxy = proxy;
  }
  return proxy;
}

status_t LocalServiceManager::addService(const String16& name, const sp<IBinder>& service, bool,
                                         int) {
  if (service == nullptr) return android::binder::Status::EX_NULL_POINTER;
  const std::string text(String8(name).c_str());
  if (!IsServiceName(text) || service->localBinder() == nullptr) {
    return android::binder::Status::EX_ILLEGAL_ARGUMENT;
  }
  std::shared_ptr<Served> served;
  std::shared_ptr<Served> before;  // Freed after the lock.
  orb::MutexLock lock(state_->mutex);
  for (const auto& [other, entry] : state_->by_name) {
    if (entry->service == service) served = entry;
  }
  if (served == nullptr) {
    served = std::make_shared<Served>();
    served->service = service;
    served->target = std::make_shared<LocalTarget>(service);
  }
  before = std::exchange(state_->by_name[text], served);
  return android::OK;
}

android::Vector<String16> LocalServiceManager::listServices(int) {
  android::Vector<String16> out;
  orb::MutexLock lock(state_->mutex);
  for (const auto& [name, served] : state_->by_name) out.add(String16(name.c_str()));
  return out;
}

bool LocalServiceManager::Remove(const std::string& name) {
  std::shared_ptr<Served> before;
  orb::MutexLock lock(state_->mutex);
  const auto it = state_->by_name.find(name);
  if (it == state_->by_name.end()) return false;
  before = std::move(it->second);
  state_->by_name.erase(it);
  return true;
}

bool LocalServiceManager::Kill(const std::string& name) {
  std::shared_ptr<Served> served;
  {
    orb::MutexLock lock(state_->mutex);
    const auto it = state_->by_name.find(name);
    if (it == state_->by_name.end()) return false;
    served = it->second;
    // A process that dies takes all its names along.
    std::erase_if(state_->by_name, [&](const auto& entry) { return entry.second == served; });
  }
  served->target->Die();
  const sp<BpBinder> proxy = served->proxy.promote();
  if (proxy != nullptr && proxy->markDead()) served->target->PostObituary(proxy);
  return true;
}

}  // namespace orb_platform
