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
#include "tests/ipc/wire.h"

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

// The peer of a proxy: notes the request, answers with what it is told.
class ScriptedPeer : public BBinder {
 public:
  std::string reply_hex = "00000000";
  status_t result = OK;
  uint32_t code = 0;
  uint32_t flags = 0;
  std::string request_hex;

 protected:
  status_t onTransact(uint32_t c, const Parcel& data, Parcel* reply, uint32_t f) override {
    code = c;
    flags = f;
    request_hex = ToHex(data);
    if (result == OK && (f & IBinder::FLAG_ONEWAY) == 0) Fill(reply, reply_hex);
    return result;
  }
};

// Stubs that note each call as text and answer with `answer`.
class NotingManager : public BnKIVManager {
 public:
  Status answer;
  std::string calls;
  sp<IBinder> callback;

  Status registerKIVClient(const KIVClientInfo& info, const sp<IKIVCallback>& cb,
                           KIVClientId* id) override {
    calls += "register " + info.clientName + " " + std::to_string(info.clientType) + " " +
             std::to_string(info.clientOption);
    callback = IInterface::asBinder(cb);
    id->token = "tok";
    id->clientId = 42;
    return answer;
  }
  Status checkForPendingSession(const std::string& token) override {
    calls += "check " + token;
    return answer;
  }
  Status deregisterKIVClient(const std::string& token) override {
    calls += "deregister " + token;
    return answer;
  }
  Status sendData(const std::vector<uint8_t>& data, const std::string& token,
                  bool* _aidl_return) override {
    calls += "send " + ToHex(data.data(), data.size()) + " " + token;
    *_aidl_return = true;
    return answer;
  }
};

class NotingCallback : public BnKIVCallback {
 public:
  Status answer;
  std::string calls;

  Status StartSession(const std::string& token, const KIVCampConfig& config,
                      int32_t* _aidl_return) override {
    calls += "start " + token + " " + std::to_string(config.campId) + " " +
             std::to_string(config.licInfo.size());
    *_aidl_return = -2;
    return answer;
  }
  Status StopSession(const std::string& token, int64_t campId) override {
    calls += "stop " + token + " " + std::to_string(campId);
    return answer;
  }
  Status StartSessionforLicSN(const std::string& token, int64_t campId, int64_t licSN) override {
    calls += "startLic " + token + " " + std::to_string(campId) + " " + std::to_string(licSN);
    return answer;
  }
  Status StopSessionforLicSN(const std::string& token, int64_t campId, int64_t licSN) override {
    calls += "stopLic " + token + " " + std::to_string(campId) + " " + std::to_string(licSN);
    return answer;
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
  // Calls through a proxy; the result, as text, goes to the second argument.
  std::function<Status(const sp<IBinder>&, std::string*)> call;
};

KIVCampConfig Config() {
  KIVCampConfig config;
  config.campId = 77;
  return config;
}

const Row kRows[] = {
    {"checkForPendingSession", true, 2, IBinder::FLAG_ONEWAY, kTok, "", "check tok",
     [](const sp<IBinder>& peer, std::string*) {
       return BpKIVManager(peer).checkForPendingSession("tok");
     }},
    {"deregisterKIVClient", true, 3, 0, kTok, "00000000", "deregister tok",
     [](const sp<IBinder>& peer, std::string*) {
       return BpKIVManager(peer).deregisterKIVClient("tok");
     }},
    {"sendData", true, 4, 0, "05000000 01020304 05000000" + kTok, "00000000 01000000",
     "send 0102030405 tok",
     [](const sp<IBinder>& peer, std::string* result) {
       bool done = false;
       const Status status = BpKIVManager(peer).sendData({1, 2, 3, 4, 5}, "tok", &done);
       *result = done ? "true" : "";
       return status;
     }},
    {"StartSession", false, 1, 0, kTok + "01000000 14000000 4d00000000000000 00000000 00000000",
     "00000000 feffffff", "start tok 77 0",
     [](const sp<IBinder>& peer, std::string* result) {
       int32_t number = 0;
       const Status status = BpKIVCallback(peer).StartSession("tok", Config(), &number);
       *result = number == 0 ? "" : std::to_string(number);
       return status;
     }},
    {"StopSession", false, 2, 0, kTok + "4d00000000000000", "00000000", "stop tok 77",
     [](const sp<IBinder>& peer, std::string*) {
       return BpKIVCallback(peer).StopSession("tok", 77);
     }},
    {"StartSessionforLicSN", false, 3, 0, kTok + "4d00000000000000 feffffffffffffff", "00000000",
     "startLic tok 77 -2",
     [](const sp<IBinder>& peer, std::string*) {
       return BpKIVCallback(peer).StartSessionforLicSN("tok", 77, -2);
     }},
    {"StopSessionforLicSN", false, 4, 0, kTok + "4d00000000000000 feffffffffffffff", "00000000",
     "stopLic tok 77 -2",
     [](const sp<IBinder>& peer, std::string*) {
       return BpKIVCallback(peer).StopSessionforLicSN("tok", 77, -2);
     }},
};

std::string Request(const Row& row) {
  return (row.manager ? kManagerToken : kCallbackToken) + row.arguments;
}

TEST(TransactionTest, ProxyWritesAndReadsGoldenBytes) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.name);
    const sp<ScriptedPeer> peer(new ScriptedPeer());
    peer->reply_hex = row.reply;
    std::string result;
    EXPECT_TRUE(row.call(peer, &result).isOk());
    EXPECT_EQ(peer->code, row.code);
    EXPECT_EQ(peer->flags & IBinder::FLAG_ONEWAY, row.flags);
    EXPECT_EQ(peer->request_hex, Compact(Request(row)));
    const std::string want = row.code == 4 && row.manager    ? "true"
                             : row.code == 1 && !row.manager ? "-2"
                                                             : "";
    EXPECT_EQ(result, want);
  }
}

