// A HAL for tests: keeps what it is given, answers as told, dies on request.
//
//   const auto manager = sp<LocalServiceManager>(new LocalServiceManager);
//   setDefaultServiceManager(manager);
//   const auto hal = FakeHal::Make();
//   hal->Publish();  ...  manager->Kill(FakeHal::kService);
//
// Announced slots are completed only by Complete(). Thread-safe.
#pragma once

#include <aidl/vendor/nuv/orbsyshal_aidl/BnOrbsyshal.h>
#include <fmq/AidlMessageQueue.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "utility/thread_annotations.h"

namespace orb::test {

class FakeHal : public ::aidl::vendor::nuv::orbsyshal_aidl::BnOrbsyshal {
 public:
  using IOrbFdCallback = ::aidl::vendor::nuv::orbsyshal_aidl::IOrbFdCallback;
  using SetFdResult = ::aidl::vendor::nuv::orbsyshal_aidl::SetFdResult;

  static constexpr char kService[] = "vendor.nuv.orbsyshal_aidl.IOrbsyshal/default";

  enum class Method { kConfigureFmq, kRequestRead, kSetFd, kFdWrite, kUnsetFd };
  enum class Fault {
    kFail,    // The call ends with an error of the transport.
    kRefuse,  // The HAL answers no: false, or kRefused.
  };
  static constexpr int32_t kRefused = -5;

  struct Upload {
    std::string name;
    std::vector<uint8_t> bytes;
  };
  struct Region {
    int32_t token = 0;
    int32_t offset_bytes = 0;
    int32_t size_bytes = 0;
    bool open = true;  // Until unset_fd.
  };
  struct Slot {
    std::string name;
    std::vector<uint8_t> header;
    int32_t token = 0;
    int32_t offset_bytes = 0;
    int32_t size_bytes = 0;
    int32_t compress = 0;
    std::vector<uint8_t> bytes;  // The region's content when it was announced.
  };

  static std::shared_ptr<FakeHal> Make();

  // Under kService, with the default service manager. False when that fails.
  bool Publish();

  // The next call of the method meets the fault.
  void Inject(Method method, Fault fault) EXCLUDES(mutex_);
  // The next call of the method waits inside the HAL until Resume().
  void Pause(Method method) EXCLUDES(mutex_);
  // Waits until a call is waiting there; false after ten seconds.
  bool WaitUntilPaused(Method method) EXCLUDES(mutex_);
  void Resume(Method method) EXCLUDES(mutex_);

  // Sends this completion on the calling thread: a repeated, forged or early
  // one. False when the region was never announced or the call fails.
  bool Complete(int32_t token, int32_t a, int32_t b, int32_t c) EXCLUDES(mutex_);

  std::vector<Upload> uploads() const EXCLUDES(mutex_);
  std::vector<Region> regions() const EXCLUDES(mutex_);
  std::vector<Slot> slots() const EXCLUDES(mutex_);
  size_t calls(Method method) const EXCLUDES(mutex_);

  ::ndk::ScopedAStatus configure_fmq(const QueueDescriptor& in_queue, bool* _aidl_return) override;
  ::ndk::ScopedAStatus request_read(const std::string& in_name, int32_t in_total,
                                    bool* _aidl_return) override;
  ::ndk::ScopedAStatus set_fd(const NativeHandle& in_region,
                              const std::shared_ptr<IOrbFdCallback>& in_callback,
                              SetFdResult* _aidl_return) override;
  ::ndk::ScopedAStatus fd_write_to_system_dropbox(const std::string& in_name,
                                                  const std::vector<uint8_t>& in_header,
                                                  int32_t in_fdToken, int32_t in_offset,
                                                  int32_t in_size, int32_t in_compress,
                                                  int32_t* _aidl_return) override;
  ::ndk::ScopedAStatus unset_fd(int32_t in_fdToken) override;

 private:
  friend class ::ndk::SharedRefBase;
  using Queue =
      ::android::AidlMessageQueue<int8_t,
                                  ::aidl::android::hardware::common::fmq::SynchronizedReadWrite>;
  enum class Outcome { kNormal, kFail, kRefuse };
  struct Script {
    size_t calls = 0;
    std::optional<Fault> fault;
    bool pause = false;
    bool paused = false;
  };
  struct Channel {
    Region region;
    ::ndk::ScopedFileDescriptor fd;
    std::shared_ptr<IOrbFdCallback> callback;
  };

  FakeHal() = default;
  // Counts the call, waits while paused, and says how it is to end.
  Outcome Enter(Method method) EXCLUDES(mutex_);

  mutable Mutex mutex_;
  CondVar changed_;
  std::map<Method, Script> scripts_ GUARDED_BY(mutex_);
  std::unique_ptr<Queue> queue_ GUARDED_BY(mutex_);
  std::vector<Upload> uploads_ GUARDED_BY(mutex_);
  std::vector<Channel> channels_ GUARDED_BY(mutex_);  // Token i + 1 at index i.
  std::vector<Slot> slots_ GUARDED_BY(mutex_);
};

}  // namespace orb::test
