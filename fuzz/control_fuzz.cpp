// What operators call the manager by: its parcelables, requests to a manager
// with one client, and replies to the tool, from a peer that sends anything.
//
// input := what:u8 code:u8 raw          raw: see raw_parcel.h
// what  := 0, 1 a parcelable | 2 a request | 3 a reply
#include <unistd.h>

#include <memory>

#include "fuzz/fuzz_input.h"
#include "fuzz/raw_parcel.h"
#include "ipc/BnKIVCallback.h"
#include "services/manager/control/BpOrbControl.h"
#include "services/manager/manager_service.h"
#include "tests/support/child_process.h"

namespace {

using android::Parcel;
using android::binder::Status;
using orb::fuzz::Input;
using orb::fuzz::ReadParcelable;
using namespace orb::manager;

class Client : public BnKIVCallback {
 public:
  Status StartSession(const std::string&, const KIVCampConfig& config, int32_t* result) override {
    *result = static_cast<int32_t>(config.campaignDef.size() % 2);
    return Status();
  }
  Status StopSession(const std::string&, int64_t) override { return Status(); }
  Status StartSessionforLicSN(const std::string&, int64_t, int64_t) override { return Status(); }
  Status StopSessionforLicSN(const std::string&, int64_t, int64_t) override { return Status(); }
};

// A client called "radio" is connected, with a campaign that has the owner 42.
void Request(uint32_t code, Input* input) {
  const orb::test::TempDir dir;
  auto store = StateStore::Open(dir.path());
  FUZZ_CHECK(store.ok());
  const auto manager = std::make_shared<CampaignManager>(*std::move(store));
  KIVClientInfo info;
  info.clientName = "radio";
  KIVClientId id;
  FUZZ_CHECK(manager->Register(info, getuid(), new Client, &id));
  KIVCampConfig config;
  config.campId = 7;
  config.licInfo.resize(1);
  config.licInfo[0].licSN = 42;
  FUZZ_CHECK(manager->StartCampaign("radio", config).status == ControlReply::DONE);

  const android::sp<ControlService> service = new ControlService(manager);
  Parcel data;
  Parcel reply;
  data.writeInterfaceToken(IOrbControl::descriptor);
  orb::fuzz::AppendRaw(input, &data);
  const uint32_t method = android::IBinder::FIRST_CALL_TRANSACTION + code % 9;
  service->transact(method, data, &reply);

  // Whatever that did, the manager goes on and knows its client, unless told to forget it.
  const std::vector<ClientRecord> records = manager->ListClients();
  if (method == BnOrbControl::TRANSACTION_forgetClient && records.empty()) return;
  FUZZ_CHECK(records.size() == 1 && records[0].name == "radio" && records[0].connected);
  FUZZ_CHECK(manager->Deregister(id.token));
}

void AnswerCall(uint32_t code, const Input& input) {
  BpOrbControl proxy(new orb::fuzz::RawPeer(IOrbControl::descriptor, input));
  std::vector<ClientRecord> records;
  ControlReply reply;
  if (code % 2 == 0) proxy.listClients(&records);
  if (code % 2 == 1) proxy.stopCampaign("radio", &reply);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input input(data, size);
  const auto what = input.Take<uint8_t>();
  const auto code = input.Take<uint8_t>();
  switch (what % 4) {
    case 0:
      ReadParcelable<ClientRecord>(&input);
      break;
    case 1:
      ReadParcelable<ControlReply>(&input);
      break;
    case 2:
      Request(code, &input);
      break;
    default:
      AnswerCall(code, input);
  }
  return 0;
}
