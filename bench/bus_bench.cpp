// usage: orb_bus_bench [CALLS [ROUNDS]]
//
// Question: what does the platform add to a call over the bus? Floor: a
// 100-byte echo with the bare binding, one thread on either side. Everything
// shares one core, because a wake on another one costs more than the call.
// Prints one JSON object: medians over the rounds in microseconds a hop.
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <fcntl.h>
#include <sched.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <vector>

#include "platform/linux/src/bus_message.h"
#include "tests/platform/test_object.h"
#include "tests/support/child_process.h"
#include "tests/support/private_bus.h"

namespace {

using orb_platform::BusMessage;

constexpr size_t kBytes = 100;

double MicrosPerCall(int calls, const std::function<void()>& call) {
  for (int i = 0; i < calls / 10; i++) call();
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < calls; i++) call();
  const std::chrono::duration<double, std::micro> spent = std::chrono::steady_clock::now() - start;
  return spent.count() / calls;
}

void Check(bool ok, const char* what) {
  if (ok) return;
  fprintf(stderr, "orb_bus_bench: %s failed\n", what);
  exit(1);
}

sd_bus* Open() {
  sd_bus* bus = nullptr;
  Check(sd_bus_new(&bus) >= 0 && sd_bus_set_address(bus, getenv("ORB_BUS_ADDRESS")) >= 0 &&
            sd_bus_set_bus_client(bus, 1) >= 0 && sd_bus_start(bus) >= 0,
        "connecting");
  return bus;
}

int OnEcho(sd_bus_message* call, void*, sd_bus_error*) {
  const void* data = nullptr;
  size_t bytes = 0;
  sd_bus_message_read_array(call, 'y', &data, &bytes);
  BusMessage reply;
  sd_bus_message_new_method_return(call, reply.out());
  sd_bus_message_append_array(reply.get(), 'y', data, bytes);
  sd_bus_send(nullptr, reply.get(), nullptr);
  return 1;
}

int ServeBare() {
  sd_bus* const bus = Open();
  sd_bus_add_object(bus, nullptr, "/echo", OnEcho, nullptr);
  Check(sd_bus_request_name(bus, "org.orb.test.bare", 0) >= 0, "taking the name");
  printf("ready\n");
  fflush(stdout);
  while (sd_bus_is_open(bus) > 0) {
    if (sd_bus_process(bus, nullptr) == 0) sd_bus_wait(bus, UINT64_MAX);
  }
  return 0;
}

double MeasureBare(int calls) {
  sd_bus* const bus = Open();
  const uint8_t data[kBytes] = {};
  return MicrosPerCall(calls, [&] {
    BusMessage call;
    BusMessage reply;
    sd_bus_message_new_method_call(bus, call.out(), "org.orb.test.bare", "/echo", "org.orb.test",
                                   "Echo");
    sd_bus_message_append_array(call.get(), 'y', data, sizeof data);
    Check(sd_bus_call(bus, call.get(), 0, nullptr, reply.out()) >= 0, "a bare call");
  });
}

android::sp<android::IBinder> Service() {
  const android::sp<android::IBinder> service =
      android::defaultServiceManager()->checkService(android::String16("echo"));
  Check(service != nullptr, "finding the service");
  return service;
}

double MeasureEcho(int calls) {
  const android::sp<android::IBinder> service = Service();
  const std::vector<uint8_t> bytes(kBytes);
  return MicrosPerCall(calls, [&] {
    android::Parcel data;
    android::Parcel reply;
    data.writeByteVector(bytes);
    Check(service->transact(orb::test::kEcho, data, &reply) == android::OK, "a call");
  });
}

// The service calls back before it answers: two hops. It holds the callback
// from before, as a manager holds its clients'.
double MeasureNested(int calls) {
  const android::sp<android::IBinder> service = Service();
  const android::sp<android::IBinder> back(new orb::test::TestObject);
  {
    android::Parcel data;
    android::Parcel reply;
    data.writeStrongBinder(back);
    Check(service->transact(orb::test::kStore, data, &reply) == android::OK, "keeping a callback");
  }
  return MicrosPerCall(calls,
                       [&] {
                         android::Parcel data;
                         android::Parcel reply;
                         data.writeInt32(1);
                         data.writeStrongBinder(back);
                         Check(service->transact(orb::test::kNest, data, &reply) == android::OK,
                               "a nested call");
                       }) /
         2;
}

double MeasureDescriptor(int calls) {
  const android::sp<android::IBinder> service = Service();
  const orb::UniqueFd null(open("/dev/null", O_RDONLY | O_CLOEXEC));
  return MicrosPerCall(calls, [&] {
    android::Parcel data;
    android::Parcel reply;
    data.writeDupFileDescriptor(null.get());
    Check(service->transact(orb::test::kTake, data, &reply) == android::OK, "a descriptor");
  });
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && strcmp(argv[1], "--serve-bare") == 0) return ServeBare();
  const int calls = argc > 1 ? atoi(argv[1]) : 500;
  const int rounds = argc > 2 ? atoi(argv[2]) : 41;
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(0, &one);
  sched_setaffinity(0, sizeof one, &one);  // The bus and both peers inherit it.

  const orb::test::PrivateBus bus;
  bus.SetEnvironment();
  orb::test::ChildProcess bare({"/proc/self/exe", "--serve-bare"});
  orb::test::ChildProcess peer({PLATFORM_PEER, "echo"});
  Check(bare.ReadLine(std::chrono::seconds(20)) && peer.ReadLine(std::chrono::seconds(20)),
        "starting the peers");
  android::ProcessState::self()->startThreadPool();
  const struct {
    const char* name;
    double (*measure)(int calls);
  } kKinds[] = {{"bare", MeasureBare},
                {"echo", MeasureEcho},
                {"nested", MeasureNested},
                {"descriptor", MeasureDescriptor}};
  std::vector<double> figures[std::size(kKinds)];
  for (int round = 0; round < rounds; ++round) {
    for (size_t i = 0; i < std::size(kKinds); ++i) figures[i].push_back(kKinds[i].measure(calls));
  }
  for (size_t i = 0; i < std::size(kKinds); ++i) {
    printf("%s\"%s\": %.2f", i == 0 ? "{" : ", ", kKinds[i].name, Median(figures[i]));
  }
  printf("}\n");
  return 0;
}
