// Connects to the HAL: uploads by message queue, regions of shared memory.
// Tested by tests/ipc/hal_client_test.cpp.
#include <aidl/android/hardware/common/NativeHandle.h>
#include <aidl/vendor/nuv/orbsyshal_aidl/IOrbsyshal.h>
#include <android/binder_manager.h>
#include <android/binder_process.h>
#include <cutils/native_handle.h>
#include <fcntl.h>
#include <fmq/AidlMessageQueue.h>

#include <memory>
#include <utility>

#include "ipc/kiv_aidl_client.h"
#include "ipc/orbsyshal_fd_callback.h"
#include "ipc/routed_collector.h"
#include "utility/checked.h"
#include "utility/contained.h"
#include "utility/fd_handle.h"
#include "utility/log.h"

using ::aidl::android::hardware::common::NativeHandle;
using ::aidl::android::hardware::common::fmq::SynchronizedReadWrite;
using ::aidl::vendor::nuv::orbsyshal_aidl::IOrbsyshal;
using ::aidl::vendor::nuv::orbsyshal_aidl::SetFdResult;

namespace {

using Queue = ::android::AidlMessageQueue<int8_t, SynchronizedReadWrite>;

constexpr char kHalService[] = "vendor.nuv.orbsyshal_aidl.IOrbsyshal/default";

// A queue of no bytes is invalid and takes nothing.
bool Write(Queue* queue, const uint8_t* bytes, uint32_t count) {
  if (!queue->isValid()) return false;
  return count == 0 || queue->write(reinterpret_cast<const int8_t*>(bytes), count);
}

}  // namespace

void kivAIDLClient::serviceDied(void*) {
  LOGI("OrbsyshalDeathRecipeint - Orbsyshal Server has died");
  orb::Contained("serviceDied", [] {
    const std::shared_ptr<kivAIDLClient> client = getClientInstance();
    if (client != nullptr) client->processLostOrbsyshalConn();
  });
}

void kivAIDLClient::processLostOrbsyshalConn() {
  Hal lost;  // Released after the lock.
  orb::MutexLock lock(halMutex_);
  lost.deaths = orb::CheckedAdd<uint64_t>(hal_.deaths, 1);
  std::swap(lost, hal_);
  // Under the lock to the end, because the next HAL may give the same tokens again.
  if (lost.callback != nullptr) lost.callback->HalDied();
  while (const auto region = routes_.TakeRegion()) region->second->LoseRegion(region->first);
}

void kivAIDLClient::LookUpHal() {
  const ::ndk::SpAIBinder ignored(AServiceManager_checkService(kHalService));
}

bool kivAIDLClient::initOrbsyshalHandle() {
  LOGE("%s: getting new instance of IOrbsyshal", "initOrbsyshalHandle");
  // Completions and the death notice arrive on the NDK library's own threads,
  // which in a vendor process are not those of the manager's interface.
  ABinderProcess_startThreadPool();
  const ::ndk::SpAIBinder binder(
      halServiceManager_.open() ? AServiceManager_checkService(kHalService) : nullptr);
  if (binder.get() == nullptr) {
    LOGE("[ERROR] orbsyshal service doesn't exist");
    return false;
  }
  Hal made = CurrentHal();
  made.proxy = IOrbsyshal::fromBinder(binder);
  if (made.proxy == nullptr) {
    LOGE("[ERROR] Failed to bind orbsyshal service");
    return false;
  }
  LOGI("%s: got new instance of IOrbsyshal", "initOrbsyshalHandle");
  halDeath_.set(AIBinder_DeathRecipient_new(serviceDied));
  made.watched = AIBinder_linkToDeath(binder.get(), halDeath_.get(), nullptr) == STATUS_OK;
  if (!made.watched) {
    LOGE("%s: transport error in orbsyshal->linkToDeath", "initOrbsyshalHandle");
  } else {
    LOGI("Registered orbsyshal death recipient");
  }
  made.callback = ::ndk::SharedRefBase::make<OrbsyshalFDCallback>();
  orb::MutexLock lock(halMutex_);
  // It died between the link and here: nothing would report it again.
  if (hal_.deaths != made.deaths) return false;
  std::swap(made, hal_);  // What was there is released after the lock.
  return true;
}

kivAIDLClient::Hal kivAIDLClient::CurrentHal() {
  orb::MutexLock lock(halMutex_);
  return hal_;
}

kivAIDLClient::Hal kivAIDLClient::EnsureHal() {
  orb::MutexLock connecting(halConnect_);
  Hal hal = CurrentHal();
  if (hal.proxy != nullptr) {
    if (hal.watched || AIBinder_isAlive(hal.proxy->asBinder().get())) return hal;
    processLostOrbsyshalConn();  // It died before it could be watched.
  }
  initOrbsyshalHandle();
  return CurrentHal();
}

