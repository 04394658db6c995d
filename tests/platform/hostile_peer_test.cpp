// A member of the bus may send whatever it likes: this process keeps its connection, its
// memory and the calls of others.
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>
#include <orb_platform/liveness.h>
#include <signal.h>
#include <sys/resource.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/src/bus_names.h"
#include "platform/linux/src/call_budget.h"
#include "platform/linux/src/fair_queue.h"
#include "platform/linux/src/parcel_access.h"
#include "tests/platform/test_object.h"
#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"
#include "tests/support/private_bus.h"
#include "tests/support/raw_peer.h"
#include "tests/support/wait_for.h"
#include "utility/unique_fd.h"

namespace {

using android::sp;
using android::String16;
using orb::test::Appended;
using orb::test::Call;
using orb::test::TestObject;
using orb::test::WaitFor;
using orb_platform::BusMessage;
using orb_platform::CallBudget;
using orb_platform::kRootPath;

constexpr char kService[] = "org.orb.service.target";
constexpr size_t kFloodBytes = 400 << 10;  // Of one call.

class RawPeer : public orb::test::RawPeer {
 public:
  explicit RawPeer(const orb::test::PrivateBus& bus) : orb::test::RawPeer(bus.address(), kService) {
    EXPECT_TRUE(Connected());
  }
  // A transaction whose data are zeros.
  BusMessage NewCall(uint64_t id, uint32_t code, size_t bytes = 0, size_t objects = 0,
                     uint8_t kind = 0, const std::string& owner = "") {
    BusMessage call = Transaction(id, code, bytes);
    AppendObjects(call, objects, kind, owner);
    return call;
  }
};

class HostilePeerTest : public testing::Test {
 protected:
  // Each connection of a test plays a client of another user, so the bus must allow many.
  HostilePeerTest() : bus_("<limit name=\"max_connections_per_user\">2000</limit>") {
    bus_.SetEnvironment();
  }
  ~HostilePeerTest() override { orb::test::EndBus(&bus_); }
  void SetUp() override {
    ASSERT_NE(android::ProcessState::self(), nullptr);
    android::ProcessState::self()->startThreadPool();
    ASSERT_EQ(android::defaultServiceManager()->addService(String16("target"), target_), 0);
  }