TEST(TransactionTest, StubReadsAndWritesGoldenBytes) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.name);
    const sp<NotingManager> manager(new NotingManager());
    const sp<NotingCallback> callback(new NotingCallback());
    const sp<BBinder> stub = row.manager ? sp<BBinder>(manager) : sp<BBinder>(callback);
    Parcel request, reply;
    Fill(&request, Request(row));
    EXPECT_EQ(stub->transact(row.code, request, &reply, row.flags), OK);
    EXPECT_EQ(row.manager ? manager->calls : callback->calls, row.served);
    EXPECT_EQ(ToHex(reply), Compact(row.reply));
  }
}

TEST(TransactionTest, RegistrationCarriesTheCallback) {
  const sp<NotingCallback> callback(new NotingCallback());
  const sp<ScriptedPeer> peer(new ScriptedPeer());
  peer->reply_hex = "00000000 01000000 14000000" + kTok + "2a000000";
  KIVClientInfo info;
  info.clientName = "abc";
  info.clientType = 2;
  info.clientOption = -1;
  KIVClientId id;
  EXPECT_TRUE(BpKIVManager(peer).registerKIVClient(info, callback, &id).isOk());
  EXPECT_EQ(id.token, "tok");
  EXPECT_EQ(id.clientId, 42);
  EXPECT_EQ(peer->code, 1u);
  const std::string info_hex =
      Compact(kManagerToken + "01000000 18000000 03000000 61006200 63000000 02000000 ffffffff");
  EXPECT_EQ(peer->request_hex.substr(0, info_hex.size()), info_hex);
  // Then a local object: type, flags, two words of its own, its stability.
  EXPECT_EQ(peer->request_hex.size(), 2u * 96);
  EXPECT_EQ(peer->request_hex.substr(info_hex.size(), 8), "852a6273");

  const sp<NotingManager> manager(new NotingManager());
  EXPECT_TRUE(BpKIVManager(manager).registerKIVClient(info, callback, &id).isOk());
  EXPECT_EQ(manager->calls, "register abc 2 -1");
  EXPECT_EQ(manager->callback.get(), IInterface::asBinder(callback).get());
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

TEST(TransactionTest, TrailingBytesAreNamedInTheRefusal) {
  const sp<NotingManager> manager(new NotingManager());
  Parcel request, reply;
  Fill(&request, kManagerToken + kTok + "00000000");
  EXPECT_EQ(manager->transact(3, request, &reply), OK);
  Status status;
  ASSERT_EQ(status.readFromParcel(reply), OK);
  EXPECT_STREQ(status.exceptionMessage().c_str(), "Parcel data not fully consumed, unread size: 4");
}

TEST(TransactionTest, NullCallbackIsAnException) {
  const sp<NotingManager> manager(new NotingManager());
  KIVClientId id;
  const Status status = BpKIVManager(manager).registerKIVClient(KIVClientInfo(), nullptr, &id);
  EXPECT_EQ(status.exceptionCode(), Status::EX_NULL_POINTER);
  EXPECT_EQ(manager->calls, "");
}

TEST(TransactionTest, ExceptionsCarryNoResults) {
  const sp<NotingManager> manager(new NotingManager());
  manager->answer = Status::fromServiceSpecificError(7);
  bool done = false;
  const Status status = BpKIVManager(manager).sendData({}, "tok", &done);
  EXPECT_EQ(status.exceptionCode(), Status::EX_SERVICE_SPECIFIC);
  EXPECT_EQ(status.serviceSpecificErrorCode(), 7);
  EXPECT_FALSE(done);
}

TEST(TransactionTest, TransportErrorsBecomeTheStatus) {
  const sp<ScriptedPeer> peer(new ScriptedPeer());
  for (const status_t error : {android::DEAD_OBJECT, android::FAILED_TRANSACTION}) {
    peer->result = error;
    const Status status = BpKIVManager(peer).deregisterKIVClient("tok");
    EXPECT_EQ(status.exceptionCode(), Status::EX_TRANSACTION_FAILED);
    EXPECT_EQ(status.transactionError(), error);
  }
  peer->result = OK;
  peer->reply_hex = "";  // Not even a status.
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
  const sp<ScriptedPeer> peer(new ScriptedPeer());
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
  const sp<IKIVManager> proxy = IKIVManager::asInterface(sp<IBinder>(new ScriptedPeer()));
  ASSERT_NE(proxy, nullptr);
  EXPECT_TRUE(proxy->getInterfaceDescriptor() == String16("IKIVManager"));
}

}  // namespace
