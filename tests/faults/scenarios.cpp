#include "tests/faults/scenarios.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <thread>

#include "tests/faults/world.h"

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
  world.KillHal(SIGKILL);
  world.Pause(300);
  world.StartHal();
}

void KillBoth(World& world) {
  world.KillManager();
  world.KillHal(SIGKILL);
  world.Pause(300);
  world.StartManager();
  world.StartHal();
  RecoverMostly(world);
}

// One or both, and what comes back first is chance.
void KillEither(World& world) {
  const bool manager = world.Random(3) != 0;
  const bool hal = !manager || world.Random(2) == 0;
  if (manager) world.KillManager();
  world.Pause(100);
  if (hal) world.KillHal(SIGKILL);
  world.Pause(300);
  const bool hal_first = world.Random(2) == 0;
  if (hal && hal_first) world.StartHal();
  if (manager) world.StartManager();
  if (hal && !hal_first) world.StartHal();
  world.ExpectProgress();
  RecoverMostly(world);
}

// The clean end of the service, as for an update.
void RestartHal(World& world) {
  world.KillHal(SIGTERM);
  world.StartHal();
}

void RestartBus(World& world) {
  world.RestartBus();
  world.ExpectProgress();
  RecoverMostly(world);
}

void SlowHal(World& world) {
  world.Mood("slow");
  world.Pause(600);
  world.ExpectProgress();
  world.Mood("well");
}

void WrongHal(World& world) {
  world.Mood("wrong");
  world.Pause(600);
  world.Mood("well");
}

// It comes to its senses, or it is put out of its misery.
void SilentHal(World& world) {
  const bool dies = world.Random(2) == 0;
  world.Mood("never");
  world.Pause(600);
  world.ExpectProgress();
  if (dies) {
    KillHal(world);
  } else {
    world.Mood("well");
  }
}

// A HAL that stands still and returns; every slot call waits for it.
void StopAndContinueHal(World& world) {
  world.hal().Signal(SIGSTOP);
  world.Pause(300);
  world.hal().Signal(SIGCONT);
}

// The region was announced to the HAL of before: a new session announces it again.
void RestartHalBetweenSessions(World& world) {
  RestartHal(world);
  world.StopCampaign();
  world.StartCampaign();
}

void KillHalWithSlots(World& world) {
  KillHal(world);
  world.StopCampaign();
  world.StartCampaign();
}

void RegisterAgainAndAgain(World& world) {
  std::istringstream answer(world.Ask("rounds 23"));
  int failed = 0;
  int64_t grown = 0;
  answer >> failed >> grown;
  world.Expect(failed == 0, "a registration failed");
  // What the first ones leave is kept once; some scatter remains.
  if (world.heap_rounds > 0) world.heap_grown += grown;
  world.heap_rounds += 20;
  world.Expect(world.heap_grown <= 4096 + 40 * world.heap_rounds,
               std::to_string(world.heap_rounds) + " registrations left " +
                   std::to_string(world.heap_grown) + " bytes");
}

// Whatever a file gives up meanwhile is taken, too. Some sessions end in it, so that there
// are uploads, and numbers for them; others go on behind half a record.
void FillData(World& world) {
  std::atomic<bool> full{true};
  std::thread filler([&] {
    for (; full; std::this_thread::sleep_for(std::chrono::microseconds(200))) {
      world.Fill(world.data_dir(), true);
    }
    world.Fill(world.data_dir(), false);
  });
  world.Pause(600);
  if (world.Random(2) == 0) {
    full = false;
    world.Pause(300);
  }
  world.StopCampaign();
  full = false;
  filler.join();
  world.StartCampaign();
}

void FillSpool(World& world) {
  world.Fill(world.stack().spool(), true);
  world.Pause(400);
  world.Fill(world.stack().spool(), false);
}

// An owner whose file cannot be made stays without one until the next session.
void TakeDataAway(World& world) {
  const std::string there = world.stack().path("data");
  const std::string away = world.stack().path("away");
  rename(there.c_str(), away.c_str());
  world.Pause(300);
  rename(away.c_str(), there.c_str());
  world.StopCampaign();
  world.StartCampaign();
}

void ReplaceClient(World& world, int code) {
  world.Expect(world.client().Wait(std::chrono::seconds(60)) == code, "the client does not end");
  world.StartClient();
  world.ReleaseCampaign();
  world.Expect(world.WaitForCampaign(), "the campaign is not back");
  world.Ask("load");
}

void ExitClient(World& world) {
  world.client().Send("exit");
  ReplaceClient(world, 0);
}

