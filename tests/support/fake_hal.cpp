#include "tests/support/fake_hal.h"

#include <android/binder_manager.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <utility>

namespace orb::test {
namespace {

using ::ndk::ScopedAStatus;

constexpr std::chrono::seconds kPatience(10);

ScopedAStatus TransportError() { return ScopedAStatus::fromStatus(STATUS_FAILED_TRANSACTION); }

}  // namespace

std::shared_ptr<FakeHal> FakeHal::Make() { return ::ndk::SharedRefBase::make<FakeHal>(); }

bool FakeHal::Publish() {
  return AServiceManager_addService(asBinder().get(), kService) == EX_NONE;
}

void FakeHal::Inject(Method method, Fault fault) {
  MutexLock lock(mutex_);
  scripts_[method].fault = fault;
}

void FakeHal::Pause(Method method) {
  MutexLock lock(mutex_);
  scripts_[method].pause = true;
}

bool FakeHal::WaitUntilPaused(Method method) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  MutexLock lock(mutex_);
  while (!scripts_[method].paused) {
    if (!changed_.WaitUntil(mutex_, deadline)) return scripts_[method].paused;
  }
  return true;
}

void FakeHal::Resume(Method method) {
  MutexLock lock(mutex_);
  scripts_[method].pause = false;
  changed_.NotifyAll();
}

FakeHal::Outcome FakeHal::Enter(Method method) {
  MutexLock lock(mutex_);
  Script& script = scripts_[method];
  ++script.calls;
  script.paused = script.pause;
  changed_.NotifyAll();
  while (script.pause) changed_.Wait(mutex_);
  script.paused = false;
  const std::optional<Fault> fault = std::exchange(script.fault, std::nullopt);
  if (!fault.has_value()) return Outcome::kNormal;
  return *fault == Fault::kFail ? Outcome::kFail : Outcome::kRefuse;
}

bool FakeHal::Complete(int32_t token, int32_t a, int32_t b, int32_t c) {
  std::shared_ptr<IOrbFdCallback> callback;
  {
    MutexLock lock(mutex_);
    if (channels_.empty()) return false;
    // A forged token still reaches a client, by way of the newest region.
    callback = channels_.back().callback;
    for (const Channel& channel : channels_) {
      if (channel.region.token == token) callback = channel.callback;
    }
  }
  return callback->fd_write_done(token, a, b, c).isOk();
}

std::vector<FakeHal::Upload> FakeHal::uploads() const {
  MutexLock lock(mutex_);
  return uploads_;
}

std::vector<FakeHal::Region> FakeHal::regions() const {
  MutexLock lock(mutex_);
  std::vector<Region> regions;
  for (const Channel& channel : channels_) regions.push_back(channel.region);
  return regions;
}

std::vector<FakeHal::Slot> FakeHal::slots() const {
  MutexLock lock(mutex_);
  return slots_;
}

size_t FakeHal::calls(Method method) const {
  MutexLock lock(mutex_);
  const auto script = scripts_.find(method);
  return script == scripts_.end() ? 0 : script->second.calls;
}

ScopedAStatus FakeHal::configure_fmq(const QueueDescriptor& in_queue, bool* _aidl_return) {
  const Outcome outcome = Enter(Method::kConfigureFmq);
  if (outcome == Outcome::kFail) return TransportError();
  MutexLock lock(mutex_);
  queue_ = std::make_unique<Queue>(in_queue);
  // Like a HAL that looks at the queue only when it reads.
  *_aidl_return = outcome == Outcome::kNormal;
  return ScopedAStatus::ok();
}

ScopedAStatus FakeHal::request_read(const std::string& in_name, int32_t in_total,
                                    bool* _aidl_return) {
  const Outcome outcome = Enter(Method::kRequestRead);
  if (outcome == Outcome::kFail) return TransportError();
  MutexLock lock(mutex_);
  const std::unique_ptr<Queue> queue = std::move(queue_);
  *_aidl_return = false;
  if (outcome == Outcome::kRefuse || queue == nullptr || in_total < 0 ||
      queue->availableToRead() < static_cast<size_t>(in_total)) {
    return ScopedAStatus::ok();
  }
  Upload upload{in_name, std::vector<uint8_t>(static_cast<size_t>(in_total))};
  *_aidl_return = queue->read(reinterpret_cast<int8_t*>(upload.bytes.data()), upload.bytes.size());
  if (*_aidl_return) uploads_.push_back(std::move(upload));
  return ScopedAStatus::ok();
}

ScopedAStatus FakeHal::set_fd(const NativeHandle& in_region,
                              const std::shared_ptr<IOrbFdCallback>& in_callback,
                              SetFdResult* _aidl_return) {
  const Outcome outcome = Enter(Method::kSetFd);
  if (outcome == Outcome::kFail) return TransportError();
  if (outcome == Outcome::kRefuse || in_region.fds.size() != 1 || in_region.ints.size() != 2) {
    _aidl_return->result = kRefused;
    return ScopedAStatus::ok();
  }
  Channel channel;
  channel.fd.set(fcntl(in_region.fds[0].get(), F_DUPFD_CLOEXEC, 0));
  channel.callback = in_callback;
  channel.region.offset_bytes = in_region.ints[0];
  channel.region.size_bytes = in_region.ints[1];
  MutexLock lock(mutex_);
  channel.region.token = static_cast<int32_t>(channels_.size()) + 1;
  _aidl_return->result = 0;
  _aidl_return->fdToken = channel.region.token;
  channels_.push_back(std::move(channel));
  return ScopedAStatus::ok();
}

ScopedAStatus FakeHal::fd_write_to_system_dropbox(const std::string& in_name,
                                                  const std::vector<uint8_t>& in_header,
                                                  int32_t in_fdToken, int32_t in_offset,
                                                  int32_t in_size, int32_t in_compress,
                                                  int32_t* _aidl_return) {
  const Outcome outcome = Enter(Method::kFdWrite);
  if (outcome == Outcome::kFail) return TransportError();
  *_aidl_return = kRefused;
  MutexLock lock(mutex_);
  const bool known = in_fdToken > 0 && static_cast<size_t>(in_fdToken) <= channels_.size();
  if (outcome == Outcome::kRefuse || !known || in_size < 0) return ScopedAStatus::ok();
  const Channel& channel = channels_[static_cast<size_t>(in_fdToken) - 1];
  Slot slot{in_name, in_header, in_fdToken, in_offset, in_size, in_compress, {}};
  slot.bytes.resize(static_cast<size_t>(in_size));
  const off_t at = static_cast<off_t>(channel.region.offset_bytes) + in_offset;
  const ssize_t got = pread(channel.fd.get(), slot.bytes.data(), slot.bytes.size(), at);
  slot.bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
  slots_.push_back(std::move(slot));
  *_aidl_return = 0;
  return ScopedAStatus::ok();
}

ScopedAStatus FakeHal::unset_fd(int32_t in_fdToken) {
  const Outcome outcome = Enter(Method::kUnsetFd);
  if (outcome == Outcome::kFail) return TransportError();
  MutexLock lock(mutex_);
  for (Channel& channel : channels_) {
    if (channel.region.token == in_fdToken) channel.region.open = false;
  }
  return outcome == Outcome::kNormal ? ScopedAStatus::ok()
                                     : ScopedAStatus::fromServiceSpecificError(kRefused);
}

}  // namespace orb::test
