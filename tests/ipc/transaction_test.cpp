// Both halves of the two interfaces against the same golden bytes: the proxy
// writes the request and reads the reply, the stub the other way round.
#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <binder/Status.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "ipc/BpKIVCallback.h"
#include "ipc/BpKIVManager.h"
#include "tests/ipc/fake_manager.h"
#include "tests/support/fake_client.h"
#include "tests/support/parcel_hex.h"

using android::BBinder;
using android::IBinder;
using android::OK;
using android::Parcel;
using android::sp;
using android::status_t;
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

const std::string kTokenHead = "00000080 ffffffff 54535953";
const std::string kManagerToken =
    kTokenHead + "0b000000 49004b00 49005600 4d006100 6e006100 67006500 72000000";
const std::string kCallbackToken =
    kTokenHead + "0c000000 49004b00 49005600 43006100 6c006c00 62006100 63006b00 00000000";
const std::string kTok = "03000000 74006f00 6b000000";

KIVCampConfig Campaign() {
  KIVCampConfig config;
  config.campId = 77;
  config.campaignDef = {10, 11, 12};
  config.licInfo.resize(2);
  config.licInfo[0].licSN = 0x0102030405060708;
  config.licInfo[0].sKeyEncAlgo = 2;
  config.licInfo[0].pKeyEncAlgo = 1;
  config.licInfo[0].encryptionPKey = {'P', 'E', 'M', '\n', '!'};
  config.licInfo[1].licSN = -1;
  return config;
}

struct Row {
  bool manager;  // Else the callback interface.
  uint32_t code;
  uint32_t flags;
  std::string arguments;  // Behind the interface token.
  std::string reply;
  const char* served;  // What the stub notes.
  // Calls through a proxy; the result, if there is one, goes to the number.
  std::function<Status(const sp<IBinder>&, int32_t*)> call;
  int32_t result = 0;
};

const Row kRows[] = {
    {true, 2, IBinder::FLAG_ONEWAY, kTok, "", "check tok",
     [](auto& peer, auto*) { return BpKIVManager(peer).checkForPendingSession("tok"); }},
    {true, 3, 0, kTok, "00000000", "deregister tok",
     [](auto& peer, auto*) { return BpKIVManager(peer).deregisterKIVClient("tok"); }},
    {true, 4, 0, "05000000 61626364 65000000" + kTok, "00000000 01000000", "send abcde tok",
     [](auto& peer, auto* result) {
       bool done = false;
       const Status status = BpKIVManager(peer).sendData({'a', 'b', 'c', 'd', 'e'}, "tok", &done);
       *result = done;
       return status;
     },
     1},
    {false, 1, 0,
     kTok + "01000000 58000000 4d00000000000000 03000000 0a0b0c00 02000000"
            "01000000 20000000 0807060504030201 02000000 01000000 05000000 50454d0a21000000"
            "01000000 18000000 ffffffffffffffff 00000000 00000000 00000000",
     "00000000 feffffff", "start tok 77",
     [](auto& peer, auto* result) {
       return BpKIVCallback(peer).StartSession("tok", Campaign(), result);
     },
     -2},
    {false, 2, 0, kTok + "4d00000000000000", "00000000", "stop tok 77",
     [](auto& peer, auto*) { return BpKIVCallback(peer).StopSession("tok", 77); }},
    {false, 3, 0, kTok + "4d00000000000000 feffffffffffffff", "00000000", "lic-start tok 77 -2",
     [](auto& peer, auto*) { return BpKIVCallback(peer).StartSessionforLicSN("tok", 77, -2); }},
    {false, 4, 0, kTok + "4d00000000000000 feffffffffffffff", "00000000", "lic-stop tok 77 -2",
     [](auto& peer, auto*) { return BpKIVCallback(peer).StopSessionforLicSN("tok", 77, -2); }},
};

// The stubs of both interfaces.
struct Stubs {
  Stubs() {
    callback->OnStart([] { return -2; });
  }
  sp<BBinder> Of(bool of_manager) const {
    return of_manager ? sp<BBinder>(manager) : sp<BBinder>(callback);
  }
  // The calls that they served, one after the other.
  std::string Served() const {
    std::string served;
    for (const std::string& call : manager->Calls()) served += call;
    for (const std::string& call : callback->Calls()) served += call;
    return served;
  }
  const sp<orb::test::FakeManager> manager{new orb::test::FakeManager()};
  const sp<orb::test::FakeClient> callback{new orb::test::FakeClient()};
};

TEST(TransactionTest, BothHalvesSpeakGoldenBytes) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.served);
    const Stubs stubs;
    const sp<Tap> tap(new Tap(stubs.Of(row.manager)));
    int32_t result = 0;
    EXPECT_TRUE(row.call(tap, &result).isOk());
    EXPECT_EQ(tap->code, row.code);
    EXPECT_EQ(tap->flags & IBinder::FLAG_ONEWAY, row.flags);
    EXPECT_EQ(tap->request_hex,
              Compact((row.manager ? kManagerToken : kCallbackToken) + row.arguments));
    EXPECT_EQ(stubs.Served(), row.served);
    EXPECT_TRUE(result != -2 || stubs.callback->Started() == Campaign());
    EXPECT_EQ(tap->reply_hex, Compact(row.reply));
    EXPECT_EQ(result, row.result);
  }
}