void KillClient(World& world) {
  world.client().Signal(SIGKILL);
  ReplaceClient(world, 128 + SIGKILL);
}

void StepClock(World& world) {
  const int64_t reach = world.Random(2) == 0 ? 3600 : 30 * 86400;
  const int64_t offset_s = static_cast<int64_t>(world.Random(2 * reach)) - reach;
  const int fd = open(world.stack().path("clock").c_str(), O_WRONLY | O_CLOEXEC);
  world.Expect(pwrite(fd, &offset_s, sizeof offset_s, 0) == sizeof offset_s, "no clock");
  close(fd);
}

void PrepareClock(World& world) {
  WriteFile(world.stack().path("clock"), std::string(sizeof(int64_t), '\0'));
  world.client_environment()["ORB_CLOCK"] = world.stack().path("clock");
  world.client_environment()["LD_PRELOAD"] = ORB_STEPPING_CLOCK;
}

// Threads are alive on purpose.
void PrepareExit(World& world) {
  const char* options = getenv("TSAN_OPTIONS");
  world.client_environment()["TSAN_OPTIONS"] =
      std::string(options != nullptr ? options : "") + ":report_thread_leaks=0";
}

void PrepareData(World& world) {
  world.MountDisk(world.data_dir());
  world.stack().MakeDataDir("data");
  // Numbers repeat as long as there is no file of them and no room for one.
  WriteFile(world.data_dir() + "load.seq", "0\n");
}

void PrepareSpool(World& world) { world.MountDisk(world.stack().spool()); }

void StartForks(World& world) { world.Ask("forks on"); }

void FinishForks(World& world) {
  std::istringstream answer(world.Ask("forks off"));
  int run = 0;
  int failed = -1;
  answer >> run >> failed;
  world.Expect(run > 0 && failed == 0, std::to_string(failed) + " of " + std::to_string(run) +
                                           " programs were handed a descriptor");
}

}  // namespace

const std::vector<Scenario>& Scenarios() {
  static const std::vector<Scenario> all = {
      {"calm", "nothing fails", nullptr, kLossless},
      {"manager-kill", "the manager is killed", KillManager, kLossless},
      {"manager-kill-sync", "the same, to a client that registers synchronously", KillManager,
       kLossless | kSync},
      {"hal-kill", "the HAL is killed", KillHal, kHalUnheard},
      {"both-kill", "manager and HAL are killed", KillBoth, kHalUnheard},
      {"hal-restart", "the HAL is ended and started", RestartHal},
      {"bus-restart", "the bus daemon is killed", RestartBus, kHalUnheard},
      {"hal-slow", "the HAL takes 200 ms a call", SlowHal, kLossless | kOddHal},
      {"hal-wrong", "the HAL fails, refuses and lies", WrongHal, kOddHal | kHalUnheard},
      {"hal-silent", "the HAL does not answer, until it does or is killed", SilentHal,
       kOddHal | kHalUnheard},
      {"rounds", "the client registers and de-registers", RegisterAgainAndAgain, kLossless},
      {"client-kill", "the client is killed", KillClient, kClientDies},
      {"client-exit", "the client calls exit() with all its threads alive", ExitClient, kClientDies,
       PrepareExit},
      {"client-forks", "the client forks and executes programs; the manager is killed", KillManager,
       kLossless, nullptr, StartForks, FinishForks},
      {"clock", "the wall clock steps, up to a month", StepClock, kLossless, PrepareClock},
      {"data-away", "the data directory is moved away and back", TakeDataAway, kNumbersMayRepeat},
      {"data-full", "the client's disk is full", FillData, kMounts | kTorn, PrepareData},
      {"spool-full", "the HAL's disk is full", FillSpool, kMounts, PrepareSpool},
      {"slots-manager-kill", "slots; the manager is killed", KillManager, kLossless | kSlots},
      {"slots-hal-stop", "slots; the HAL stands still and goes on", StopAndContinueHal,
       kLossless | kSlots},
      {"slots-hal-wrong", "slots; the HAL fails, refuses and lies", WrongHal,
       kSlots | kOddHal | kHalUnheard | kHalLies},
      {"slots-hal-restart", "slots; the HAL is ended and started, then the campaign",
       RestartHalBetweenSessions, kSlots},
      {"slots-hal-kill", "slots; the HAL is killed, then the campaign is started again",
       KillHalWithSlots, kSlots | kHalUnheard},
      {"pair-either-kill",
       "a client with files and one with slots; manager, HAL or both are killed", KillEither,
       kPair | kHalUnheard},
  };
  return all;
}

}  // namespace orb::test
