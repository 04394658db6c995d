// What fails, and what may be lost by it.
#pragma once

#include <vector>

namespace orb::test {

class World;

// What holds in a scenario.
enum ScenarioTrait : unsigned {
  kLossless = 1,            // What was accepted must all be decoded.
  kSync = 2,                // The client registers synchronously.
  kSlots = 4,               // Slots instead of files; one owner.
  kOddHal = 8,              // tests/faults/odd_hal.cpp instead of orb-hald.
  kHalUnheard = 16,         // The HAL may have stored what the client counts as lost.
  kHalLies = 32,            // It confirms slots that it refuses, too.
  kClientDies = 64,         // Now and then, and sends what it left when it is back.
  kMounts = 128,            // Needs a mount namespace of its own.
  kTorn = 256,              // Uploads of phase 0 may hold half a record.
  kNumbersMayRepeat = 512,  // Of uploads: the client could not see its .seq file.
  kPair = 1024  // A second client in the process, with slots; the seed says who is synchronous.
};

struct Scenario {
  bool Is(ScenarioTrait what) const { return (traits & what) != 0; }

  const char* name;
  const char* does;
  // One fault and its end, or null for none: afterwards everything runs again.
  void (*inject)(World&);
  unsigned traits = 0;
  // Before the client starts, after its campaign has, and before the last, undisturbed phase.
  void (*prepare)(World&) = nullptr;
  void (*started)(World&) = nullptr;
  void (*finish)(World&) = nullptr;
};

const std::vector<Scenario>& Scenarios();

}  // namespace orb::test