int kivAIDLClient::sendData(const std::string&, const std::string& name, const uint8_t* header,
                            uint32_t headerLen, const uint8_t* data, uint32_t dataLen,
                            const uint8_t* footer, uint32_t footerLen) {
  halServiceManager_.Await([] { return false; });
  orb::MutexLock uploading(uploadMutex_);
  const Hal hal = EnsureHal();
  if (hal.proxy == nullptr) {
    LOGE("%s: could not initialize orbsyshal handle", "sendData");
    return -1;
  }
  const uint32_t total_bytes =
      orb::CheckedAdd<uint32_t>(orb::CheckedAdd<uint32_t>(headerLen, dataLen), footerLen);
  Queue queue(total_bytes);
  bool done = false;
  if (!hal.proxy->configure_fmq(queue.dupeDesc(), &done).isOk()) return -1;
  if (!done) {
    LOGE("[ERROR] Failed to configure fmq");
    return -1;
  }
  const bool header_done = Write(&queue, header, headerLen);
  const bool data_done = Write(&queue, data, dataLen);
  const bool footer_done = footerLen == 0 || Write(&queue, footer, footerLen);
  if (!header_done || !data_done || !footer_done) {
    LOGE("[ERROR] Failed to write data to fmq header %d data %d footer %d", header_done, data_done,
         footer_done);
    return -1;
  }
  done = false;
  if (!hal.proxy->request_read(name, static_cast<int32_t>(total_bytes), &done).isOk() || !done) {
    LOGE("[ERROR] orbsyshal->request_read() failed");
    return -1;
  }
  LOGD("orbsyshal->request_read() succeeded");
  return 0;
}

int kivAIDLClient::setupFD(int fd, uint32_t offset, uint32_t length, RoutedCollector* collector,
                           uint32_t* fdToken) {
  halServiceManager_.Await([] { return false; });
  const Hal hal = EnsureHal();
  if (hal.proxy == nullptr) {
    LOGE("%s: could not initialize orbsyshal handle", "setupFD");
    return -1;
  }
  // Deleting the handle does not close fd, which is the caller's.
  const std::unique_ptr<native_handle_t, int (*)(native_handle_t*)> handle(
      native_handle_create(1, 2), native_handle_delete);
  if (handle == nullptr) return -1;
  handle->data[0] = fd;
  handle->data[1] = static_cast<int>(offset);
  handle->data[2] = static_cast<int>(length);
  const NativeHandle region = makeToAidl(handle.get());

  SetFdResult result;
  if (!hal.proxy->set_fd(region, hal.callback, &result).isOk()) {
    LOGE("%s: orbsyshal->set_fd() hidl transport error", "setupFD");
    return -1;
  }
  if (result.result != 0) return result.result;
  const uint32_t given = static_cast<uint32_t>(result.fdToken);
  int status = 0;
  const bool routed = orb::Contained("setupFD", [&] {
    orb::MutexLock lock(halMutex_);
    // If that HAL has died, its regions are gone, and its death is not reported again.
    if (hal_.deaths != hal.deaths) {
      LOGE("%s: orbsyshal->set_fd() hidl transport error", "setupFD");
      status = -1;
    } else if (given != 0) {
      *fdToken = given;
      routes_.AddRegion(given, collector);
    }
  });
  if (routed) return status;
  static_cast<void>(hal.proxy->unset_fd(result.fdToken).isOk());
  return -1;
}

int kivAIDLClient::FdWrite(const std::string&, const std::atomic<uint32_t>& fdToken,
                           const std::string& name, const std::vector<uint8_t>& header,
                           uint32_t offset, uint32_t size, CompressType compress) {
  const Hal hal = CurrentHal();
  if (hal.proxy == nullptr) {
    LOGE("%s: orbsyshal handle is null", "FdWrite");
    return -1;
  }
  const uint32_t region = fdToken;
  if (region == kiv_fd_handle_s::kNoToken) {
    LOGE("%s: region of a HAL that has died", "FdWrite");
    return -1;
  }
  const bool known = compress == COMPRESS_TYPE_1 || compress == COMPRESS_TYPE_2;
  int32_t result = -1;
  if (!hal.proxy
           ->fd_write_to_system_dropbox(name, header, static_cast<int32_t>(region),
                                        static_cast<int32_t>(offset), static_cast<int32_t>(size),
                                        known ? compress : COMPRESS_NONE, &result)
           .isOk()) {
    LOGE("%s: orbsyshal->fd_write_to_system_dropbox() HIDL transport error", "FdWrite");
    return -1;
  }
  return result;
}

int kivAIDLClient::UnsetFD(const std::string&, const std::atomic<uint32_t>& fdToken) {
  const Hal hal = CurrentHal();
  if (hal.proxy == nullptr) {
    LOGE("%s: orbsyshal handle is null", "UnsetFD");
    return -1;
  }
  const uint32_t region = fdToken;
  if (region == kiv_fd_handle_s::kNoToken) {
    LOGE("%s: region of a HAL that has died", "UnsetFD");
    return -1;
  }
  const uint64_t serial = routes_.RegionSerial(region);
  const bool told = hal.proxy->unset_fd(static_cast<int32_t>(region)).isOk();
  if (!told) {
    LOGE("%s: orbsyshal->unset_fd(%d) HIDL transport error", "UnsetFD", static_cast<int>(region));
  }
  orb::MutexLock lock(halMutex_);
  // The HAL may have given the token to another region by now: see RemoveRegion().
  if (hal_.deaths == hal.deaths) routes_.RemoveRegion(region, serial);
  return told ? 0 : -1;
}

NativeHandle kivAIDLClient::makeToAidl(const native_handle* handle) {
  NativeHandle copy;
  // Allocate first: a duplicate that cannot be stored would leak.
  copy.fds.resize(static_cast<size_t>(handle->numFds));
  for (int i = 0; i < handle->numFds; ++i) {
    copy.fds[static_cast<size_t>(i)].set(fcntl(handle->data[i], F_DUPFD_CLOEXEC, 0));
  }
  copy.ints.assign(handle->data + handle->numFds, handle->data + handle->numFds + handle->numInts);
  return copy;
}
