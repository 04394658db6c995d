// Both halves of the two interfaces against the same golden bytes: the proxy
// writes the request and reads the reply, the stub the other way round.
#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <binder/Status.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "ipc/BnKIVCallback.h"
#include "ipc/BnKIVManager.h"
#include "ipc/BpKIVCallback.h"
#include "ipc/BpKIVManager.h"
#include "tests/support/parcel_hex.h"

using android::BBinder;
using android::IBinder;
using android::IInterface;
using android::OK;
using android::Parcel;
using android::sp;
using android::status_t;
using android::String16;
using android::binder::Status;
using orb::test::Compact;
using orb::test::Fill;
using orb::test::ToHex;

namespace {

// Between a proxy and a stub: notes what passes, or answers with an error alone.
class Tap : public BBinder {
 public:
  explicit Tap(const sp<IBinder>& stub = nullptr) : stub_(stub) {}
  status_t result = OK;
  uint32_t code = 0;
  uint32_t flags = 0;
  std::string request_hex;
  std::string reply_hex;

 protected:
  status_t onTransact(uint32_t c, const Parcel& data, Parcel* reply, uint32_t f) override {
    code = c;
    flags = f;
    request_hex = ToHex(data);
    if (result != OK || stub_ == nullptr) return result;
    data.setDataPosition(0);
    const status_t status = stub_->transact(c, data, reply, f);
    if (reply != nullptr) reply_hex = ToHex(*reply);
    return status;
  }

 private:
  const sp<IBinder> stub_;
};

// Stubs that note each call as text.
class NotingManager : public BnKIVManager {
 public:
  std::string calls;
  sp<IBinder> callback;

  Status registerKIVClient(const KIVClientInfo& info, const sp<IKIVCallback>& cb,
                           KIVClientId* id) override {
    calls += "register " + info.clientName + " " + std::to_string(info.clientType) + " " +
             std::to_string(info.clientOption);
    callback = IInterface::asBinder(cb);
    id->token = "tok";
    id->clientId = 42;
    return Status::ok();
  }
  Status checkForPendingSession(const std::string& token) override {
    calls += "check " + token;
    return Status::ok();
  }
  Status deregisterKIVClient(const std::string& token) override {
    calls += "deregister " + token;
    return Status::ok();
  }
  Status sendData(const std::vector<uint8_t>& data, const std::string& token,
                  bool* _aidl_return) override {
    calls +=
        "send " + ToHex({reinterpret_cast<const char*>(data.data()), data.size()}) + " " + token;
    *_aidl_return = true;
    return Status::ok();
  }
};

class NotingCallback : public BnKIVCallback {
 public:
  std::string calls;

