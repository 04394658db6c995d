// What both transports promise: the local one inside this process, and the bus with
// another process.
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <binder/Status.h>
#include <gtest/gtest.h>
#include <orb_platform/local_service_manager.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <future>
#include <memory>
#include <thread>

#include "tests/platform/test_object.h"
#include "tests/support/child_process.h"
#include "tests/support/private_bus.h"

namespace {

using android::IBinder;
using android::Parcel;
using android::sp;
using android::status_t;
using android::String16;
using orb::test::Appended;
using orb::test::Call;
using orb::test::Recipient;
using orb::test::TestObject;
using orb::test::WaitFor;

const char* const kName = "orb.test/default";

constexpr uint32_t kOneway = IBinder::FLAG_ONEWAY;

// Serves one object under kName.
class Transport {
 public:
  virtual ~Transport() = default;
  // Ends the object as its process's death would.
  virtual void Kill() = 0;
  // Serves a new object under the same name.
  virtual void Replace() = 0;
};

class LocalTransport : public Transport {
 public:
  LocalTransport() {
    android::setDefaultServiceManager(manager_);
    Replace();
  }
  ~LocalTransport() override { android::setDefaultServiceManager(nullptr); }
  void Kill() override { manager_->Kill(kName); }
  void Replace() override { ASSERT_EQ(manager_->addService(String16(kName), new TestObject()), 0); }

 private:
  const sp<orb_platform::LocalServiceManager> manager_{new orb_platform::LocalServiceManager()};
};

class BusTransport : public Transport {
 public:
  BusTransport() {
    bus_.SetEnvironment();
    peer_ = orb::test::ChildProcess({PLATFORM_PEER, kName});
    EXPECT_EQ(peer_.ReadLine(std::chrono::seconds(20)), "ready 0");
  }
  ~BusTransport() override { orb::test::EndBus(&bus_); }
  void Kill() override { peer_.Signal(SIGKILL); }
  void Replace() override {
    peer_.Send("again");
    EXPECT_EQ(peer_.ReadLine(std::chrono::seconds(20)), "again 0");
  }

 private:
  orb::test::PrivateBus bus_;
  orb::test::ChildProcess peer_;
};

class ContractTest : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    if (std::string(GetParam()) == "local") {
      transport_ = std::make_unique<LocalTransport>();
    } else {
      transport_ = std::make_unique<BusTransport>();
    }
    ASSERT_NE(android::ProcessState::self(), nullptr);
    android::ProcessState::self()->startThreadPool();
    service_ = Check();
    ASSERT_NE(service_, nullptr);
  }

  static sp<IBinder> Check() {
    return android::defaultServiceManager()->checkService(String16(kName));
  }
  status_t Echo(size_t bytes, uint32_t flags = 0) const {
    const std::vector<uint8_t> sent(bytes, uint8_t{42});
    const Call call(flags, service_, orb::test::kEcho, sent);
    std::vector<uint8_t> back;
    if (call.status == android::OK && flags == 0) {
      EXPECT_EQ(call.reply.readByteVector(&back), android::OK);
      EXPECT_EQ(back, sent);
    }
    return call.status;
  }

  std::unique_ptr<Transport> transport_;
  sp<IBinder> service_;
};

TEST_P(ContractTest, CallsReturnResultsAndStatuses) {
  EXPECT_EQ(Echo(100), android::OK);
  EXPECT_EQ(service_->pingBinder(), android::OK);
  EXPECT_EQ(service_->getInterfaceDescriptor(), String16("orb.test.Object"));
  EXPECT_NE(service_->remoteBinder(), nullptr);
  EXPECT_EQ(Call(service_, 999, 0).status, android::UNKNOWN_TRANSACTION);
  for (const status_t status : {android::BAD_TYPE, android::BAD_VALUE, android::UNEXPECTED_NULL}) {
    EXPECT_EQ(Call(service_, orb::test::kFail, status).status, status);
  }
  EXPECT_TRUE(service_->isBinderAlive());
}

