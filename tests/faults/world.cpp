#include "tests/faults/world.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <filesystem>

#include "ledger/loss_cause.h"
#include "tests/faults/load_campaign.h"

namespace orb::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// Longer than anything takes that is not stuck, sanitizers included.
constexpr seconds kPatience(90);
constexpr size_t kCountsBytes = kLoadClientsMax * sizeof(LoadCounts);
constexpr char kRoom[] = "size=1g";
constexpr const char* kReports[] = {"Sanitizer", "runtime error:", "terminate called", "Assertion"};

size_t DescriptorsOf(pid_t pid) {
  std::error_code error;
  const std::filesystem::directory_iterator fds("/proc/" + std::to_string(pid) + "/fd", error);
  return static_cast<size_t>(std::distance(begin(fds), end(fds)));
}

}  // namespace

World::World(const Scenario& scenario, uint64_t seed) : scenario_(scenario), random_(seed) {}

World::~World() {
  client_.Signal(SIGKILL);
  stack_.hal().Signal(SIGKILL);
  for (const std::string& folder : mounts_) umount2(folder.c_str(), MNT_DETACH);
  if (counts_ != nullptr) munmap(counts_, kCountsBytes);
}

void World::Expect(bool holds, const std::string& what) {
  if (!holds) Fail(what);
}

void World::Pause(int max_ms) {
  std::this_thread::sleep_for(milliseconds(1 + Random(static_cast<uint64_t>(max_ms))));
}

bool World::WaitForLine(const std::string& log, const std::string& text, size_t before) {
  const bool there = WaitFor([&] { return stack_.CountInLog(log, text) > before; }, kPatience);
  Expect(there, log + " does not say: " + text);
  return there;
}

void World::StartManager() {
  const size_t before = stack_.CountInLog("orb-managerd", "is published");
  stack_.StartManager();
  WaitForLine("orb-managerd", "is published", before);
}

void World::StartHal() {
  if (scenario_.Is(kOddHal)) {
    odd_hal_ = stack_.StartProgram({ORB_ODD_HAL, stack_.spool()}, "odd-hal");
    Expect(odd_hal_.ReadLine(kPatience) == "ready", "the HAL does not start");
    return;
  }
  const size_t before = stack_.CountInLog("orb-hald", "is published");
  stack_.StartHal();
  WaitForLine("orb-hald", "is published", before);
}

void World::KillManager() {
  stack_.manager().Signal(SIGKILL);
  stack_.manager().Wait(kPatience);
}

void World::KillHal(int signal) {
  hal().Signal(signal);
  const int code = hal().Wait(kPatience);
  Expect(code == (signal == SIGKILL ? 128 + SIGKILL : 0),
         "the HAL ended with " + std::to_string(code));
}

void World::RestartBus() {
  const size_t manager = stack_.CountInLog("orb-managerd", "is published");
  const size_t hal = stack_.CountInLog("orb-hald", "is published");
  stack_.bus().Kill();
  Pause(300);
  stack_.bus().Start();
  WaitForLine("orb-managerd", "is published", manager);
  WaitForLine("orb-hald", "is published", hal);
}

void World::Mood(const std::string& word) { Expect(odd_hal_.Send(word), "the HAL is gone"); }

uint64_t World::Member::Logged() const {
  uint64_t logged = 0;
  for (const auto& phase : counts->kpis) {
    for (const LoadCount& count : phase) logged += count.offered;
  }
  return logged;
}

void World::ExpectProgress() {
  for (const Member& member : members_) {
    const uint64_t before = member.Logged();
    const bool on = WaitFor([&] { return member.Logged() > before + 1000; }, kPatience);
    Expect(on, "the threads of " + member.name + " hang");
    if (!on) DumpStacks(&client_, "client");
  }
}

// With room for any run: it must be full only when a scenario wants it to be. The file keeps
// it from being empty, because a size of 0 means no limit.
void World::MountDisk(const std::string& folder) {
  mkdir(folder.c_str(), 0755);
  const bool mounted = mount("tmpfs", folder.c_str(), "tmpfs", 0, kRoom) == 0;
  Expect(mounted && WriteFile(folder + "/taken", "x"), "no disk at " + folder);
  if (mounted) mounts_.push_back(folder);
}

// Shrinks it to what lies on it, which may become more meanwhile; or gives it room again.
void World::Fill(const std::string& folder, bool full) {
  const auto resize = [&](const std::string& size) {
    return mount("tmpfs", folder.c_str(), "tmpfs", MS_REMOUNT, size.c_str()) == 0;
  };
  const auto taken = [&] {
    struct statvfs disk {};
    statvfs(folder.c_str(), &disk);
    return "size=" + std::to_string((disk.f_blocks - disk.f_bfree) * disk.f_frsize);
  };
  Expect(full ? WaitFor([&] { return resize(taken()); }) : resize(kRoom), "the disk is fixed");
}

bool World::CampaignStops(milliseconds patience) {
  return std::all_of(members_.begin(), members_.end(),
                     [&](const Member& member) { return Stops(member, patience); });
}

