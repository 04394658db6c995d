// A HAL for tests: notes what it is given, answers as told, dies on request.
//
// Announced slots are completed only by Complete(). Thread-safe.
#pragma once

#include <aidl/vendor/nuv/orbsyshal_aidl/BnOrbsyshal.h>
#include <android/binder_manager.h>
#include <fmq/AidlMessageQueue.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/hex.h"
#include "utility/thread_annotations.h"

namespace orb::test {

class FakeHal : public ::aidl::vendor::nuv::orbsyshal_aidl::BnOrbsyshal {
  using IOrbFdCallback = ::aidl::vendor::nuv::orbsyshal_aidl::IOrbFdCallback;
  using SetFdResult = ::aidl::vendor::nuv::orbsyshal_aidl::SetFdResult;
  using Status = ::ndk::ScopedAStatus;

 public:
  static constexpr char kService[] = "vendor.nuv.orbsyshal_aidl.IOrbsyshal/default";

  enum class Answer {
    kNormal,
    kFail,    // The call ends with an error of the transport.
    kRefuse,  // The HAL answers no: false, or kRefused.
  };
  static constexpr int32_t kRefused = -5;

  static std::shared_ptr<FakeHal> Make() { return ::ndk::SharedRefBase::make<FakeHal>(); }

  // Under kService, with the default service manager. False when that fails.
  bool Publish() { return AServiceManager_addService(asBinder().get(), kService) == EX_NONE; }

  // Asked by every call, unlocked, with the method's name. Null: all is normal.
  void SetScript(std::function<Answer(const std::string& method)> script) {
    MutexLock lock(mutex_);
    script_ = std::move(script);
  }

  // Sends this completion on the calling thread, to whom the newest region
  // belongs. False when the call fails.
  bool Complete(int32_t token, int32_t a, int32_t b, int32_t c) {
    std::shared_ptr<IOrbFdCallback> callback;
    {
      MutexLock lock(mutex_);
      callback = callback_;
    }
    return callback->fd_write_done(token, a, b, c).isOk();
  }

  // "method argument argument" of the calls that it took, oldest first; bytes in hex.
  std::vector<std::string> Taken() const {
    MutexLock lock(mutex_);
    return taken_;
  }
  // The bytes of the latest upload.
  std::vector<uint8_t> Upload() const {
    MutexLock lock(mutex_);
    return upload_;
  }

  Status configure_fmq(const QueueDescriptor& queue, bool* result) override {
    *result = false;
    return Take("configure_fmq", [&] {
      MutexLock lock(mutex_);
      queue_ = std::make_unique<Queue>(queue);
      *result = true;
      return true;
    });
  }
  Status request_read(const std::string& name, int32_t total, bool* result) override {
    *result = false;
    return Take("request_read " + name + " " + std::to_string(total), [&] {
      MutexLock lock(mutex_);
      const std::unique_ptr<Queue> queue = std::move(queue_);
      if (queue == nullptr || total < 0) return false;
      upload_.resize(static_cast<size_t>(total));
      *result = queue->read(reinterpret_cast<int8_t*>(upload_.data()), upload_.size());
      return *result;
    });
  }
  Status set_fd(const NativeHandle& region, const std::shared_ptr<IOrbFdCallback>& callback,
                SetFdResult* result) override {
    result->result = kRefused;
    std::string call = "set_fd";
    for (const int32_t value : region.ints) call += " " + std::to_string(value);
    return Take(call, [&] {
      MutexLock lock(mutex_);
      callback_ = callback;
      result->fdToken = ++regions_;
      result->result = 0;
      return true;
    });
  }
  Status fd_write_to_system_dropbox(const std::string& name, const std::vector<uint8_t>& header,
                                    int32_t token, int32_t offset, int32_t size, int32_t compress,
                                    int32_t* result) override {
    *result = kRefused;
    std::string call = "fd_write " + name + " " + ToHex(std::string(header.begin(), header.end()));
    for (const int32_t value : {token, offset, size, compress}) call += " " + std::to_string(value);
    return Take(call, [&] {
      MutexLock lock(mutex_);
      const bool known = token > 0 && token <= regions_;
      if (known) *result = 0;
      return known;
    });
  }
  Status unset_fd(int32_t token) override {
    return Take("unset_fd " + std::to_string(token), [] { return true; });
  }

 protected:
  FakeHal() = default;

 private:
  friend class ::ndk::SharedRefBase;
  using Queue =
      ::android::AidlMessageQueue<int8_t,
                                  ::aidl::android::hardware::common::fmq::SynchronizedReadWrite>;

  // Runs `take` unless the script is against it; notes `call` when that gives true.
  template <typename Taker>
  Status Take(const std::string& call, Taker take) ORB_EXCLUDES(mutex_) {
    std::function<Answer(const std::string&)> script;
    {
      MutexLock lock(mutex_);
      script = script_;
    }
    const Answer answer = script ? script(call.substr(0, call.find(' '))) : Answer::kNormal;
    if (answer == Answer::kFail) return Status::fromStatus(STATUS_FAILED_TRANSACTION);
    if (answer == Answer::kRefuse || !take()) return Status::ok();
    MutexLock lock(mutex_);
    taken_.push_back(call);
    return Status::ok();
  }

  mutable Mutex mutex_;
  std::function<Answer(const std::string&)> script_ ORB_GUARDED_BY(mutex_);
  std::vector<std::string> taken_ ORB_GUARDED_BY(mutex_);
  std::unique_ptr<Queue> queue_ ORB_GUARDED_BY(mutex_);
  std::vector<uint8_t> upload_ ORB_GUARDED_BY(mutex_);
  std::shared_ptr<IOrbFdCallback> callback_ ORB_GUARDED_BY(mutex_);
  int32_t regions_ ORB_GUARDED_BY(mutex_) = 0;  // Their tokens are 1 to this.
};

}  // namespace orb::test
