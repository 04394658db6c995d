// Proxies: their death links and what they know of the remote. RemoteTarget sends calls.
// Tested by tests/platform/contract_test.cpp.
#include <binder/BpBinder.h>
#include <binder/Parcel.h>
#include <binder/Stability.h>
#include <utils/Vector.h>

#include <atomic>
#include <vector>

#include "platform/linux/src/remote_target.h"
#include "utility/thread_annotations.h"

namespace android {

namespace {

struct Link {
  wp<IBinder::DeathRecipient> recipient;
  void* cookie;
  uint32_t flags;
};

std::atomic<int32_t> last_handle{0};

// Whether an object of this level may be called with these flags.
bool IsStable(int32_t level, uint32_t code, uint32_t flags) {
  using internal::Stability;
  if (level == Stability::UNDECLARED || code < IBinder::FIRST_CALL_TRANSACTION ||
      code > IBinder::LAST_CALL_TRANSACTION) {
    return true;
  }
  const bool vendor = (flags & IBinder::FLAG_PRIVATE_VENDOR) != 0;
  const int32_t wanted = vendor ? Stability::VENDOR : Stability::SYSTEM;
  return (level & wanted) == wanted;
}

}  // namespace

struct BpBinder::State {
  explicit State(std::shared_ptr<orb_platform::RemoteTarget> to)
      : target(std::move(to)), handle(++last_handle) {}

  const std::shared_ptr<orb_platform::RemoteTarget> target;
  const int32_t handle;
  std::atomic<bool> alive{true};
  std::atomic<int32_t> stability{internal::Stability::UNDECLARED};

  orb::Mutex mutex;
  // The owner has gone. A DEAD_OBJECT from a handler does not mean that.
  bool owner_gone ORB_GUARDED_BY(mutex) = false;
  bool reported ORB_GUARDED_BY(mutex) = false;
  std::vector<Link> links ORB_GUARDED_BY(mutex);
  bool descriptor_known ORB_GUARDED_BY(mutex) = false;
  String16 descriptor ORB_GUARDED_BY(mutex);
};

BpBinder::BpBinder(std::shared_ptr<orb_platform::RemoteTarget> target)
    : state_(new State(std::move(target))) {}
BpBinder::~BpBinder() = default;

sp<BpBinder> BpBinder::create(std::shared_ptr<orb_platform::RemoteTarget> target) {
  return sp<BpBinder>(new BpBinder(std::move(target)));
}

void BpBinder::onLastStrongRef(const void* id) {
  IBinder::onLastStrongRef(id);  // Makes other threads' writes visible.
  state_->target->Released(this);
}

int32_t BpBinder::handle() const { return state_->handle; }
int32_t BpBinder::stability() const { return state_->stability.load(); }
void BpBinder::setStability(int32_t level) { state_->stability.store(level); }
bool BpBinder::isBinderAlive() const { return state_->alive.load(); }
BpBinder* BpBinder::remoteBinder() { return this; }
const std::shared_ptr<orb_platform::RemoteTarget>& BpBinder::target() const {
  return state_->target;
}

const String16& BpBinder::getInterfaceDescriptor() const {
  State& state = *state_;
  {
    orb::MutexLock lock(state.mutex);
    if (state.descriptor_known) return state.descriptor;
  }
  Parcel data;
  Parcel reply;
  const status_t status =
      const_cast<BpBinder*>(this)->transact(INTERFACE_TRANSACTION, data, &reply, 0);
  String16 descriptor;
  const bool known = status == OK && reply.readString16(&descriptor) == OK;
  orb::MutexLock lock(state.mutex);
  if (known && !state.descriptor_known) {
    state.descriptor = descriptor;
    state.descriptor_known = true;
  }
  return state.descriptor;
}

status_t BpBinder::pingBinder() {
  Parcel data;
  Parcel reply;
  return transact(PING_TRANSACTION, data, &reply, 0);
}

status_t BpBinder::dump(int fd, const Vector<String16>& args) {
  Parcel data;
  Parcel reply;
  // Sends a duplicate, because the receiver's parcel closes what it carries.
  status_t status = data.writeDupFileDescriptor(fd);
  if (status == OK) status = data.writeInt32(static_cast<int32_t>(args.size()));
  for (size_t i = 0; status == OK && i < args.size(); i++) status = data.writeString16(args[i]);
  return status == OK ? transact(DUMP_TRANSACTION, data, &reply, 0) : status;
}

status_t BpBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
  if (!isBinderAlive()) return DEAD_OBJECT;
  if (data.errorCheck() != OK) return data.errorCheck();
  if (!IsStable(stability(), code, flags)) return BAD_TYPE;
  flags &= ~uint32_t{FLAG_PRIVATE_VENDOR};  // Nothing after this check needs it.
  if (orb_platform::ExceedsLimit(data, flags)) return FAILED_TRANSACTION;
  if ((flags & FLAG_CLEAR_BUF) != 0) data.markSensitive();
  const status_t status = state_->target->Transact(code, data, reply, flags);
  if (status == DEAD_OBJECT) state_->alive.store(false);
  return status;
}

status_t BpBinder::linkToDeath(const sp<DeathRecipient>& recipient, void* cookie, uint32_t flags) {
  if (recipient == nullptr) return BAD_VALUE;
  bool gone = false;
  {
    orb::MutexLock lock(state_->mutex);
    if (state_->reported) return DEAD_OBJECT;
    state_->links.push_back({recipient, cookie, flags});
    gone = state_->owner_gone;
  }
  if (gone) state_->target->PostObituary(sp<BpBinder>(this));
  return OK;
}

status_t BpBinder::unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie, uint32_t flags,
                                 wp<DeathRecipient>* outRecipient) {
  orb::MutexLock lock(state_->mutex);
  if (state_->reported) return DEAD_OBJECT;
  const wp<DeathRecipient> any;
  for (auto it = state_->links.begin(); it != state_->links.end(); ++it) {
    const bool same = it->recipient == recipient || (recipient == any && it->cookie == cookie);
    if (!same || it->flags != flags) continue;
    if (outRecipient != nullptr) *outRecipient = it->recipient;
    state_->links.erase(it);
    return OK;
  }
  return NAME_NOT_FOUND;
}

bool BpBinder::markDead() {
  orb::MutexLock lock(state_->mutex);
  state_->owner_gone = true;
  state_->alive.store(false);
  return !state_->links.empty();
}

void BpBinder::sendObituary() {
  std::vector<Link> links;
  {
    orb::MutexLock lock(state_->mutex);
    if (state_->reported) return;
    state_->reported = true;
    links.swap(state_->links);
  }
  for (const Link& link : links) {
    const sp<DeathRecipient> recipient = link.recipient.promote();
    if (recipient != nullptr) recipient->binderDied(wp<IBinder>(this));
  }
}

}  // namespace android
