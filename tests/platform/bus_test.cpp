// Behaviour that needs a real bus: who keeps an object alive, identities of callers, lost
// buses, forks, and names.
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <binder/Status.h>
#include <gtest/gtest.h>
#include <orb_platform/look_up.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <utility>

#include "platform/linux/src/service_managers.h"
#include "tests/platform/test_object.h"
#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"
#include "tests/support/private_bus.h"
#include "tests/support/raw_peer.h"

namespace {

using android::IBinder;
using android::sp;
using android::String16;
using orb::test::Call;
using orb::test::ChildProcess;
using orb::test::Recipient;
using orb::test::Stored;
using orb::test::TestObject;
using orb::test::WaitFor;

class BusTest : public testing::Test {
 protected:
  BusTest() { bus_.SetEnvironment(); }
  ~BusTest() override { orb::test::EndBus(&bus_); }
  void SetUp() override {
    ASSERT_NE(android::ProcessState::self(), nullptr);
    android::ProcessState::self()->startThreadPool();
  }

  static std::unique_ptr<ChildProcess> Peer(const char* name, const char* want = "ready 0") {
    auto peer = std::make_unique<ChildProcess>(std::vector<std::string>{PLATFORM_PEER, name});
    EXPECT_EQ(peer->ReadLine(std::chrono::seconds(20)), std::string(want));
    return peer;
  }
  static sp<IBinder> Check(const char* name) {
    return android::defaultServiceManager()->checkService(String16(name));
  }
  static std::string Ask(ChildProcess* peer, const char* line) {
    peer->Send(line);
    return peer->ReadLine(std::chrono::seconds(20)).value_or("nothing");
  }

