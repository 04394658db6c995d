// The bus transport against a peer that speaks the bus's protocol as it likes:
// transactions with any objects at any place, bodies of other types, references
// given back or passed on that it never had, and such parcels in its replies.
//
// input   := message*      what is left when the peer is called are its replies
// message := what:u8 (0 .. 5 parcel | 6 release | 7 retain | 8 lookup | 9 other types)
// parcel  := code:u8 flags:u8 target:u8 count:u8 object* descriptors:u8 length:u8 data
// object  := word:u8 kind:u8 owner:u8 number:u8
#include <binder/Binder.h>
#include <binder/BpBinder.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <systemd/sd-bus.h>

#include <chrono>

#include "fuzz/fuzz_input.h"
#include "platform/linux/src/bus_message.h"
#include "platform/linux/src/bus_names.h"
#include "tests/support/private_bus.h"

namespace {

using android::IBinder;
using android::Parcel;
using android::sp;
using android::status_t;
using orb::fuzz::Input;
using orb_platform::BusMessage;

constexpr char kService[] = "org.orb.service.fuzz";
constexpr int kMessagesMax = 8;
constexpr uint32_t kCallBack = 1000;
constexpr auto kAnswerDue = std::chrono::seconds(15);

// Reads whatever an object can be, calls a binder back and returns it.
class Target : public android::BBinder {
 protected:
  status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
    if (code > LAST_CALL_TRANSACTION) return BBinder::onTransact(code, data, reply, flags);
    const sp<IBinder> binder = ReadObjects(data);
    // The binder may be this object itself.
    if (binder == nullptr || code == kCallBack) return android::OK;
    Parcel request;
    Parcel answer;
    request.writeStrongBinder(code % 2 == 0 ? sp<IBinder>(this) : binder);
    const bool oneway = code % 4 == 3;
    binder->transact(kCallBack, request, &answer, oneway ? uint32_t{FLAG_ONEWAY} : 0);
    ReadObjects(answer);
    if (reply != nullptr) reply->writeStrongBinder(binder);
    return android::OK;
  }

 private:
  static sp<IBinder> ReadObjects(const Parcel& parcel) {
    sp<IBinder> binder;
    parcel.readNullableStrongBinder(&binder);
    android::base::unique_fd fd;
    parcel.readUniqueFileDescriptor(&fd);
    std::vector<uint8_t> bytes;
    parcel.readByteVector(&bytes);
    return binder;
  }
};

// The hostile peer: a bare connection to the bus. Lives until the process ends.
class Peer {
 public:
  Peer() {
    bus_daemon_.SetEnvironment();
    FUZZ_CHECK(android::ProcessState::self() != nullptr);
    android::ProcessState::self()->startThreadPool();
    FUZZ_CHECK(
        android::defaultServiceManager()->addService(android::String16("fuzz"), new Target) == 0);
    FUZZ_CHECK(sd_bus_new(&bus_) >= 0);
    FUZZ_CHECK(sd_bus_set_address(bus_, bus_daemon_.address().c_str()) >= 0);
    FUZZ_CHECK(sd_bus_set_bus_client(bus_, 1) >= 0 && sd_bus_start(bus_) >= 0);
    const char* name = nullptr;
    FUZZ_CHECK(sd_bus_get_unique_name(bus_, &name) >= 0);
    names_[0] = name;
    sd_bus_add_filter(bus_, nullptr, OnCall, this);
    LookUp();
  }

  void Run(Input input) {
    input_ = &input;
    for (int left = kMessagesMax; left > 0 && input.left() > 0; --left) SendOne();
    // Whatever came before, the target still answers.
    const BusMessage ping = NewCall("Transact", names_[1].c_str(), id_);
    sd_bus_message_append(ping.get(), "uu", uint32_t{IBinder::PING_TRANSACTION}, 0u);
    AppendEmptyParcel(ping.get());
    Call(ping);
    FUZZ_CHECK(answered_ok_);
    input_ = nullptr;
  }

