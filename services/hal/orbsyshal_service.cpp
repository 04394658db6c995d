// Tested by tests/services/hal_test.cpp.
#include "services/hal/orbsyshal_service.h"

#include <android/binder_ibinder.h>
#include <fcntl.h>

#include <cerrno>
#include <utility>

#include "utility/log.h"

namespace orb::hal {
namespace {

using ::ndk::ScopedAStatus;

// A death notice may run while the service is destroyed, so it does not point to one.
struct Current {
  Mutex mutex;
  std::weak_ptr<Hal> hal ORB_GUARDED_BY(mutex);
};

Current& TheCurrent() {
  static Current* const current = new Current();
  return *current;
}

// A death notice carries only a number, which is valid whatever has been destroyed.
// NOLINTNEXTLINE(performance-no-int-to-ptr)
void* CookieOf(uint32_t token) { return reinterpret_cast<void*>(static_cast<uintptr_t>(token)); }

void OnDied(void* cookie) {
  std::shared_ptr<Hal> hal;
  {
    Current& current = TheCurrent();
    MutexLock lock(current.mutex);
    hal = current.hal.lock();
  }
  if (hal != nullptr) hal->ChannelDied(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(cookie)));
}

Caller ThisCaller() { return {AIBinder_getCallingPid(), AIBinder_getCallingUid()}; }

// The parcel keeps its own descriptors.
UniqueFd Duplicate(const ::ndk::ScopedFileDescriptor& fd) {
  return UniqueFd(fcntl(fd.get(), F_DUPFD_CLOEXEC, 0));
}

// An object without methods that owns a receipt.
AIBinder_Class* ReceiptClass() {
  static AIBinder_Class* const clazz = AIBinder_Class_define(
      "vendor.nuv.orbsyshal_aidl.receipt", [](void* receipt) { return receipt; },
      [](void* receipt) { delete static_cast<Receipt*>(receipt); },
      [](AIBinder*, transaction_code_t, const AParcel*, AParcel*) -> binder_status_t {
        return STATUS_UNKNOWN_TRANSACTION;
      });
  return clazz;
}

// fd_write_done without waiting for the client, which may be stopped: the bus keeps
// count of calls that are not answered, and after 128 it lets nobody be called. So the
// call goes one-way, with one object more than the method has arguments. The client
// lets go of that once the method has returned, as does the bus when it dies.
Sent SendDone(const std::shared_ptr<OrbsyshalService::IOrbFdCallback>& callback,
              const Notice& notice, Receipt receipt) {
  using OrbFdCallback = OrbsyshalService::IOrbFdCallback;
  const ::ndk::SpAIBinder client = callback->asBinder();
  const ::ndk::SpAIBinder token(AIBinder_new(ReceiptClass(), new Receipt(std::move(receipt))));
  ::ndk::ScopedAParcel in;
  ::ndk::ScopedAParcel out;
  binder_status_t status = AIBinder_prepareTransaction(client.get(), in.getR());
  for (const int32_t value : {notice.token, notice.offset, notice.size, notice.result}) {
    if (status == STATUS_OK) status = AParcel_writeInt32(in.get(), value);
  }
  if (status == STATUS_OK) status = AParcel_writeStrongBinder(in.get(), token.get());
  if (status == STATUS_OK) {
    AParcel* request = in.release();
    status = AIBinder_transact(client.get(), OrbFdCallback::TRANSACTION_fd_write_done, &request,
                               out.getR(), FLAG_ONEWAY);
  }
  if (status == STATUS_DEAD_OBJECT) return Sent::kNever;
  return status == STATUS_OK ? Sent::kYes : Sent::kLater;
}

}  // namespace

OrbsyshalService::OrbsyshalService(std::shared_ptr<Hal> hal)
    : hal_(std::move(hal)), death_(AIBinder_DeathRecipient_new(OnDied)) {
  Current& current = TheCurrent();
  MutexLock lock(current.mutex);
  current.hal = hal_;
}

OrbsyshalService::~OrbsyshalService() = default;