TEST_P(ContractTest, LimitsAreThePlatforms) {
  EXPECT_EQ(Echo(600000), android::OK);
  EXPECT_EQ(Echo(2 << 20), android::FAILED_TRANSACTION);
  EXPECT_EQ(Echo(600000, kOneway), android::FAILED_TRANSACTION);
  EXPECT_EQ(Echo(500000, kOneway), android::OK);
  EXPECT_EQ(Call(service_, orb::test::kReplyBytes, 2 << 20).status, android::FAILED_TRANSACTION);
  EXPECT_TRUE(service_->isBinderAlive());
}

TEST_P(ContractTest, SameRemoteIsSameProxyUntilReplaced) {
  EXPECT_EQ(Check(), service_);
  transport_->Replace();
  const sp<IBinder> second = Check();
  ASSERT_NE(second, nullptr);
  EXPECT_NE(second, service_);
  // The first proxy still reaches the first object.
  EXPECT_EQ(Call(service_, orb::test::kAppend, 1).status, android::OK);
  EXPECT_EQ(Appended(service_), std::vector<int32_t>{1});
  service_ = second;
  EXPECT_TRUE(Appended(service_).empty());
}

TEST_P(ContractTest, BindersComeHomeAsThemselves) {
  const sp<IBinder> mine(new TestObject());
  for (const sp<IBinder>& sent : {mine, service_}) {
    ASSERT_EQ(Call(service_, orb::test::kStore, sent).status, android::OK);
    EXPECT_EQ(orb::test::Stored(service_), sent);
  }
  ASSERT_EQ(Call(service_, orb::test::kStore, sp<IBinder>()).status, android::OK);
  EXPECT_TRUE(WaitFor([&] { return mine->getStrongCount() == 1; }));
}

TEST_P(ContractTest, CallsNestInBothDirections) {
  // Deeper than the number of workers of either side.
  EXPECT_EQ(orb::test::Nest(service_, 80, new TestObject()), 80);
}

TEST_P(ContractTest, OnewayCallsKeepTheirOrderAndDropErrors) {
  std::vector<int32_t> want;
  for (int32_t i = 0; i < 500; i++) {
    want.push_back(i);
    ASSERT_EQ(Call(kOneway, service_, orb::test::kAppend, i).status, android::OK);
  }
  EXPECT_EQ(Call(kOneway, service_, 999, 0).status, android::OK);
  EXPECT_TRUE(WaitFor([&] { return Appended(service_).size() == want.size(); }));
  EXPECT_EQ(Appended(service_), want);
}

TEST_P(ContractTest, OnewayCallThatBlocksDoesNotHoldUpOthers) {
  ASSERT_EQ(Call(kOneway, service_, orb::test::kBlock, 0).status, android::OK);
  ASSERT_EQ(Call(kOneway, service_, orb::test::kAppend, 5).status, android::OK);
  EXPECT_EQ(Echo(10), android::OK);
  EXPECT_TRUE(Appended(service_).empty());
  ASSERT_EQ(Call(service_, orb::test::kUnblock, 0).status, android::OK);
  EXPECT_TRUE(WaitFor([&] { return Appended(service_) == std::vector<int32_t>{5}; }));
}

TEST_P(ContractTest, DescriptorsPassBothWays) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  ASSERT_EQ(write(ends[1], "there", 5), 5);
  close(ends[1]);
  const Call call(service_, orb::test::kDescriptor, orb::UniqueFd(ends[0]));
  std::string text;
  android::base::unique_fd from;
  ASSERT_EQ(call.reply.readUtf8FromUtf16(&text), android::OK);
  EXPECT_EQ(text, "there");
  ASSERT_EQ(call.reply.readUniqueFileDescriptor(&from), android::OK);
  EXPECT_EQ(orb::test::ReadAll(from.get()), "back");
}

TEST_P(ContractTest, DumpsGoToTheCallersDescriptor) {
  for (const std::vector<std::string>& words : {std::vector<std::string>{}, {"--x", "", "é"}}) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    android::Vector<String16> args;
    std::string want;
    for (const std::string& word : words) {
      args.add(String16(word.c_str()));
      want += '[' + word + ']';
    }
    EXPECT_EQ(service_->dump(ends[1], args), android::OK);
    EXPECT_EQ(fcntl(ends[1], F_GETFD) & ~FD_CLOEXEC, 0) << "still the caller's";
    close(ends[1]);
    EXPECT_EQ(orb::test::ReadAll(ends[0]), want) << "and nobody else holds it";
    close(ends[0]);
  }
}