  Status StartSession(const std::string& token, const KIVCampConfig& config,
                      int32_t* _aidl_return) override {
    calls += "start " + token + " " + std::to_string(config.campId) + " " +
             std::to_string(config.licInfo.size());
    *_aidl_return = -2;
    return Status::ok();
  }
  Status StopSession(const std::string& token, int64_t campId) override {
    calls += "stop " + token + " " + std::to_string(campId);
    return Status::ok();
  }
  Status StartSessionforLicSN(const std::string& token, int64_t campId, int64_t licSN) override {
    calls += "startLic " + token + " " + std::to_string(campId) + " " + std::to_string(licSN);
    return Status::ok();
  }
  Status StopSessionforLicSN(const std::string& token, int64_t campId, int64_t licSN) override {
    calls += "stopLic " + token + " " + std::to_string(campId) + " " + std::to_string(licSN);
    return Status::ok();
  }
};

const std::string kTokenHead = "00000080 ffffffff 54535953";
const std::string kManagerToken =
    kTokenHead + "0b000000 49004b00 49005600 4d006100 6e006100 67006500 72000000";
const std::string kCallbackToken =
    kTokenHead + "0c000000 49004b00 49005600 43006100 6c006c00 62006100 63006b00 00000000";
const std::string kTok = "03000000 74006f00 6b000000";

struct Row {
  const char* name;
  bool manager;  // Else the callback interface.
  uint32_t code;
  uint32_t flags;
  std::string arguments;  // Behind the interface token.
  std::string reply;
  const char* served;  // What the stub notes.
  const char* result;  // What the proxy gives its caller.
  // Calls through a proxy; the result, as text, goes to the second argument.
  std::function<Status(const sp<IBinder>&, std::string*)> call;
};

KIVCampConfig Config() {
  KIVCampConfig config;
  config.campId = 77;
  return config;
}

const Row kRows[] = {
    {"checkForPendingSession", true, 2, IBinder::FLAG_ONEWAY, kTok, "", "check tok", "",
     [](const sp<IBinder>& peer, std::string*) {
       return BpKIVManager(peer).checkForPendingSession("tok");
     }},
    {"deregisterKIVClient", true, 3, 0, kTok, "00000000", "deregister tok", "",
     [](const sp<IBinder>& peer, std::string*) {
       return BpKIVManager(peer).deregisterKIVClient("tok");
     }},
    {"sendData", true, 4, 0, "05000000 01020304 05000000" + kTok, "00000000 01000000",
     "send 0102030405 tok", "true",
     [](const sp<IBinder>& peer, std::string* result) {
       bool done = false;
       const Status status = BpKIVManager(peer).sendData({1, 2, 3, 4, 5}, "tok", &done);
       *result = done ? "true" : "";
       return status;
     }},
    {"StartSession", false, 1, 0, kTok + "01000000 14000000 4d00000000000000 00000000 00000000",
     "00000000 feffffff", "start tok 77 0", "-2",
     [](const sp<IBinder>& peer, std::string* result) {
       int32_t number = 0;
       const Status status = BpKIVCallback(peer).StartSession("tok", Config(), &number);
       *result = number == 0 ? "" : std::to_string(number);
       return status;
     }},
    {"StopSession", false, 2, 0, kTok + "4d00000000000000", "00000000", "stop tok 77", "",
     [](const sp<IBinder>& peer, std::string*) {
       return BpKIVCallback(peer).StopSession("tok", 77);
     }},
    {"StartSessionforLicSN", false, 3, 0, kTok + "4d00000000000000 feffffffffffffff", "00000000",
     "startLic tok 77 -2", "",
     [](const sp<IBinder>& peer, std::string*) {
       return BpKIVCallback(peer).StartSessionforLicSN("tok", 77, -2);
     }},
    {"StopSessionforLicSN", false, 4, 0, kTok + "4d00000000000000 feffffffffffffff", "00000000",
     "stopLic tok 77 -2", "",
     [](const sp<IBinder>& peer, std::string*) {
       return BpKIVCallback(peer).StopSessionforLicSN("tok", 77, -2);
     }},
};

TEST(TransactionTest, BothHalvesSpeakGoldenBytes) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.name);
    const sp<NotingManager> manager(new NotingManager());
    const sp<NotingCallback> callback(new NotingCallback());
    const sp<Tap> tap(new Tap(row.manager ? sp<IBinder>(manager) : sp<IBinder>(callback)));
    std::string result;
    EXPECT_TRUE(row.call(tap, &result).isOk());
    EXPECT_EQ(tap->code, row.code);
    EXPECT_EQ(tap->flags & IBinder::FLAG_ONEWAY, row.flags);
    EXPECT_EQ(tap->request_hex,
              Compact((row.manager ? kManagerToken : kCallbackToken) + row.arguments));
    EXPECT_EQ(row.manager ? manager->calls : callback->calls, row.served);
    EXPECT_EQ(tap->reply_hex, Compact(row.reply));
    EXPECT_EQ(result, row.result);
  }
}

TEST(TransactionTest, RegistrationCarriesTheCallback) {
  const sp<NotingCallback> callback(new NotingCallback());
  const sp<NotingManager> manager(new NotingManager());
  const sp<Tap> tap(new Tap(manager));
  KIVClientInfo info;
  info.clientName = "abc";
  info.clientType = 2;
  info.clientOption = -1;
  KIVClientId id;
  EXPECT_TRUE(BpKIVManager(tap).registerKIVClient(info, callback, &id).isOk());
  EXPECT_EQ(id.token, "tok");
  EXPECT_EQ(id.clientId, 42);
  EXPECT_EQ(tap->code, 1u);
  EXPECT_EQ(manager->calls, "register abc 2 -1");
  EXPECT_EQ(manager->callback.get(), IInterface::asBinder(callback).get());
  EXPECT_EQ(tap->reply_hex, Compact("00000000 01000000 14000000" + kTok + "2a000000"));
  // Behind the record a local object: type, flags, two words of its own, its stability.
  const std::string info_hex =
      Compact(kManagerToken + "01000000 18000000 03000000 61006200 63000000 02000000 ffffffff");
  EXPECT_EQ(tap->request_hex.size(), 2u * 96);
  EXPECT_EQ(tap->request_hex.substr(0, info_hex.size() + 8), info_hex + "852a6273");
}

struct BadRequest {
  const char* name;
  bool manager;
  uint32_t code;
  std::string request;
  status_t want;
  int32_t want_exception;  // In the reply, when the transaction is OK.
};