  orb::test::PrivateBus bus_;
  const sp<android::IBinder> target_{new TestObject()};
};

TEST_F(HostilePeerTest, IsAnsweredWithAnError) {
  RawPeer peer(bus_);
  const uint64_t id = peer.Lookup();
  ASSERT_NE(id, 0u);
  const auto retain = [&](const char* holder) {
    BusMessage call = peer.Call(kRootPath, "Retain");
    sd_bus_message_append(call.get(), "ts", id, holder);
    return call;
  };
  const auto parcel = [&](size_t bytes, size_t objects, uint8_t kind, const std::string& owner) {
    return peer.NewCall(id, orb::test::kAppended, bytes, objects, kind, owner);
  };
  const struct {
    const char* name;
    BusMessage call;
    const char* error;
  } kCases[] = {
      {"a holder that ends the match rule", retain("x'"), orb_platform::kErrorNoObject},
      {"a holder with another's name", retain(kService), orb_platform::kErrorNoObject},
      {"an owner that is no name", parcel(24, 1, 1, "x'"), SD_BUS_ERROR_INVALID_ARGS},
      {"an owner of a megabyte", parcel(24, 1, 1, std::string(1 << 20, ':')),
       SD_BUS_ERROR_INVALID_ARGS},
      {"more objects than the data has room for", parcel(24, 2, 0, ""), SD_BUS_ERROR_INVALID_ARGS},
      {"a body of another type", peer.Transaction(id, 1, 0), SD_BUS_ERROR_INVALID_ARGS},
      {"4 MiB", parcel(4 << 20, 0, 0, ""), SD_BUS_ERROR_INVALID_ARGS},
      {"what fits", parcel(1 << 19, 0, 0, ""), ""},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(peer.Ask(c.call), c.error);
    EXPECT_EQ(peer.Lookup(), id) << "the service is where it was";
  }
}

TEST(ConnectionTest, SaysOnceWhyThereIsNone) {
  orb::LogCapture log;
  setenv("ORB_BUS_ADDRESS", "unix:path=/nowhere", 1);
  EXPECT_EQ(android::ProcessState::self(), nullptr);
  EXPECT_EQ(android::ProcessState::self(), nullptr);
  EXPECT_EQ(log.Count("no connection to the bus at unix:path=/nowhere: No such file"), 1u);
  // A bus that allows one connection, which the raw peer has.
  orb::test::PrivateBus full("<limit name=\"max_connections_per_user\">1</limit>");
  const RawPeer only(full);
  full.SetEnvironment();
  EXPECT_EQ(android::ProcessState::self(), nullptr);
  EXPECT_EQ(log.Count("may have no place left for this user's connections"), 1u) << log.Dump();
}

// The daemon refuses calls to a service whose queue others have filled.
TEST(FullQueueTest, AnHonestCallWaits) {
  orb::test::PrivateBus bus("<limit name=\"max_outgoing_bytes\">100000</limit>");
  bus.SetEnvironment();
  ASSERT_NE(android::ProcessState::self(), nullptr);
  orb::test::ChildProcess service({PLATFORM_PEER, "target"});
  ASSERT_EQ(service.ReadLine(std::chrono::seconds(20)), "ready 0");
  const sp<android::IBinder> target =
      android::defaultServiceManager()->checkService(String16("target"));
  ASSERT_NE(target, nullptr);
  RawPeer flooder(bus);
  const uint64_t id = flooder.Lookup();
  service.Signal(SIGSTOP);
  for (int i = 0; i < 4; i++) {  // The first lie in the socket's buffer.
    BusMessage flood = flooder.Transaction(id, 2, 300000);
    RawPeer::AppendObjects(flood, 0, 0, "");
    flooder.SendOneway(flood);
  }
  BusMessage refused = flooder.Transaction(id, 2, 10);
  RawPeer::AppendObjects(refused, 0, 0, "");
  ASSERT_EQ(flooder.Ask(refused), SD_BUS_ERROR_LIMITS_EXCEEDED);
  std::atomic<int> status{1};
  std::thread caller([&] { status = target->pingBinder(); });
  EXPECT_FALSE(orb::test::WaitFor([&] { return status != 1; }, std::chrono::milliseconds(100)));
  service.Signal(SIGCONT);
  caller.join();
  EXPECT_EQ(status, 0);
  service.CloseInput();
  orb::test::EndBus(&bus);
}

// The bus allows a connection 512 match rules.
TEST_F(HostilePeerTest, MoreThanTheBusHasRulesFor) {
  std::vector<std::unique_ptr<RawPeer>> peers;
  while (peers.size() < 600) {
    peers.push_back(std::make_unique<RawPeer>(bus_));
    ASSERT_NE(peers.back()->Lookup(), 0u) << peers.size();
  }
  peers.clear();
  EXPECT_NE(RawPeer(bus_).Lookup(), 0u);
}

TEST_F(HostilePeerTest, FloodsOnlyItsOwnShare) {
  RawPeer flood(bus_);
  RawPeer other(bus_);
  const uint64_t id = flood.Lookup();
  ASSERT_EQ(other.Lookup(), id);
  // The first call blocks the object's one-way queue, so that the others pile up.
  flood.SendOneway(flood.NewCall(id, orb::test::kBlock));
  for (int i = 0; i < 100; i++)
    flood.SendOneway(flood.NewCall(id, orb::test::kAppend, kFloodBytes));
  const auto ask = [id](RawPeer* peer, uint32_t code, size_t bytes = kFloodBytes) {
    return peer->Ask(peer->NewCall(id, code, bytes));
  };
  EXPECT_EQ(ask(&flood, orb::test::kEcho), SD_BUS_ERROR_LIMITS_EXCEEDED);
  EXPECT_EQ(ask(&other, orb::test::kCaller), "");
  EXPECT_EQ(ask(&other, orb::test::kUnblock, 0), "");
  EXPECT_TRUE(WaitFor([&] { return ask(&flood, orb::test::kCaller).empty(); }));
  EXPECT_TRUE(WaitFor([&] { return !Appended(target_).empty(); }));
  EXPECT_LE(Appended(target_).size(), CallBudget::kMostBytesOfOne / kFloodBytes);
}

// A watchdog must notice that no worker is left, although the reader thread answers.
TEST_F(HostilePeerTest, APingIsServedWhenAWorkerIsFree) {
  RawPeer peer(bus_);
  const uint64_t id = peer.Lookup();
  const auto is_served = [before = orb_platform::CallsServed()] {
    return orb_platform::CallsServed() != before;
  };
  const size_t workers = android::ProcessState::self()->getThreadPoolMaxThreadCount();
  for (size_t i = 0; i < workers; i++) peer.Send(peer.NewCall(id, orb::test::kBlock));
  EXPECT_EQ(peer.Lookup(), id);
  EXPECT_TRUE(orb_platform::PingOwnService());
  EXPECT_EQ(peer.Lookup(), id);
  EXPECT_FALSE(is_served());
  Call(target_, orb::test::kUnblock);
  EXPECT_TRUE(WaitFor(is_served));
}

// The process may open few descriptors and uses a quarter of them for other things.
class FewDescriptorsTest : public HostilePeerTest {
 protected:
  FewDescriptorsTest() {
    const rlimit limit{kFiles, kFiles};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    for (size_t i = 0; i < kFiles / 4; i++) used_.emplace_back(dup(STDIN_FILENO));
  }
  static constexpr size_t kFiles = 256;
  std::vector<orb::UniqueFd> used_;
};

// The binding cannot go on after a message whose descriptors the process has no room for.
TEST_F(FewDescriptorsTest, AreNotUsedUpByCalls) {
  constexpr size_t kOfAMessage = 16;  // The limit of a stock bus.
  RawPeer other(bus_);
  const uint64_t id = other.Lookup();
  std::vector<std::unique_ptr<RawPeer>> peers;
  for (size_t i = 0; i * kOfAMessage < kFiles; i++) {
    if (i % 3 == 0) peers.push_back(std::make_unique<RawPeer>(bus_));
    const BusMessage message = peers.back()->Transaction(
        id, orb::test::kBlock, kOfAMessage * orb_platform::kFlatObjectBytes);
    sd_bus_message* const call = message.get();
    sd_bus_message_open_container(call, 'a', "(uyst)");
    for (size_t n = 0; n < kOfAMessage; n++) {
      sd_bus_message_append(call, "(uyst)",
                            static_cast<uint32_t>(n * orb_platform::kFlatObjectBytes), uint8_t{3},
                            "", uint64_t{n});
    }
    sd_bus_message_close_container(call);
    sd_bus_message_open_container(call, 'a', "h");
    for (size_t n = 0; n < kOfAMessage; n++) sd_bus_message_append(call, "h", 0);
    sd_bus_message_close_container(call);
    peers.back()->Send(message);
    EXPECT_EQ(other.Lookup(), id) << i;
  }
  peers.clear();
  EXPECT_EQ(other.Ask(other.NewCall(id, orb::test::kUnblock)), "");
}

TEST(FairQueueTest, TakesTurns) {
  orb_platform::FairQueue<std::string> queue;
  std::string order;
  const auto pop = [&](size_t count) {
    for (size_t i = 0; i < count; i++) order += queue.Pop().value_or("-") + " ";
  };
  for (const char* item : {"a1", "a2", "a3", "a4", "b1", "c1", "b2"}) {
    queue.Push(std::string(1, *item), item);
  }
  pop(4);
  queue.Push("c", "c2");
  queue.Push("d", "d1");
  pop(6);
  EXPECT_EQ(order, "a1 b1 c1 a2 b2 a3 c2 d1 a4 - ");
}

TEST(CallBudgetTest, KeepsToEachBound) {
  constexpr size_t kMost = 160;  // Descriptors in total, of which 20 are reserved.
  struct Step {
    const char* sender;
    CallBudget::Cost cost;
    bool granted;
  };
  const CallBudget::Cost big{CallBudget::kMostBytesOfOne, 0};
  const CallBudget::Cost many{0, CallBudget::kMostDescriptorsOfOne};
  const std::vector<std::vector<Step>> kCases = {
      {{"a", big, true}, {"a", {1, 0}, false}, {"b", {1, 0}, true}},
      {{"a", many, true},
       {"a", {0, 1}, false},
       {"b", many, true},
       {"c", {0, 13}, false},
       {"c", {0, 12}, true},
       {"d", {0, 8}, true},
       {"e", {0, 9}, false}},
      {{"a", big, true},
       {"b", big, true},
       {"c", big, true},
       {"d", big, true},
       {"e", big, true},
       {"f", big, true},
       {"g", big, true},
       {"h", {CallBudget::kLittleBytes + 1, 0}, false},
       {"h", {CallBudget::kLittleBytes, 0}, true}},
  };
  for (size_t i = 0; i < kCases.size(); i++) {
    SCOPED_TRACE(i);
    CallBudget budget(kMost);
    for (const Step& step : kCases[i]) {
      EXPECT_EQ(budget.Take(step.sender, step.cost), step.granted) << step.sender;
    }
    for (const Step& step : kCases[i]) {
      if (step.granted) budget.Give(step.sender, step.cost);
    }
    EXPECT_EQ(budget.held().bytes + budget.held().descriptors, 0u);
    EXPECT_TRUE(budget.Take("a", big));
  }
}

}  // namespace
