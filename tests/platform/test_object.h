// An object that does what the transport has to stand: served in the test's
// process, or by platform_peer in another.
#pragma once

#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <utils/Vector.h>

#include <atomic>
#include <thread>
#include <vector>

#include "utility/thread_annotations.h"

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

// What a call to such an object gives.
android::status_t Store(const android::sp<android::IBinder>& at,
                        const android::sp<android::IBinder>& object);
android::sp<android::IBinder> Stored(const android::sp<android::IBinder>& at);
// How deep the two called each other; -1 on failure.
int32_t Nest(const android::sp<android::IBinder>& at, int32_t depth,
             const android::sp<android::IBinder>& peer);

class Recipient : public android::IBinder::DeathRecipient {
 public:
  void binderDied(const android::wp<android::IBinder>& who) override;
  std::atomic<int> count{0};
  std::atomic<bool> alive_when_told{false};
  std::atomic<std::thread::id> on_thread;
};

// Ends the bus and waits until this process has seen it: its descriptors are
// closed by then, not while the next test opens others under their numbers.
template <typename Bus>
void EndBus(Bus* bus) {
  bus->Kill();
  while (android::ProcessState::self() != nullptr) {
  }
}

}  // namespace orb::test
