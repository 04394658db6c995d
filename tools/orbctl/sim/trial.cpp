// Tested by tests/orbctl/sim_test.cpp.
#include "tools/orbctl/sim/trial.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <thread>

#include "collector/kiv_collector.h"
#include "tools/orbctl/sim/library_host.h"
#include "utility/conf.h"

namespace orb::orbctl {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using Sleeper = SimClock::Sleeper;

// Of the machine, for things that take the library no time worth mentioning.
constexpr std::chrono::seconds kPatience(10);

constexpr char kRegistered[] = "MGR registration succeeded";

// Waits until `done`, looking again and again; less often as time goes by.
template <typename Done>
bool WaitFor(Done done) {
  const auto deadline = steady_clock::now() + kPatience;
  for (auto pause = std::chrono::microseconds(5); !done();
       pause = std::min(2 * pause, std::chrono::microseconds(1000))) {
    if (steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(pause);
  }
  return true;
}

// A line on a terminal for who waits longer than a second.
class Progress {
 public:
  explicit Progress(SimClock::Time total) : total_s_(Seconds(total)) {}
  ~Progress() {
    if (told_) (void)fprintf(stderr, "\r%*s\r", kWidth, "");
  }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void Tell(SimClock::Time now) {
    if (!terminal_ || steady_clock::now() < next_) return;
    next_ = steady_clock::now() + std::chrono::seconds(1);
    told_ = true;
    (void)fprintf(stderr, "\r%12.1f of %.1f s", Seconds(now), total_s_);
  }

 private:
  static constexpr int kWidth = 40;
  static double Seconds(SimClock::Time time) { return static_cast<double>(time.count()) / 1e9; }

  const double total_s_;
  const bool terminal_ = isatty(STDERR_FILENO) == 1;
  steady_clock::time_point next_ = steady_clock::now() + std::chrono::seconds(1);
  bool told_ = false;
};

}  // namespace

Trial::Trial(const TrialInput& input, SimServices* services, LibraryLog* log)
    : input_(input), services_(*services), log_(*log) {
  for (const FaultSpan& span : input_.faults) {
    edges_.push_back({span.from, &span, true});
    if (span.to) edges_.push_back({*span.to, &span, false});
  }
  // What ends at a time ends before what begins then.
  std::stable_sort(edges_.begin(), edges_.end(), [](const Edge& a, const Edge& b) {
    return a.time != b.time ? a.time < b.time : a.begins < b.begins;
  });
  Clock::Use(TrialTime());
}

Trial::~Trial() {
  End();
  Clock::UseSystem();
}

void Trial::Register() {
  kiv_cfg_s cfg = {};
  cfg.name = input_.client.c_str();
  cfg.data_dir = input_.data_dir.c_str();
  cfg.hbt = cfg.allocate_fd = input_.slots > 0 ? 1 : 0;
  cfg.fd_slot_size = input_.slot_bytes;
  cfg.fd_nof_slots = input_.slots;
  collector_ = kiv_register(&cfg);
}

bool Trial::WaitForLog(const std::string& text, uint64_t count) const {
  return WaitFor([&] { return log_.Count(text) >= count; });
}

bool Trial::Begin(double factor, int32_t* result, std::string* error) {
  *result = 0;
  Register();
  if (!WaitForLog(kRegistered, 1)) {
    *error = "the client could not register; the library's log says why";
    return false;
  }
  const manager::ControlReply reply =
      services_.manager().StartCampaign(input_.client, input_.campaign);
  if (reply.status() == manager::ControlReply::DONE) {
    clock_.Start(factor);
    return true;
  }
  *result = reply.result();
  *error = reply.message();
  return false;
}

void Trial::Run() {
  const std::vector<LoadItem>& items = input_.load.items;
  Progress progress(items.back().time);
  phase_ = Phase::kLogging;
  auto edge = edges_.begin();
  for (auto item = items.begin(); item != items.end();) {
    const SimClock::Time time = item->time;
    for (; edge != edges_.end() && edge->time <= time; ++edge) {
      AdvanceTo(edge->time);
      Apply(*edge);
    }
    AdvanceTo(time);
    for (; item != items.end() && item->time == time; ++item) Feed(*item);
    queue_max_ = std::max(queue_max_, collector_->Pending());
    progress.Tell(time);
  }
  if (clock_.stepped()) Settle();
}

void Trial::End() {
  if (collector_ == nullptr) return;
  phase_ = Phase::kEnding;
  clock_.RunFreely();
  // What kiv_deregister does; the books go with the collector.
  collector_->DeRegister();
  books_ = collector_->ledger().Copy();
  collector_->Unroute();
  delete collector_;
  collector_ = nullptr;
  FillDisk(false);
}

void Trial::Abandon() {
  Settle();
  books_ = collector_->ledger().Copy();
  collector_ = nullptr;
}

void Trial::AdvanceTo(SimClock::Time time) {
  if (!clock_.stepped()) return clock_.MoveTo(time);
  for (;;) {
    Settle();
    const std::optional<SimClock::Time> wake = clock_.NextWake();
    if (!wake || *wake > time) break;
    clock_.MoveTo(*wake);
  }
  clock_.MoveTo(time);
}

// Returns when the library has done what it can do without time going by. Its
// patience starts anew with every item that is dealt with.
void Trial::Settle() {
  size_t before = 0;
  do {
    before = collector_->Pending();
    if (WaitFor([this] { return IsQuiet(); })) return;
  } while (collector_->Pending() < before);
}

bool Trial::IsQuiet() {
  // Who waits for the HAL keeps all others waiting.
  if (clock_.Asleep(Sleeper::kHal) > 0) return true;
  return collector_->Pending() == 0 && IsRegistrationQuiet();
}

bool Trial::IsRegistrationQuiet() {
  if (!lost_ || clock_.Asleep(Sleeper::kRegistration) > 0) return true;
  const size_t tries = clock_.Slept(Sleeper::kRegistration) - waits_;
  if (tries >= static_cast<size_t>(std::max(Conf::Get().register_max_retries, 0))) return true;
  if (!services_.manager_runs() || log_.Count(kRegistered) == registrations_) return false;
  const auto session = services_.Client(input_.client).session();
  lost_ = session != manager::ClientRecord::RUNNING && session != manager::ClientRecord::REFUSED;
  return !lost_;
}

void Trial::Apply(const Edge& edge) {
  switch (edge.span->fault) {
    case Fault::kHalSlow:
      services_.hal().delay_ns = edge.begins ? edge.span->delay.count() : 0;
      break;
    case Fault::kHalWrong:
      services_.hal().wrong = edge.begins;
      break;
    case Fault::kHalDead:
      if (edge.begins) {
        KillHal();
      } else {
        services_.StartHal();
      }
      break;
    case Fault::kManagerDead:
      edge.begins ? KillManager() : services_.StartManager();
      break;
    case Fault::kDiskFull:
      FillDisk(edge.begins);
      break;
  }
}

// With time standing still, the library takes note before anything else happens.
void Trial::KillHal() {
  const uint64_t deaths = log_.Count("Orbsyshal Server has died");
  const bool linked = log_.Count("Registered orbsyshal death recipient") > deaths;
  services_.KillHal();
  if (!clock_.stepped() || !linked) return;
  WaitForLog("Orbsyshal Server has died", deaths + 1);
  Settle();
}

void Trial::KillManager() {
  const bool was_lost = lost_;
  lost_ = true;
  registrations_ = log_.Count(kRegistered);
  if (!was_lost) waits_ = clock_.Slept(Sleeper::kRegistration);
  services_.KillManager();
}

void Trial::Feed(const LoadItem& item) {
  const SimClock::DriverCall call;
  switch (item.call) {
    case LoadCall::kFlush:
      kiv_flush(collector_);
      return;
    case LoadCall::kState:
      return Count(item, kiv_log_state(collector_, item.kpi, item.a, item.b));
    case LoadCall::kBlob: {
      const std::string& blob = input_.load.blobs[item.a];
      return Count(item,
                   kiv_log_blob(collector_, item.kpi, reinterpret_cast<const uint8_t*>(blob.data()),
                                static_cast<uint32_t>(blob.size())));
    }
    case LoadCall::kLog:
      current_ = &item;
      for (uint32_t i = 0; i < item.b; ++i) {
        Count(item, kiv_log(collector_, item.kpi, item.a));
      }
      current_ = nullptr;
      return;
  }
}

void Trial::Count(const LoadItem& item, int result) {
  CallTally& tally = calls_[item.kpi];
  ++tally.logged;
  ++(result == 0 ? tally.accepted : tally.refused);
}

}  // namespace orb::orbctl