 private:
  void LookUp() {
    BusMessage reply;
    FUZZ_CHECK(sd_bus_call_method(bus_, kService, orb_platform::kRootPath, orb_platform::kInterface,
                                  "Lookup", nullptr, reply.out(), "s", kService) >= 0);
    FUZZ_CHECK(sd_bus_message_read(reply.get(), "t", &id_) > 0);
    names_[1] = sd_bus_message_get_sender(reply.get());
  }

  BusMessage NewCall(const char* member, const char* destination, uint64_t id) {
    BusMessage call;
    const std::string path = orb_platform::kObjectPrefix + std::to_string(id);
    FUZZ_CHECK(sd_bus_message_new_method_call(bus_, call.out(), destination, path.c_str(),
                                              orb_platform::kInterface, member) >= 0);
    return call;
  }

  static void AppendEmptyParcel(sd_bus_message* message) {
    sd_bus_message_append(message, "ay", 0);
    sd_bus_message_append(message, "a(uyst)", 0);
    sd_bus_message_append(message, "ah", 0);
  }

  // What is left out ends the message early, which the other side must stand.
  void AppendParcel(sd_bus_message* message) {
    struct Object {
      uint8_t word, kind, owner, number;
    };
    std::vector<Object> objects(input_->Take<uint8_t>() % 5);
    for (Object& object : objects) object = input_->Take<Object>();
    const int descriptors = input_->Take<uint8_t>() % 4;
    const std::vector<uint8_t> data = input_->TakeBytes(input_->Take<uint8_t>());
    sd_bus_message_append_array(message, 'y', data.data(), data.size());
    sd_bus_message_open_container(message, 'a', "(uyst)");
    for (const Object& object : objects) {
      // Words from 0xf0 on become offsets near 2^32.
      const uint32_t offset = object.word < 0xf0 ? object.word * 4u : ~0u - (object.word - 0xf0u);
      sd_bus_message_append(message, "(uyst)", offset, object.kind, Owner(object.owner),
                            Number(object.number));
    }
    sd_bus_message_close_container(message);
    sd_bus_message_open_container(message, 'a', "h");
    for (int i = 0; i < descriptors; ++i) sd_bus_message_append(message, "h", STDIN_FILENO);
    sd_bus_message_close_container(message);
  }

  const char* Owner(uint8_t which) const {
    static constexpr const char* kOthers[] = {
        "", "org.freedesktop.DBus", ":1.9999999", "no bus name", kService, ":"};
    if (which % 8 < 2) return names_[which % 8].c_str();
    return kOthers[which % 8 - 2];
  }
  uint64_t Number(uint8_t which) const {
    if (which % 4 == 0) return id_;
    return which == 255 ? UINT64_MAX : which / 4;
  }

  void SendOne() {
    const int what = input_->Take<uint8_t>() % 10;
    BusMessage message;
    if (what < 6) {
      const auto code = input_->Take<uint8_t>();
      const auto flags = input_->Take<uint8_t>();
      const auto target = input_->Take<uint8_t>();
      message = NewCall("Transact", names_[1].c_str(), target < 250 ? id_ : target);
      sd_bus_message_append(message.get(), "uu", uint32_t{code}, uint32_t{flags});
      AppendParcel(message.get());
      sd_bus_message_set_expect_reply(message.get(), (flags & IBinder::FLAG_ONEWAY) == 0);
    } else if (what == 6) {
      message = NewCall("Release", names_[1].c_str(), 0);
      const uint64_t id = Number(input_->Take<uint8_t>());
      sd_bus_message_append(message.get(), "tt", id, input_->Take<uint64_t>());
      sd_bus_message_set_expect_reply(message.get(), 0);
    } else if (what == 7) {
      message = NewCall("Retain", names_[1].c_str(), 0);
      const uint64_t id = Number(input_->Take<uint8_t>());
      sd_bus_message_append(message.get(), "ts", id, Owner(input_->Take<uint8_t>()));
      sd_bus_message_set_expect_reply(message.get(), 0);
    } else if (what == 8) {
      message = NewCall("Lookup", names_[1].c_str(), 0);
      sd_bus_message_append(message.get(), "s", Owner(input_->Take<uint8_t>()));
    } else {
      message = OtherTypes();
    }
    if (sd_bus_message_get_expect_reply(message.get()) > 0) return Call(message);
    FUZZ_CHECK(sd_bus_send(bus_, message.get(), nullptr) >= 0);
  }

