// usage: hal_peer     (a HAL in a process of its own, for the bus tests)
//
// Publishes a FakeHal and prints "ready 1". Then "last" prints the last upload
// as "NAME BYTES", and "slots" the number of announced slots. Ends with its input.
#include <android/binder_process.h>
#include <orb_platform/stop.h>

#include <cstdio>
#include <iostream>
#include <string>

#include "tests/support/fake_hal.h"

int main() {
  const auto hal = orb::test::FakeHal::Make();
  ABinderProcess_startThreadPool();
  printf("ready %d\n", hal->Publish());
  fflush(stdout);
  std::string line;
  while (std::getline(std::cin, line)) {
    if (line == "last") {
      const orb::test::FakeHal::Upload upload = hal->uploads().back();
      printf("%s %s\n", upload.name.c_str(),
             std::string(upload.bytes.begin(), upload.bytes.end()).c_str());
    }
    if (line == "slots") printf("%zu\n", hal->slots().size());
    fflush(stdout);
  }
  orb_platform::StopThreadPool();
  ABinderProcess_joinThreadPool();
  return 0;
}
