// usage: bus_latency [CALLS]
//
// Question: what does the platform add to a 100-byte echo over the bus? Floor:
// the same echo with the bare binding, one thread on either side. Prints both
// in microseconds a call and their ratio. Not a test: machines differ.
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "tests/platform/test_object.h"
#include "tests/support/child_process.h"
#include "tests/support/private_bus.h"

namespace {

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
  fprintf(stderr, "bus_latency: %s failed\n", what);
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
  sd_bus_message* reply = nullptr;
  sd_bus_message_new_method_return(call, &reply);
  sd_bus_message_append_array(reply, 'y', data, bytes);
  sd_bus_send(nullptr, reply, nullptr);
  sd_bus_message_unref(reply);
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
    sd_bus_message* call = nullptr;
    sd_bus_message* reply = nullptr;
    sd_bus_message_new_method_call(bus, &call, "org.orb.test.bare", "/echo", "org.orb.test",
                                   "Echo");
    sd_bus_message_append_array(call, 'y', data, sizeof data);
    Check(sd_bus_call(bus, call, 0, nullptr, &reply) >= 0, "a bare call");
    sd_bus_message_unref(call);
    sd_bus_message_unref(reply);
  });
}

double MeasurePlatform(int calls) {
  const android::sp<android::IBinder> service =
      android::defaultServiceManager()->checkService(android::String16("echo"));
  Check(service != nullptr, "finding the service");
  const std::vector<uint8_t> bytes(kBytes);
  return MicrosPerCall(calls, [&] {
    android::Parcel data;
    android::Parcel reply;
    data.writeByteVector(bytes);
    Check(service->transact(orb::test::kEcho, data, &reply) == android::OK, "a call");
  });
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && strcmp(argv[1], "--serve-bare") == 0) return ServeBare();
  const int calls = argc > 1 ? atoi(argv[1]) : 20000;
  const orb::test::PrivateBus bus;
  bus.SetEnvironment();
  orb::test::ChildProcess bare({"/proc/self/exe", "--serve-bare"});
  orb::test::ChildProcess peer({PLATFORM_PEER, "echo"});
  Check(bare.ReadLine(std::chrono::seconds(20)) && peer.ReadLine(std::chrono::seconds(20)),
        "starting the peers");
  const double floor = MeasureBare(calls);
  const double without_pool = MeasurePlatform(calls);
  android::ProcessState::self()->startThreadPool();
  const double with_pool = MeasurePlatform(calls);
  printf("bare %.1f us, platform %.1f us (%.2fx), with a thread pool %.1f us (%.2fx)\n", floor,
         without_pool, without_pool / floor, with_pool, with_pool / floor);
  return 0;
}
