// usage: platform_peer NAME     (the other process of the bus tests)
//
// Serves a TestObject under NAME and prints "ready CODE". Then it reads commands, one a
// line: "again" serves a new object under NAME and prints "again CODE", "alive" prints
// "alive" and the number of objects. It ends when its input ends.
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <orb_platform/stop.h>

#include <cstdio>
#include <iostream>
#include <string>

#include "tests/platform/test_object.h"

namespace {

using android::IBinder;
using android::sp;
using android::String16;

int Serve(const std::string& name, const sp<IBinder>& object) {
  return android::defaultServiceManager()->addService(String16(name.c_str()), object);
}

void Print(const char* word, int value) {
  printf("%s %d\n", word, value);
  fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  if (android::ProcessState::self() == nullptr) return 3;
  android::ProcessState::self()->startThreadPool();
  sp<IBinder> object(new orb::test::TestObject());
  Print("ready", Serve(argv[1], object));
  std::string line;
  while (std::getline(std::cin, line)) {
    if (line == "again") {
      object = new orb::test::TestObject();
      Print("again", Serve(argv[1], object));
    }
    if (line == "alive") Print("alive", orb::test::TestObject::Alive());
  }
  orb_platform::StopThreadPool();
  android::IPCThreadState::self()->joinThreadPool();
  return 0;
}