TEST_P(ContractTest, DeathIsReportedOncePerLinkAndForEver) {
  const sp<Recipient> twice(new Recipient());
  const sp<Recipient> unlinked(new Recipient());
  EXPECT_EQ(service_->linkToDeath(twice), android::OK);
  EXPECT_EQ(service_->linkToDeath(twice), android::OK);
  EXPECT_EQ(service_->linkToDeath(unlinked), android::OK);
  EXPECT_EQ(service_->unlinkToDeath(unlinked), android::OK);
  EXPECT_EQ(service_->unlinkToDeath(unlinked), android::NAME_NOT_FOUND);
  EXPECT_EQ(service_->linkToDeath(new Recipient()), android::OK);  // Destroyed at once.
  transport_->Kill();
  ASSERT_TRUE(WaitFor([&] { return twice->count == 2; }));
  EXPECT_FALSE(twice->alive_when_told);
  EXPECT_NE(twice->on_thread.load(), std::this_thread::get_id());
  EXPECT_EQ(unlinked->count, 0);
  EXPECT_FALSE(service_->isBinderAlive());
  EXPECT_EQ(Echo(10), android::DEAD_OBJECT);
  EXPECT_EQ(service_->linkToDeath(twice), android::DEAD_OBJECT);
  EXPECT_EQ(service_->unlinkToDeath(twice), android::DEAD_OBJECT);
  EXPECT_TRUE(WaitFor([&] { return Check() == nullptr; }));
}

TEST_P(ContractTest, LinkToAnOwnerThatIsDeadAlreadyIsReported) {
  transport_->Kill();
  ASSERT_TRUE(WaitFor([&] { return Echo(1) == android::DEAD_OBJECT; }));
  const sp<Recipient> late(new Recipient());
  EXPECT_EQ(service_->linkToDeath(late), android::OK);
  EXPECT_TRUE(WaitFor([&] { return late->count == 1; }));
}

TEST_P(ContractTest, CallUnderWayEndsWithDeath) {
  if (std::string(GetParam()) == "local") GTEST_SKIP() << "its handler would have to return first";
  std::thread killer([&] {
    while (Appended(service_) != std::vector<int32_t>{1}) std::this_thread::yield();
    transport_->Kill();
  });
  ASSERT_EQ(Call(kOneway, service_, orb::test::kAppend, 1).status, android::OK);
  EXPECT_EQ(Call(service_, orb::test::kHang, 0).status, android::DEAD_OBJECT);
  killer.join();
  EXPECT_FALSE(service_->isBinderAlive());
}

TEST_P(ContractTest, NamesAreChecked) {
  const sp<android::IServiceManager> manager = android::defaultServiceManager();
  const sp<IBinder> object(new TestObject());
  using android::binder::Status;
  for (const std::string& bad : {std::string(), std::string("a b"), std::string(128, 'a')}) {
    EXPECT_EQ(manager->addService(String16(bad.c_str()), object), Status::EX_ILLEGAL_ARGUMENT);
    EXPECT_EQ(manager->checkService(String16(bad.c_str())), nullptr);
  }
  EXPECT_EQ(manager->addService(String16("x"), nullptr), Status::EX_NULL_POINTER);
  const std::string longest = std::string(63, '.') + std::string(64, '9');
  EXPECT_EQ(manager->addService(String16(longest.c_str()), object), 0);
  EXPECT_NE(manager->checkService(String16(longest.c_str())), nullptr);
  EXPECT_EQ(manager->checkService(String16("nobody")), nullptr);
  EXPECT_FALSE(manager->isDeclared(String16("nobody")));
  const android::Vector<String16> names = manager->listServices();
  EXPECT_NE(std::find(names.begin(), names.end(), String16(kName)), names.end());
}

TEST_P(ContractTest, ManyThreadsCallAtOnce) {
  std::vector<std::future<void>> threads;
  for (size_t t = 0; t < 8; t++) {
    threads.push_back(std::async(std::launch::async, [&, t] {
      for (size_t i = 0; i < 50; i++) EXPECT_EQ(Echo(10 + t * 700 * i), android::OK);
    }));
  }
}

INSTANTIATE_TEST_SUITE_P(Transports, ContractTest, testing::Values("local", "bus"),
                         [](const auto& info) { return std::string(info.param); });

}  // namespace