const BadRequest kBadRequests[] = {
    {"token of the other interface", true, 3, kCallbackToken + kTok, android::BAD_TYPE, 0},
    {"no token", true, 3, "", android::BAD_TYPE, 0},
    {"code 0", true, 0, kManagerToken, android::UNKNOWN_TRANSACTION, 0},
    {"code 5", true, 5, kManagerToken + kTok, android::UNKNOWN_TRANSACTION, 0},
    {"code 5 of the callback", false, 5, kCallbackToken + kTok, android::UNKNOWN_TRANSACTION, 0},
    {"bytes behind the arguments", true, 3, kManagerToken + kTok + "00000000", OK,
     Status::EX_BAD_PARCELABLE},
    {"bytes behind a one-way call", true, 2, kManagerToken + kTok + "00000000", OK,
     Status::EX_BAD_PARCELABLE},
    {"null string", true, 3, kManagerToken + "ffffffff", OK, Status::EX_NULL_POINTER},
    {"null parcelable", false, 1, kCallbackToken + kTok + "00000000", OK, Status::EX_NULL_POINTER},
    {"null bytes", true, 4, kManagerToken + "ffffffff" + kTok, OK, Status::EX_NULL_POINTER},
    {"argument missing", false, 4, kCallbackToken + kTok + "4d00000000000000",
     android::NOT_ENOUGH_DATA, 0},
};

TEST(TransactionTest, StubRefusesWhatItCannotRead) {
  for (const BadRequest& c : kBadRequests) {
    SCOPED_TRACE(c.name);
    const sp<NotingManager> manager(new NotingManager());
    const sp<NotingCallback> callback(new NotingCallback());
    const sp<BBinder> stub = c.manager ? sp<BBinder>(manager) : sp<BBinder>(callback);
    Parcel request, reply;
    Fill(&request, c.request);
    EXPECT_EQ(stub->transact(c.code, request, &reply), c.want);
    EXPECT_EQ(manager->calls + callback->calls, "");
    if (c.want != OK) continue;
    Status status;
    ASSERT_EQ(status.readFromParcel(reply), OK);
    EXPECT_EQ(status.exceptionCode(), c.want_exception);
  }
}

TEST(TransactionTest, NullCallbackIsAnException) {
  const sp<NotingManager> manager(new NotingManager());
  KIVClientId id;
  const Status status = BpKIVManager(manager).registerKIVClient(KIVClientInfo(), nullptr, &id);
  EXPECT_EQ(status.exceptionCode(), Status::EX_NULL_POINTER);
  EXPECT_EQ(manager->calls, "");
}

TEST(TransactionTest, TransportErrorsBecomeTheStatus) {
  const sp<Tap> peer(new Tap());
  for (const status_t error : {android::DEAD_OBJECT, android::FAILED_TRANSACTION}) {
    peer->result = error;
    const Status status = BpKIVManager(peer).deregisterKIVClient("tok");
    EXPECT_EQ(status.exceptionCode(), Status::EX_TRANSACTION_FAILED);
    EXPECT_EQ(status.transactionError(), error);
  }
  peer->result = OK;  // Not even a status.
  EXPECT_EQ(BpKIVManager(peer).deregisterKIVClient("tok").transactionError(),
            android::NOT_ENOUGH_DATA);
}

TEST(TransactionTest, DefaultImplementationAnswersForAnOldManager) {
  struct OldManagerHelp : public IKIVManagerDefault {
    Status sendData(const std::vector<uint8_t>& data, const std::string&, bool* done) override {
      *done = data.size() == 3;
      return Status::ok();
    }
  };
  const sp<Tap> peer(new Tap());
  peer->result = android::UNKNOWN_TRANSACTION;
  BpKIVManager proxy(peer);
  bool done = false;
  EXPECT_EQ(proxy.sendData({1, 2, 3}, "tok", &done).transactionError(),
            android::UNKNOWN_TRANSACTION);

  EXPECT_FALSE(IKIVManager::setDefaultImpl(nullptr));
  EXPECT_TRUE(IKIVManager::setDefaultImpl(sp<IKIVManager>(new OldManagerHelp())));
  EXPECT_FALSE(IKIVManager::setDefaultImpl(sp<IKIVManager>(new IKIVManagerDefault())));
  EXPECT_TRUE(proxy.sendData({1, 2, 3}, "tok", &done).isOk());
  EXPECT_TRUE(done);
  EXPECT_EQ(proxy.deregisterKIVClient("tok").transactionError(), android::UNKNOWN_TRANSACTION);
}

TEST(TransactionTest, AsInterfaceFindsTheLocalObject) {
  EXPECT_EQ(IKIVManager::asInterface(nullptr), nullptr);
  const sp<NotingManager> manager(new NotingManager());
  EXPECT_EQ(IKIVManager::asInterface(IInterface::asBinder(manager)).get(),
            static_cast<IKIVManager*>(manager.get()));
  const sp<IKIVManager> proxy = IKIVManager::asInterface(sp<IBinder>(new Tap()));
  ASSERT_NE(proxy, nullptr);
  EXPECT_TRUE(proxy->getInterfaceDescriptor() == String16("IKIVManager"));
}

}  // namespace
