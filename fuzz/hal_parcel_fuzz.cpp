// The contract with the HAL: requests to both stubs and replies to both
// proxies, from a peer that sends anything.
//
// input := what:u8 code:u8 raw          raw: see raw_parcel.h
#include <aidl/vendor/nuv/orbsyshal_aidl/BnOrbFdCallback.h>
#include <aidl/vendor/nuv/orbsyshal_aidl/BnOrbsyshal.h>
#include <fmq/AidlMessageQueue.h>

#include "fuzz/fuzz_input.h"
#include "fuzz/raw_parcel.h"
#include "platform/linux/ndk/internal.h"

namespace {

using android::Parcel;
using ndk::ScopedAStatus;
using orb::fuzz::Input;
using namespace aidl::vendor::nuv::orbsyshal_aidl;

class FdCallback : public BnOrbFdCallback {
 public:
  ScopedAStatus fd_write_done(int32_t, int32_t, int32_t, int32_t) override {
    return ScopedAStatus::ok();
  }
};

class Hal : public BnOrbsyshal {
 public:
  ScopedAStatus configure_fmq(const QueueDescriptor& queue, bool* accepted) override {
    *accepted =
        android::AidlMessageQueue<int8_t, android::SynchronizedReadWrite>(queue, false).isValid();
    return ScopedAStatus::ok();
  }
  ScopedAStatus request_read(const std::string&, int32_t, bool* result) override {
    *result = true;
    return ScopedAStatus::ok();
  }
  ScopedAStatus set_fd(const NativeHandle& region, const std::shared_ptr<IOrbFdCallback>& callback,
                       SetFdResult*) override {
    for (const auto& fd : region.fds) static_cast<void>(fd.get());
    if (callback != nullptr) callback->fd_write_done(1, 2, 3, 0);
    return ScopedAStatus::ok();
  }
  ScopedAStatus fd_write_to_system_dropbox(const std::string&, const std::vector<uint8_t>&, int32_t,
                                           int32_t, int32_t, int32_t, int32_t* result) override {
    *result = 0;
    return ScopedAStatus::ok();
  }
  ScopedAStatus unset_fd(int32_t) override { return ScopedAStatus::ok(); }
};

template <typename Stub>
void Request(uint32_t code, Input* input) {
  const std::shared_ptr<Stub> stub = ndk::SharedRefBase::make<Stub>();
  const ndk::SpAIBinder handle = stub->asBinder();
  Parcel data;
  Parcel reply;
  data.writeInterfaceToken(android::String16(Stub::descriptor));
  orb::fuzz::AppendRaw(input, &data);
  handle.get()->Binder()->transact(android::IBinder::FIRST_CALL_TRANSACTION + code % 8, data,
                                   &reply);
}

template <typename Interface>
std::shared_ptr<Interface> Proxy(const Input& input) {
  const android::sp<android::IBinder> peer =
      new orb::fuzz::RawPeer(android::String16(Interface::descriptor), input);
  const ndk::SpAIBinder handle(orb_platform::NewReference(orb_platform::HandleOf(peer)));
  std::shared_ptr<Interface> proxy = Interface::fromBinder(handle);
  FUZZ_CHECK(proxy != nullptr);
  return proxy;
}

void AnswerHalCall(uint32_t code, const Input& input) {
  const std::shared_ptr<IOrbsyshal> hal = Proxy<IOrbsyshal>(input);
  bool taken = false;
  SetFdResult result;
  int32_t status = 0;
  switch (code % 4) {
    case 0:
      hal->configure_fmq({}, &taken);
      break;
    case 1:
      hal->request_read("/up/7/radio.42", 100, &taken);
      break;
    case 2:
      hal->set_fd({}, ndk::SharedRefBase::make<FdCallback>(), &result);
      break;
    default:
      hal->fd_write_to_system_dropbox("/up/7/radio.42", {}, 1, 2, 3, 0, &status);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input input(data, size);
  const auto what = input.Take<uint8_t>();
  const auto code = input.Take<uint8_t>();
  switch (what % 4) {
    case 0:
      Request<Hal>(code, &input);
      break;
    case 1:
      Request<FdCallback>(code, &input);
      break;
    case 2:
      AnswerHalCall(code, input);
      break;
    default:
      Proxy<IOrbFdCallback>(input)->fd_write_done(1, 2, 3, 0);
  }
  return 0;
}
