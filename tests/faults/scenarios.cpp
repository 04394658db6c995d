#include "tests/faults/scenarios.h"

#include <signal.h>

namespace orb::test {
namespace {

// Most faults find a system that has recovered, some one that is at it.
void RecoverMostly(World& world) {
  if (world.Random(4) != 0) world.WaitForCampaign();
}

void KillManager(World& world) {
  world.KillManager();
  world.Pause(300);
  world.StartManager();
  RecoverMostly(world);
}

void KillHal(World& world) {
  world.BeginOutage();
  world.KillHal(SIGKILL);
  world.Pause(300);
  world.StartHal();
  world.EndOutage();
}

void KillBoth(World& world) {
  world.BeginOutage();
  world.KillManager();
  world.KillHal(SIGKILL);
  world.Pause(300);
  world.StartManager();
  world.StartHal();
  world.EndOutage();
  RecoverMostly(world);
}

}  // namespace

const std::vector<Scenario>& Scenarios() {
  static const std::vector<Scenario> all = {
      {.name = "calm", .does = "nothing fails", .lossless = true},
      {.name = "manager-kill",
       .does = "the manager is killed",
       .inject = KillManager,
       .lossless = true},
      {.name = "manager-kill-sync",
       .does = "the same, to a client that registers synchronously",
       .inject = KillManager,
       .lossless = true,
       .sync = true},
      {.name = "hal-kill", .does = "the HAL is killed", .inject = KillHal},
      {.name = "both-kill", .does = "manager and HAL are killed", .inject = KillBoth},
  };
  return all;
}

}  // namespace orb::test
