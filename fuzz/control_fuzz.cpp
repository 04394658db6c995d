// What operators call the manager by: requests to a manager with one client, and replies
// to the tool, from a peer that sends anything.
//
// input := what:u8 body
// what  := 0, 1 a request: body is the message | 2 a request: body is what the parcel has
//          after its token (raw_parcel.h) | 3 a reply: body is the message
#include <unistd.h>

#include <memory>

#include "fuzz/fuzz_input.h"
#include "fuzz/raw_parcel.h"
#include "ipc/BnKIVCallback.h"
#include "services/manager/control/control_call.h"
#include "services/manager/manager_service.h"
#include "tests/support/child_process.h"

namespace {

using android::Parcel;
using android::binder::Status;
using orb::fuzz::Input;
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
void Request(bool raw, Input* input) {
  const orb::test::TempDir dir;
  auto store = StateStore::Open(dir.path());
  FUZZ_CHECK(store.ok());
  const auto manager = std::make_shared<CampaignManager>(*std::move(store));
  KIVClientInfo info;
  info.clientName = "radio";
  KIVClientId id;
  FUZZ_CHECK(manager->Register(info, getuid(), new Client, &id));
  SavedCampaign campaign;
  campaign.set_camp_id(7);
  campaign.add_lic_keys()->set_lic_sn(42);
  FUZZ_CHECK(manager->StartCampaign("radio", campaign).status() == ControlReply::DONE);

  const android::sp<ControlService> service = new ControlService(manager);
  Parcel data;
  Parcel reply;
  data.writeInterfaceToken(ControlDescriptor());
  if (raw) {
    orb::fuzz::AppendRaw(input, &data);
  } else {
    FUZZ_CHECK(data.writeByteVector(input->Rest()) == android::OK);
    data.setDataPosition(0);
  }
  service->transact(kControlCall, data, &reply);

  // Whatever that did, the manager goes on and knows its client, unless told to forget it.
  const std::vector<ClientRecord> records = manager->ListClients();
  if (records.empty()) return;
  FUZZ_CHECK(records.size() == 1 && records[0].name() == "radio" && records[0].connected());
  FUZZ_CHECK(manager->Deregister(id.token));
}

// Answers with the message.
class Peer : public android::BBinder {
 public:
  explicit Peer(std::vector<uint8_t> message) : message_(std::move(message)) {}
  const android::String16& getInterfaceDescriptor() const override { return ControlDescriptor(); }
  android::status_t onTransact(uint32_t, const Parcel&, Parcel* reply, uint32_t) override {
    Status().writeToParcel(reply);
    return reply->writeUniqueFileDescriptor(SealBytes(message_));
  }

 private:
  const std::vector<uint8_t> message_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input input(data, size);
  const auto what = input.Take<uint8_t>() % 4;
  if (what < 3) {
    Request(what == 2, &input);
    return 0;
  }
  const std::vector<uint8_t> message = input.Rest();
  ControlReply reply;
  ControlReply expected;
  const bool valid = expected.ParseFromArray(message.data(), static_cast<int>(message.size()));
  FUZZ_CHECK(CallControl(new Peer(message), {}, &reply).isOk() == valid);
  return 0;
}
