// A HAL that takes every slot and completes none, so that a test can kill it
// with slots pending. Answers "ready" on standard output once it can be found.
#include <android/binder_process.h>
#include <unistd.h>

#include <cstdio>

#include "tests/support/fake_hal.h"

int main() {
  ABinderProcess_startThreadPool();
  const auto hal = orb::test::FakeHal::Make();
  if (!hal->Publish()) return 1;
  puts("ready");
  fflush(stdout);
  while (true) pause();
}