bool World::Stops(const Member& member, milliseconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  do {
    const CommandResult stop = RunCommand({ORB_CTL, "campaign", "stop", member.name},
                                          {{"ORB_BUS_ADDRESS", stack_.bus().address()}}, patience);
    if (stop.exit_code == 0) return true;
    // The manager waits for half a minute only, then the campaign counts as stopped.
    if (stop.err.find("no campaign runs") != std::string::npos) {
      return WaitFor([&] { return IsIdle(member); }, patience);
    }
  } while (std::chrono::steady_clock::now() < deadline);
  return false;
}

bool World::IsIdle(const Member& member) {
  const CommandResult dump = stack_.Ctl({"client", "dump", member.name});
  return DumpLines(dump.out).Value("session.state") == "idle";
}

void World::ExpectRunning() {
  Expect(stack_.manager().Running(), "the manager ended");
  Expect(hal().Running(), "the HAL ended");
  Expect(client_.Running(), "the client ended");
}

void World::DumpStacks(ChildProcess* process, const std::string& who) {
  const CommandResult stacks = RunCommand(
      {"gdb", "-p", std::to_string(process->pid()), "-batch", "-ex", "thread apply all backtrace"});
  WriteFile(stack_.path("stacks-" + who + ".log"), stacks.out + stacks.err);
}

std::string World::Ask(const std::string& command) {
  const auto answer =
      client_.Send(command) ? client_.ReadLine(kPatience) : std::optional<std::string>();
  if (answer.has_value()) return *answer;
  Fail("the client does not answer: " + command);
  if (client_.Running()) DumpStacks(&client_, "client");
  return "gone";
}

void World::StartClient() {
  std::vector<std::string> argv = {ORB_LOAD_CLIENT, stack_.path("counts")};
  for (const Member& member : members_) {
    argv.insert(argv.end(),
                {member.name, member.data_dir, member.rules.Is(kSlots) ? "slots" : "files",
                 member.sync ? "sync" : "async"});
  }
  client_ = stack_.StartProgram(argv, "client", client_environment_);
  Expect(client_.ReadLine(kPatience) == "ready", "the client does not start");
  for (const Member& member : members_) {
    Expect(stack_.WaitRegistered(member.name), member.name + " is not registered");
  }
}

void World::StopCampaign() { Expect(CampaignStops(2 * kPatience), "the campaign does not stop"); }

void World::StartCampaign() {
  for (const Member& member : members_) {
    std::vector<uint64_t> owners = {kFirstOwner};
    if (!member.rules.Is(kSlots)) owners.push_back(kSecondOwner);
    Expect(stack_.StartCampaign(member.name, stack_.path(member.campaign_file()), owners,
                                kFirstCampaign + phase_),
           member.name + " does not take its campaign");
  }
}

void World::ReleaseCampaign() {
  for (const Member& member : members_) {
    // Refused while it is in none, which is right, too.
    RunCommand({ORB_CTL, "campaign", "release", member.name},
               {{"ORB_BUS_ADDRESS", stack_.bus().address()}}, kPatience);
  }
}

bool World::WaitForCampaign() {
  return WaitFor(
      [this] {
        const std::string enabled = Ask("enabled");
        if (enabled != "gone") std::this_thread::sleep_for(milliseconds(20));
        return enabled != "0";
      },
      kPatience);
}

void World::WriteCampaign(const Member& member) {
  WriteFile(stack_.path(member.campaign_file()),
            LoadCampaign(!member.rules.Is(kSlots), member.rules.Is(kTorn)));
}

void World::AddMember(const std::string& name, bool slots) {
  Member member{scenario_, name, scenario_.Is(kSync), {}, counts_ + members_.size(), {}, {}};
  if (slots) member.rules.traits |= kSlots;
  if (scenario_.Is(kPair)) member.sync = Random(2) == 0;
  member.data_dir = stack_.MakeDataDir(members_.empty() ? "data" : "data-" + name);
  WriteCampaign(member);
  members_.push_back(std::move(member));
}

