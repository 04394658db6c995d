// Tested by tests/orbctl/sim_test.cpp.
#include "tools/orbctl/sim/library_host.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>

#include "tools/orbctl/sim/sim_clock.h"
#include "utility/files.h"

namespace orb::orbctl {
namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr long kBlockBytes = 4096;

uint64_t Milliseconds(SimClock::Time time) {
  return static_cast<uint64_t>(duration_cast<milliseconds>(time).count());
}

size_t WriteToFullDisk(const void* bytes, size_t size, size_t count, FILE* file) {
  const long position = std::max(ftell(file), 0L);
  const auto room = static_cast<size_t>((kBlockBytes - position % kBlockBytes) % kBlockBytes);
  const size_t fits = std::min(size * count, room);
  const size_t written = fits == 0 ? 0 : fwrite(bytes, 1, fits, file);
  if (written < size * count) errno = ENOSPC;
  return written / size;
}

}  // namespace

Clock::Functions TrialTime() {
  Clock::Functions time;
  time.steady = [] { return SimClock::Get().Steady(); };
  time.wall_seconds = [] {
    return int64_t{duration_cast<seconds>(SimClock::Get().Wall()).count()};
  };
  time.wall_ms = [] { return Milliseconds(SimClock::Get().Wall()); };
  time.uptime_ms = [] { return Milliseconds(SimClock::Get().Uptime()); };
  time.wait = [](seconds duration, const Clock::Ended& ended) {
    SimClock::Get().Sleep(SimClock::Sleeper::kRegistration, duration, ended);
  };
  time.wake = [] { SimClock::Get().WakeAll(); };
  return time;
}

void FillDisk(bool full) {
  Files::Functions files;
  if (full) files.write = &WriteToFullDisk;
  Files::Use(files);
}

}  // namespace orb::orbctl