ScopedAStatus OrbsyshalService::configure_fmq(const QueueDescriptor& in_queue, bool* _aidl_return) {
  QueueLayout layout;
  for (const ::ndk::ScopedFileDescriptor& fd : in_queue.handle.fds) {
    layout.fds.push_back(Duplicate(fd));
  }
  for (const auto& grantor : in_queue.grantors) {
    layout.pieces.push_back({grantor.fdIndex, grantor.offset, grantor.extent});
  }
  layout.quantum_bytes = in_queue.quantum;
  layout.flags = in_queue.flags;
  *_aidl_return = hal_->ConfigureQueue(ThisCaller(), std::move(layout));
  return ScopedAStatus::ok();
}

ScopedAStatus OrbsyshalService::request_read(const std::string& in_name, int32_t in_total,
                                             bool* _aidl_return) {
  *_aidl_return = hal_->StoreQueue(ThisCaller(), in_name, in_total);
  return ScopedAStatus::ok();
}

ScopedAStatus OrbsyshalService::set_fd(const NativeHandle& in_region,
                                       const std::shared_ptr<IOrbFdCallback>& in_callback,
                                       SetFdResult* _aidl_return) {
  _aidl_return->result = -EINVAL;
  _aidl_return->fdToken = 0;
  const Caller caller = ThisCaller();
  if (in_callback == nullptr || in_region.fds.size() != 1 || in_region.ints.size() != 2) {
    LOGE("channel of %s refused: not one descriptor, two numbers and a callback",
         caller.ToString().c_str());
    return ScopedAStatus::ok();
  }
  const uint32_t token =
      hal_->AddChannel(caller, Duplicate(in_region.fds[0]), in_region.ints[0], in_region.ints[1],
                       [in_callback](const Notice& notice, Receipt receipt) {
                         return SendDone(in_callback, notice, std::move(receipt));
                       });
  if (token == 0) return ScopedAStatus::ok();
  if (!Link(token, in_callback->asBinder())) {
    hal_->ChannelDied(token);
    return ScopedAStatus::ok();
  }
  _aidl_return->result = 0;
  _aidl_return->fdToken = static_cast<int32_t>(token);
  return ScopedAStatus::ok();
}

// The compression that the sender asks for is left to whoever reads the spool: the header
// names it as well.
ScopedAStatus OrbsyshalService::fd_write_to_system_dropbox(const std::string& in_name,
                                                           const std::vector<uint8_t>& in_header,
                                                           int32_t in_fdToken, int32_t in_offset,
                                                           int32_t in_size, int32_t,
                                                           int32_t* _aidl_return) {
  *_aidl_return = hal_->StoreSlot(ThisCaller(), in_name, in_header, in_fdToken, in_offset, in_size);
  return ScopedAStatus::ok();
}

ScopedAStatus OrbsyshalService::unset_fd(int32_t in_fdToken) {
  if (!hal_->RemoveChannel(ThisCaller(), in_fdToken)) {
    return ScopedAStatus::fromExceptionCode(EX_ILLEGAL_ARGUMENT);
  }
  Unlink(static_cast<uint32_t>(in_fdToken));
  return ScopedAStatus::ok();
}

// False when the client is dead. A callback of this process cannot be linked
// to, and needs not be.
bool OrbsyshalService::Link(uint32_t token, const ::ndk::SpAIBinder& callback) {
  const binder_status_t status =
      AIBinder_linkToDeath(callback.get(), death_.get(), CookieOf(token));
  if (status == STATUS_DEAD_OBJECT) return false;
  MutexLock lock(mutex_);
  // Forgets the links to clients that died.
  std::erase_if(linked_, [&](const auto& link) { return !hal_->channels().Has(link.first); });
  linked_[token] = callback;
  return true;
}

void OrbsyshalService::Unlink(uint32_t token) {
  ::ndk::SpAIBinder callback;
  {
    MutexLock lock(mutex_);
    const auto found = linked_.find(token);
    if (found == linked_.end()) return;
    callback = found->second;
    linked_.erase(found);
  }
  // Fails for a callback of this process, which was never linked.
  static_cast<void>(AIBinder_unlinkToDeath(callback.get(), death_.get(), CookieOf(token)));
}

}  // namespace orb::hal