void World::Start() {
  const std::string counts = stack_.path("counts");
  WriteFile(counts, std::string(kCountsBytes, '\0'));
  const int fd = open(counts.c_str(), O_RDWR | O_CLOEXEC);
  counts_ = static_cast<LoadCounts*>(
      mmap(nullptr, kCountsBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
  close(fd);
  AddMember("load", scenario_.Is(kSlots));
  if (scenario_.Is(kPair)) AddMember("region", true);
  if (scenario_.prepare != nullptr) scenario_.prepare(*this);
  StartManager();
  StartHal();
  for (ChildProcess* service : {&stack_.manager(), &hal()}) {
    service_descriptors_[service->pid()] = DescriptorsOf(service->pid());
  }
  StartClient();
  first_state_ = Ask("state");
  StartCampaign();
  Ask("load");
  if (scenario_.started != nullptr) scenario_.started(*this);
}

void World::Run(milliseconds duration) {
  Start();
  const auto end = std::chrono::steady_clock::now() + duration;
  while (failures_.empty() && std::chrono::steady_clock::now() < end) {
    Pause(400);
    if (scenario_.inject == nullptr) continue;
    scenario_.inject(*this);
    ++faults_;
    ExpectRunning();
  }
  if (scenario_.finish != nullptr && failures_.empty()) scenario_.finish(*this);
  if (failures_.empty()) Recover();
  if (failures_.empty()) End();
  if (failures_.empty()) Check();
  CheckLogs();
}

// A new campaign, undisturbed, of which nothing may be missing.
void World::Recover() {
  for (const Member& member : members_) {
    Expect(stack_.WaitRegistered(member.name), member.name + " has not registered again");
  }
  Expect(WaitForCampaign(), "the client has not got its campaign back");
  StopCampaign();
  phase_ = 1;
  Ask("phase 1");
  StartCampaign();
  Ask("load");
  ExpectProgress();
}

void World::End() {
  StopCampaign();
  Ask("calm");
  for (Member& member : members_) member.books = stack_.Ctl({"client", "dump", member.name}).out;
  Expect(Ask("end") == "0", "de-registration failed");
  const std::string last_state = Ask("state");
  Expect(last_state == first_state_, "left over: " + first_state_ + " became " + last_state);
  client_.CloseInput();
  const int code = client_.Wait(kPatience);
  Expect(code == 0, "the client ended with " + std::to_string(code));
  for (ChildProcess* service : {&stack_.manager(), &hal()}) {
    const auto before = service_descriptors_.find(service->pid());
    if (before == service_descriptors_.end()) continue;
    // The HAL drops the queue of a client that was cut off when the next one brings its own.
    const size_t most = before->second + (service == &hal() ? 1 : 0);
    const bool same = WaitFor([&] { return DescriptorsOf(service->pid()) <= most; });
    Expect(same, "a service keeps " + std::to_string(DescriptorsOf(service->pid())) +
                     " descriptors, it had " + std::to_string(before->second));
  }
  Expect(stack_.manager().Stop() == 0, "the manager does not end cleanly");
  odd_hal_.CloseInput();
  stack_.hal().Signal(SIGTERM);
  Expect(hal().Wait(kPatience) == 0, "the HAL does not end cleanly");
}

void World::Check() {
  const CommandResult decoded = stack_.Ctl({"decode", stack_.spool(), "--format", "json"});
  Expect(decoded.exit_code == 0 || scenario_.Is(kTorn),
         "not everything can be decoded: " + decoded.err);
  for (Member& member : members_) {
    const std::string next = ReadFileOrEmpty(member.data_dir + member.name + ".seq");
    member.report =
        CheckSpool({member.rules, member.name, *member.counts, stack_.spool(), decoded.out,
                    DumpLines(member.books), strtoull(next.c_str(), nullptr, 10), faults_,
                    stack_.CountInLog("orb-hald", "spool full: removed ")});
    for (const std::string& failure : member.report.failures) Fail(member.name + ": " + failure);
  }
}

void World::CheckLogs() {
  for (const std::string& name : ListFiles(stack_.path("."))) {
    if (!name.ends_with(".log") || name.starts_with("stacks")) continue;
    const std::string log = ReadFileOrEmpty(stack_.path(name));
    for (const char* report : kReports) {
      const size_t at = log.find(report);
      if (at != std::string::npos) Fail(name + ": " + log.substr(at, 2000));
    }
  }
}

std::string World::Keep() {
  // Several runs of a scenario, also at once, keep what they have apart.
  std::string folder;
  for (int run = 1; folder.empty() || mkdir(folder.c_str(), 0755) != 0; ++run) {
    if (!folder.empty() && errno != EEXIST) break;
    folder = std::string("soak-") + scenario_.name + (run == 1 ? "" : "." + std::to_string(run));
  }
  std::error_code error;
  std::filesystem::copy(stack_.path("."), folder, std::filesystem::copy_options::recursive, error);
  return folder;
}

std::string World::Summary() const {
  std::string summary = std::to_string(faults_) + " faults";
  const std::string owner = "owner." + std::to_string(kFirstOwner);
  for (const Member& member : members_) {
    const DumpLines books(member.books);
    char text[256];
    snprintf(text, sizeof text,
             "; %s (%s, %s): %" PRIu64 " uploads, %" PRIu64 " missing, %" PRIu64
             " records, %" PRIu64 " samples, %" PRIu64 " decoded",
             member.name.c_str(), member.rules.Is(kSlots) ? "slots" : "files",
             member.sync ? "sync" : "async", member.report.files, member.report.missing_numbers,
             member.report.records, books.Number(owner, "samples"), member.report.decoded);
    summary += text;
    for (size_t i = 0; i < kLossCauses; ++i) {
      const char* const cause = NameOf(static_cast<LossCause>(i));
      const uint64_t lost = books.Number(owner + ".lost." + cause, "samples");
      if (lost != 0) summary += ", " + std::to_string(lost) + " lost: " + cause;
    }
  }
  return summary;
}

}  // namespace orb::test
