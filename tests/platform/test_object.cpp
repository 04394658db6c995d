#include "tests/platform/test_object.h"

#include <binder/IPCThreadState.h>
#include <unistd.h>
#include <utils/String8.h>

#include <atomic>
#include <cerrno>
#include <string>

namespace orb::test {

using android::IBinder;
using android::IPCThreadState;
using android::Parcel;
using android::sp;
using android::status_t;

namespace {

std::atomic<int> alive{0};

}  // namespace

TestObject::TestObject() { alive++; }
TestObject::~TestObject() { alive--; }
int TestObject::Alive() { return alive.load(); }

const android::String16& TestObject::getInterfaceDescriptor() const {
  static const android::String16* const name = new android::String16("orb.test.Object");
  return *name;
}

status_t TestObject::dump(int fd, const android::Vector<android::String16>& args) {
  std::string text;
  for (size_t i = 0; i < args.size(); i++) {
    text += '[' + std::string(android::String8(args[i]).c_str()) + ']';
  }
  const auto size = static_cast<ssize_t>(text.size());
  return write(fd, text.data(), text.size()) == size ? android::OK : -errno;
}

std::string ReadAll(int fd) {
  std::string text;
  char block[64];
  for (ssize_t count; (count = read(fd, block, sizeof block)) > 0;) {
    text.append(block, static_cast<size_t>(count));
  }
  return text;
}

void Recipient::binderDied(const android::wp<IBinder>& who) {
  const sp<IBinder> binder = who.promote();
  if (binder != nullptr && binder->isBinderAlive()) alive_when_told = true;
  on_thread = std::this_thread::get_id();
  count++;
}

status_t TestObject::Nest(const Parcel& data, Parcel* reply) {
  const int32_t depth = data.readInt32();
  const sp<IBinder> peer = data.readStrongBinder();
  return reply->writeInt32(depth == 0 ? 0 : test::Nest(peer, depth - 1, this) + 1);
}

status_t TestObject::Descriptor(const Parcel& data, Parcel* reply) {
  android::base::unique_fd from;
  const status_t status = data.readUniqueFileDescriptor(&from);
  if (status != android::OK) return status;
  reply->writeUtf8AsUtf16(ReadAll(from.get()));
  int ends[2];
  if (pipe(ends) != 0 || write(ends[1], "back", 4) != 4) return android::UNKNOWN_ERROR;
  close(ends[1]);
  return reply->writeFileDescriptor(ends[0], true);
}

status_t TestObject::onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
  switch (code) {
    case kEcho: {
      std::vector<uint8_t> bytes;
      const status_t status = data.readByteVector(&bytes);
      return status == android::OK ? reply->writeByteVector(bytes) : status;
    }
    case kNest:
      return Nest(data, reply);
    case kDescriptor:
      return Descriptor(data, reply);
    case kTake: {
      android::base::unique_fd taken;
      return data.readUniqueFileDescriptor(&taken);
    }
    case kHang:
      for (;;) pause();
    case kCaller:
      reply->writeInt32(IPCThreadState::self()->getCallingPid());
      return reply->writeInt32(static_cast<int32_t>(IPCThreadState::self()->getCallingUid()));
    case kFail:
      return data.readInt32();
    case kReplyBytes:
      return reply->writeByteVector(
          std::vector<uint8_t>(static_cast<size_t>(data.readInt32()), uint8_t{7}));
    default:
      break;
  }
  MutexLock lock(mutex_);
  switch (code) {
    case kAppend:
      appended_.push_back(data.readInt32());
      return android::OK;
    case kAppended:
      return reply->writeInt32Vector(appended_);
    case kStore:
      stored_ = data.readStrongBinder();
      return android::OK;
    case kStored:
      return reply->writeStrongBinder(stored_);
    case kBlock:
      while (!unblocked_) changed_.Wait(mutex_);
      return android::OK;
    case kUnblock:
      unblocked_ = true;
      changed_.NotifyAll();
      return android::OK;
    default:
      return BBinder::onTransact(code, data, reply, flags);
  }
}

}  // namespace orb::test
