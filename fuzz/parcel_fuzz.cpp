// The contract with the manager: its four parcelables, requests to both stubs,
// and replies to both proxies, from a peer that sends anything.
//
// input := what:u8 code:u8 raw          raw: see raw_parcel.h
// what  := 0 .. 3 a parcelable | 4, 5 a request | 6, 7 a reply
#include "fuzz/fuzz_input.h"
#include "fuzz/raw_parcel.h"
#include "ipc/BnKIVCallback.h"
#include "ipc/BnKIVManager.h"
#include "ipc/BpKIVCallback.h"
#include "ipc/BpKIVManager.h"

namespace {

using android::Parcel;
using android::binder::Status;
using orb::fuzz::Input;
using orb::fuzz::ReadParcelable;

class Callback : public BnKIVCallback {
 public:
  Status StartSession(const std::string&, const KIVCampConfig&, int32_t* result) override {
    *result = 0;
    return Status();
  }
  Status StopSession(const std::string&, int64_t) override { return Status(); }
  Status StartSessionforLicSN(const std::string&, int64_t, int64_t) override { return Status(); }
  Status StopSessionforLicSN(const std::string&, int64_t, int64_t) override { return Status(); }
};

class Manager : public BnKIVManager {
 public:
  Status registerKIVClient(const KIVClientInfo& info, const android::sp<IKIVCallback>& callback,
                           KIVClientId* id) override {
    FUZZ_CHECK(callback != nullptr);
    id->token = info.clientName;
    return Status();
  }
  Status checkForPendingSession(const std::string&) override { return Status(); }
  Status deregisterKIVClient(const std::string&) override { return Status(); }
  Status sendData(const std::vector<uint8_t>&, const std::string&, bool* result) override {
    *result = true;
    return Status();
  }
};

template <typename Stub>
void Request(uint32_t code, Input* input) {
  const android::sp<Stub> stub = new Stub;
  Parcel data;
  Parcel reply;
  data.writeInterfaceToken(Stub::descriptor);
  orb::fuzz::AppendRaw(input, &data);
  stub->transact(android::IBinder::FIRST_CALL_TRANSACTION + code % 8, data, &reply);
}

void AnswerManagerCall(uint32_t code, const Input& input) {
  BpKIVManager proxy(new orb::fuzz::RawPeer(IKIVManager::descriptor, input));
  KIVClientId id;
  bool sent = false;
  if (code % 3 == 0) proxy.registerKIVClient({}, new Callback, &id);
  if (code % 3 == 1) proxy.deregisterKIVClient("token");
  if (code % 3 == 2) proxy.sendData({1}, "token", &sent);
}

void AnswerCallbackCall(uint32_t code, const Input& input) {
  BpKIVCallback proxy(new orb::fuzz::RawPeer(IKIVCallback::descriptor, input));
  int32_t result = 0;
  if (code % 2 == 0) proxy.StartSession("token", {}, &result);
  if (code % 2 == 1) proxy.StopSession("token", 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input input(data, size);
  const auto what = input.Take<uint8_t>();
  const auto code = input.Take<uint8_t>();
  switch (what % 8) {
    case 0:
      ReadParcelable<KIVCampConfig>(&input);
      break;
    case 1:
      ReadParcelable<LicInfo>(&input);
      break;
    case 2:
      ReadParcelable<KIVClientId>(&input);
      break;
    case 3:
      ReadParcelable<KIVClientInfo>(&input);
      break;
    case 4:
      Request<Manager>(code, &input);
      break;
    case 5:
      Request<Callback>(code, &input);
      break;
    case 6:
      AnswerManagerCall(code, input);
      break;
    default:
      AnswerCallbackCall(code, input);
  }
  return 0;
}