TEST(TransactionTest, RegistrationCarriesTheCallback) {
  const Stubs stubs;
  const sp<Tap> tap(new Tap(stubs.manager));
  KIVClientInfo info;
  info.clientName = "\xc3\xa9\xf0\x9f\x98\x80";  // Two and four bytes of UTF-8.
  info.clientType = 2;
  info.clientOption = -1;
  KIVClientId id;
  EXPECT_TRUE(BpKIVManager(tap).registerKIVClient(info, stubs.callback, &id).isOk());
  EXPECT_EQ(id.token, "token-1");
  EXPECT_EQ(id.clientId, 41);
  EXPECT_EQ(tap->code, 1u);
  EXPECT_EQ(stubs.Served(), "register " + info.clientName + " 2 -1");
  EXPECT_EQ(stubs.manager->Callback(), stubs.callback);
  EXPECT_EQ(tap->reply_hex, Compact("00000000 01000000 1c000000"
                                    "07000000 74006f006b0065006e002d0031000000 29000000"));
  // Behind the record a local object: type, flags, two words of its own, its stability.
  const std::string info_hex =
      Compact(kManagerToken + "01000000 18000000 03000000 e9003dd8 00de0000 02000000 ffffffff");
  EXPECT_EQ(tap->request_hex.size(), 2u * 96);
  EXPECT_EQ(tap->request_hex.substr(0, info_hex.size() + 8), info_hex + "852a6273");
}

struct BadRequest {
  const char* name;
  bool manager;
  uint32_t code;
  std::string request;
  // The transaction's status, or the exception in the reply.
  const char* want;
};

const char kLeftOver[] =
    "Status(-2, EX_BAD_PARCELABLE): 'Parcel data not fully consumed, unread size: 4'";
const char kNull[] = "Status(-4, EX_NULL_POINTER): ''";
const BadRequest kBadRequests[] = {
    {"token of the other interface", true, 3, kCallbackToken + kTok, "BAD_TYPE"},
    {"no token", true, 3, "", "BAD_TYPE"},
    {"code 5", true, 5, kManagerToken + kTok, "UNKNOWN_TRANSACTION"},
    {"bytes behind the arguments", true, 3, kManagerToken + kTok + "00000000", kLeftOver},
    {"bytes behind a one-way call", true, 2, kManagerToken + kTok + "00000000", kLeftOver},
    {"null string", true, 3, kManagerToken + "ffffffff", kNull},
    {"null parcelable", false, 1, kCallbackToken + kTok + "00000000", kNull},
    {"argument missing", false, 4, kCallbackToken + kTok + "4d00000000000000", "NOT_ENOUGH_DATA"},
};

TEST(TransactionTest, StubRefusesWhatItCannotRead) {
  for (const BadRequest& c : kBadRequests) {
    SCOPED_TRACE(c.name);
    Parcel request;
    Parcel reply;
    Fill(&request, c.request);
    const Stubs stubs;
    const status_t transaction = stubs.Of(c.manager)->transact(c.code, request, &reply);
    Status status;
    if (transaction == OK) {
      EXPECT_EQ(status.readFromParcel(reply), OK);
    }
    EXPECT_STREQ(transaction == OK ? status.toString8().c_str()
                                   : android::statusToString(transaction).c_str(),
                 c.want);
    EXPECT_EQ(stubs.Served(), "");
  }
  const Stubs stubs;
  KIVClientId id;
  const Status status =
      BpKIVManager(stubs.manager).registerKIVClient(KIVClientInfo(), nullptr, &id);
  EXPECT_EQ(status.exceptionCode(), Status::EX_NULL_POINTER);
  EXPECT_EQ(stubs.Served(), "") << "registered without a callback";
}

TEST(TransactionTest, TransportErrorsBecomeTheStatus) {
  const sp<Tap> peer(new Tap());  // Answers with not even a status.
  EXPECT_EQ(BpKIVManager(peer).deregisterKIVClient("tok").transactionError(),
            android::NOT_ENOUGH_DATA);
  peer->result = android::DEAD_OBJECT;
  EXPECT_EQ(BpKIVManager(peer).deregisterKIVClient("tok").transactionError(), android::DEAD_OBJECT);
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
  EXPECT_FALSE(IKIVManager::setDefaultImpl(nullptr));
  EXPECT_TRUE(IKIVManager::setDefaultImpl(sp<IKIVManager>(new OldManagerHelp())));
  EXPECT_FALSE(IKIVManager::setDefaultImpl(sp<IKIVManager>(new IKIVManagerDefault())));
  EXPECT_TRUE(proxy.sendData({1, 2, 3}, "tok", &done).isOk());
  EXPECT_TRUE(done);
  EXPECT_EQ(proxy.deregisterKIVClient("tok").transactionError(), android::UNKNOWN_TRANSACTION);
}

}  // namespace