  // A call whose body is not what its name wants.
  BusMessage OtherTypes() {
    static constexpr const char* kMembers[] = {"Transact", "Release", "Retain"};
    const auto which = input_->Take<uint8_t>();
    BusMessage call = NewCall(kMembers[which % 3], names_[1].c_str(), id_);
    sd_bus_message* const message = call.get();
    switch (which / 3 % 5) {
      case 0:
        sd_bus_message_append(message, "s", "text");
        break;
      case 1:
        sd_bus_message_append(message, "uu", 1u, 0u);
        break;
      case 2:
        sd_bus_message_append(message, "uuay", 1u, 0u, 1, 7);
        break;
      case 3:
        sd_bus_message_append(message, "uuayas", 1u, 0u, 1, 7, 1, "text");
        break;
      default:
        break;
    }
    // Of these, only transactions are always answered.
    sd_bus_message_set_expect_reply(message, which % 3 == 0);
    return call;
  }

  // Sends, and serves calls until the answer is there, whatever it is.
  void Call(const BusMessage& message) {
    answered_ = false;
    FUZZ_CHECK(sd_bus_call_async(bus_, nullptr, message.get(), OnAnswer, this, 0) >= 0);
    const auto deadline = std::chrono::steady_clock::now() + kAnswerDue;
    while (!answered_) {
      FUZZ_CHECK(std::chrono::steady_clock::now() < deadline);
      const int result = sd_bus_process(bus_, nullptr);
      FUZZ_CHECK(result >= 0);
      if (result == 0) sd_bus_wait(bus_, 1000000);
    }
  }

  static int OnAnswer(sd_bus_message* message, void* peer, sd_bus_error*) {
    auto* const self = static_cast<Peer*>(peer);
    int32_t status = -1;
    self->answered_ = true;
    self->answered_ok_ = sd_bus_message_is_method_error(message, nullptr) <= 0 &&
                         sd_bus_message_read(message, "i", &status) > 0 && status == 0;
    return 0;
  }

  static int OnCall(sd_bus_message* message, void* peer, sd_bus_error*) {
    auto* const self = static_cast<Peer*>(peer);
    if (sd_bus_message_is_method_call(message, orb_platform::kInterface, "Transact") <= 0) return 0;
    if (sd_bus_message_get_expect_reply(message) <= 0) return 1;
    BusMessage reply;
    FUZZ_CHECK(sd_bus_message_new_method_return(message, reply.out()) >= 0);
    Input nothing(nullptr, 0);
    Input* const saved = self->input_;
    if (saved == nullptr) self->input_ = &nothing;
    if (self->input_->Take<uint8_t>() % 8 == 7) {
      sd_bus_message_append(reply.get(), "s", "text");
    } else {
      sd_bus_message_append(reply.get(), "i", int32_t{self->input_->Take<int8_t>()} & ~0x3f);
      self->AppendParcel(reply.get());
    }
    self->input_ = saved;
    FUZZ_CHECK(sd_bus_send(self->bus_, reply.get(), nullptr) >= 0);
    return 1;
  }

  orb::test::PrivateBus bus_daemon_;
  sd_bus* bus_ = nullptr;
  std::string names_[2];  // The peer's own, the target's.
  uint64_t id_ = 0;       // The target's object.
  Input* input_ = nullptr;
  bool answered_ = false;
  bool answered_ok_ = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Peer peer;
  peer.Run(Input(data, size));
  return 0;
}
