// The state of a session, for a dump.
// Tested by tests/collector/dump_test.cpp.
#include <chrono>
#include <utility>

#include "collector/session.h"
#include "kpi/kpi.h"
#include "proto/kpi_kinds.h"

namespace {

// How long a dump waits for a callback of the client, which may take for ever.
constexpr std::chrono::milliseconds kBusyWait{250};

std::pair<uint32_t, const char*> WindowOf(const KPICfg& cfg) {
  switch (cfg.agg_window_oneof_case()) {
    case KPICfg::kTimeWindow:
      return {cfg.time_window(), "ms"};
    case KPICfg::kSampleWindow:
      return {cfg.sample_window(), "samples"};
    default:
      return {0, "none"};
  }
}

}  // namespace

std::vector<Session::KpiState> Session::DescribeKPIs(Books* books) {
  std::vector<KpiState> kpis;
  kpis.reserve(kpis_.size());
  for (const auto& [id, kpi] : kpis_) {
    const auto [window, unit] = WindowOf(kpi->config());
    kpis.push_back(
        {id, orb::NameOf(orb::KindOf(kpi->config()).value()), window, unit, kpi->CountSamples()});
    books->Enter(OwnersOf(id), kpis.back().samples);
  }
  return kpis;
}

Session::State Session::Describe() {
  const bool changing = !sessionMutex_.TryLock();
  if (!changing) sessionMutex_.Unlock();
  State state;
  state.busy = changing;
  if (stateMutex_.TryLockFor(kBusyWait)) {
    // Records are handed over under this mutex, so books and windows agree.
    if (const auto serializer = Serializer()) state.backlog = serializer->backlog();
    state.books = ledger_.Copy();
    state.kpis = DescribeKPIs(&state.books);
    stateMutex_.Unlock();
  } else {
    state.busy = true;
    if (const auto serializer = Serializer()) state.backlog = serializer->backlog();
    state.books = ledger_.Copy();
  }
  state.active = sessionActive_;
  return state;
}
