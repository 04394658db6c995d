// An object for the tests of the bus and of the local transport. The test's own process
// serves it, or platform_peer does.
#pragma once

#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <utils/Vector.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "utility/thread_annotations.h"
#include "utility/unique_fd.h"

namespace orb::test {

enum TestCode : uint32_t {
  kEcho = android::IBinder::FIRST_CALL_TRANSACTION,  // bytes -> bytes
  kAppend,                                           // int32; remembered in order
  kAppended,                                         // -> int32[]
  kStore,                                            // binder; kept
  kStored,                                           // -> binder
  kNest,        // depth, binder: calls it back with depth - 1 and itself -> calls below
  kDescriptor,  // descriptor -> what it reads, and a descriptor to read "back" from
  kHang,        // never returns
  kCaller,      // -> pid, uid
  kFail,        // int32: fails with that status
  kReplyBytes,  // n -> n bytes
  kBlock,       // waits until kUnblock
  kUnblock,
  kTake,  // descriptor; taken and closed
};

class TestObject : public android::BBinder {
 public:
  TestObject();
  ~TestObject() override;
  // Objects of this class that are not destroyed yet.
  static int Alive();
  const android::String16& getInterfaceDescriptor() const override;
  // Writes the arguments, each in brackets.
  android::status_t dump(int fd, const android::Vector<android::String16>& args) override;

 protected:
  android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                               uint32_t flags) override;

 private:
  android::status_t Nest(const android::Parcel& data, android::Parcel* reply);
  android::status_t Descriptor(const android::Parcel& data, android::Parcel* reply);

  Mutex mutex_;
  CondVar changed_;
  std::vector<int32_t> appended_ ORB_GUARDED_BY(mutex_);
  android::sp<android::IBinder> stored_ ORB_GUARDED_BY(mutex_);
  bool unblocked_ ORB_GUARDED_BY(mutex_) = false;
};

inline void Append(android::Parcel* to, int32_t value) { to->writeInt32(value); }
inline void Append(android::Parcel* to, const android::sp<android::IBinder>& value) {
  to->writeStrongBinder(value);
}
inline void Append(android::Parcel* to, const std::vector<uint8_t>& value) {
  to->writeByteVector(value);
}
inline void Append(android::Parcel* to, const UniqueFd& value) {
  to->writeDupFileDescriptor(value.get());
}
// What there is to read until every writer has closed its end.
std::string ReadAll(int fd);

// One call: its constructor sends the arguments and waits.
struct Call {
  template <typename... Arguments>
  Call(const android::sp<android::IBinder>& at, uint32_t code, const Arguments&... arguments)
      : Call(0u, at, code, arguments...) {}
  template <typename... Arguments>
  Call(uint32_t flags, const android::sp<android::IBinder>& at, uint32_t code,
       const Arguments&... arguments) {
    android::Parcel data;
    (Append(&data, arguments), ...);
    status = at->transact(code, data, &reply, flags);
  }
  android::status_t status;
  android::Parcel reply;
};

inline android::sp<android::IBinder> Stored(const android::sp<android::IBinder>& at) {
  return Call(at, kStored).reply.readStrongBinder();
}
// How deep the two called each other.
inline int32_t Nest(const android::sp<android::IBinder>& at, int32_t depth,
                    const android::sp<android::IBinder>& peer) {
  return Call(at, kNest, depth, peer).reply.readInt32();
}
// All that kAppend was given.
inline std::vector<int32_t> Appended(const android::sp<android::IBinder>& at) {
  std::vector<int32_t> values;
  Call(at, kAppended).reply.readInt32Vector(&values);
  return values;
}

class Recipient : public android::IBinder::DeathRecipient {
 public:
  void binderDied(const android::wp<android::IBinder>& who) override;
  std::atomic<int> count{0};
  std::atomic<bool> alive_when_told{false};
  std::atomic<std::thread::id> on_thread;
};

// Ends the bus and waits until this process has closed its connection, so that the next
// test's descriptors do not get the same numbers meanwhile.
template <typename Bus>
void EndBus(Bus* bus) {
  bus->Kill();
  while (android::ProcessState::self() != nullptr) {
  }
}

}  // namespace orb::test