  // The bus lets nobody call the service "denied".
  orb::test::PrivateBus bus_{
      "<policy context=\"mandatory\"><deny send_destination=\"org.orb.service.denied\"/></policy>"};
};

TEST_F(BusTest, PeerKeepsAnObjectUntilItDies) {
  const auto peer = Peer("one");
  const sp<IBinder> service = Check("one");
  ASSERT_NE(service, nullptr);
  Call(service, orb::test::kStore, sp<IBinder>(new TestObject()));
  EXPECT_EQ(Stored(service)->pingBinder(), android::OK);
  EXPECT_EQ(TestObject::Alive(), 1);
  peer->Signal(SIGKILL);
  EXPECT_TRUE(WaitFor([] { return TestObject::Alive() == 0; }));
}

// Voluntary context switches of all threads of a process.
uint64_t Sleeps(pid_t pid) {
  const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
  uint64_t sum = 0;
  for (const auto& task : std::filesystem::directory_iterator(tasks)) {
    const std::string status = orb::test::ReadFileOrEmpty(task.path() / "status");
    const std::string key = "\nvoluntary_ctxt_switches:";
    sum += strtoull(status.c_str() + status.find(key) + key.size(), nullptr, 10);
  }
  return sum;
}

// A client has two peers, and a thousand other processes may come and go.
TEST_F(BusTest, StrangersDoNotWakeAClient) {
  const auto peer = Peer("one");
  Call(Check("one"), orb::test::kStore, sp<IBinder>(new TestObject()));
  uint64_t before = 0;
  ASSERT_TRUE(WaitFor([&] {
    const uint64_t last = std::exchange(before, Sleeps(peer->pid()));
    return last == before;
  }));
  constexpr int kStrangers = 50;  // Each of them comes and goes.
  for (int i = 0; i < kStrangers; i++) {
    EXPECT_TRUE(orb::test::RawPeer(bus_.address(), "one").Connected());
  }
  EXPECT_EQ(Ask(peer.get(), "alive"), "alive 1");
  EXPECT_LT(Sleeps(peer->pid()) - before, static_cast<uint64_t>(kStrangers));
}

TEST_F(BusTest, ReplacedServiceGoesWithItsLastProxy) {
  const auto peer = Peer("one");
  const auto taker = Peer("taker");
  sp<IBinder> first = Check("one");
  Call(Check("taker"), orb::test::kStore, first);
  EXPECT_EQ(Stored(Check("taker")), first);
  EXPECT_EQ(orb::test::Nest(Check("taker"), 4, first), 4)
      << "taker calls one, which calls taker back";
  EXPECT_EQ(Ask(peer.get(), "again"), "again 0");
  first = nullptr;
  EXPECT_EQ(Stored(Check("taker"))->pingBinder(), android::OK) << "the taker holds it by itself";
  EXPECT_EQ(Ask(peer.get(), "alive"), "alive 2");
  Call(Check("taker"), orb::test::kStore, sp<IBinder>());
  EXPECT_TRUE(WaitFor([&] { return Ask(peer.get(), "alive") == "alive 1"; }));
}

TEST_F(BusTest, CallerIsWhoTheBusSays) {
  const auto peer = Peer("one");
  const Call call(Check("one"), orb::test::kCaller);
  EXPECT_EQ(call.reply.readInt32(), getpid());
  EXPECT_EQ(static_cast<uid_t>(call.reply.readInt32()), getuid());
  EXPECT_EQ(android::IPCThreadState::self()->getCallingPid(), getpid());
}

TEST_F(BusTest, TellsWhyALookUpFoundNothing) {
  const orb::LogCapture log;
  const auto denied = Peer("denied");
  EXPECT_EQ(Check("denied"), nullptr);
  EXPECT_EQ(orb_platform::LastLookUp(), android::PERMISSION_DENIED);
  EXPECT_TRUE(log.Contains("the bus does not let user " + std::to_string(geteuid()) +
                           " call denied - add the user to the group orb-client"));
  EXPECT_EQ(Check("nobody"), nullptr);
  EXPECT_EQ(orb_platform::LastLookUp(), android::NAME_NOT_FOUND);
  const auto peer = Peer("one");
  EXPECT_NE(Check("one"), nullptr);
  EXPECT_EQ(orb_platform::LastLookUp(), android::OK);
}

TEST_F(BusTest, StoppedOwnerDoesNotHangTheLookup) {
  const auto peer = Peer("one");
  peer->Signal(SIGSTOP);
  const std::string stat = "/proc/" + std::to_string(peer->pid()) + "/stat";
  ASSERT_TRUE(
      WaitFor([&] { return orb::test::ReadFileOrEmpty(stat).find(") T ") != std::string::npos; }));
  EXPECT_EQ(Check("one"), nullptr);
  EXPECT_EQ(orb_platform::LastLookUp(), android::TIMED_OUT);
  peer->Signal(SIGCONT);
  EXPECT_TRUE(WaitFor([] { return Check("one") != nullptr; }));
}

TEST_F(BusTest, LostBusKillsEveryRemoteAndComesBack) {
  auto peer = Peer("one");
  const sp<IBinder> service = Check("one");
  const sp<Recipient> recipient(new Recipient());
  ASSERT_EQ(service->linkToDeath(recipient), android::OK);
  Call(service, orb::test::kStore, sp<IBinder>(new TestObject()));
  bus_.Kill();
  EXPECT_TRUE(WaitFor([&] { return recipient->count == 1; }));
  EXPECT_FALSE(service->isBinderAlive());
  EXPECT_EQ(Check("one"), nullptr);
  EXPECT_EQ(orb_platform::LastLookUp(), android::NO_INIT);
  EXPECT_EQ(android::ProcessState::self(), nullptr);
  EXPECT_EQ(android::defaultServiceManager()->addService(String16("x"), new TestObject()),
            android::binder::Status::EX_TRANSACTION_FAILED);
  EXPECT_TRUE(WaitFor([] { return TestObject::Alive() == 0; }));
  bus_.Start();
  EXPECT_NE(android::ProcessState::self(), nullptr);
  EXPECT_EQ(Ask(peer.get(), "again"), "again 0");
  const sp<IBinder> second = Check("one");
  ASSERT_NE(second, nullptr);
  EXPECT_NE(second, service);
  EXPECT_EQ(second->pingBinder(), android::OK);
  EXPECT_EQ(service->pingBinder(), android::DEAD_OBJECT);
  EXPECT_EQ(recipient->count, 1);
}

// Reads the links, because the thread sanitizer counts a call on the descriptor as its use.
int OpenSockets() {
  int count = 0;
  for (int fd = 0; fd < 1024; ++fd) {
    char target[16] = {};
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t length = readlink(link.c_str(), target, sizeof target - 1);
    if (length > 0 && strncmp(target, "socket:", 7) == 0) ++count;
  }
  return count;
}

// A child that kept it would hide the parent's death from the peers.
TEST_F(BusTest, AForkedChildDoesNotKeepTheConnection) {
  const int sockets = OpenSockets();
  const pid_t child = fork();
  if (child == 0) _exit(OpenSockets());
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(WEXITSTATUS(status), sockets - 1);
  EXPECT_EQ(Check("nobody"), nullptr);
  EXPECT_EQ(OpenSockets(), sockets) << "the parent still has it";
}

TEST(ServiceNameTest, MapsToABusNameAndBack) {
  const std::pair<const char*, const char*> kCases[] = {
      {"vendor_kivsdkservice", "org.orb.service.vendor_5fkivsdkservice"},
      {"a.b/c-d9", "org.orb.service.a_2eb_2fc_2dd9"},
      {"9", "org.orb.service._39"},
  };
  for (const auto& [service, bus_name] : kCases) {
    EXPECT_EQ(orb_platform::BusNameOf(service), bus_name);
    EXPECT_EQ(orb_platform::ServiceOf(bus_name), service);
  }
  const std::string dots(127, '.');
  EXPECT_EQ(orb_platform::BusNameOf(dots).size(), 255u);
  EXPECT_NE(orb_platform::BusNameOf(dots), orb_platform::BusNameOf(std::string(126, '.') + "-"));
  EXPECT_EQ(orb_platform::ServiceOf("org.freedesktop.DBus"), "");
  EXPECT_EQ(orb_platform::ServiceOf("org.orb.service.a_zz"), "");
}

}  // namespace
