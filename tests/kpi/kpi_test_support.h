// What the tests of all kinds share.
#pragma once

#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>

#include "proto/ltc_campaign.pb.h"

// The statement ends the process by abort(), and not by a sanitizer's or any
// other way out.
#define EXPECT_ABORT(statement) EXPECT_EXIT(statement, testing::KilledBySignal(SIGABRT), "")

namespace orb::test {

constexpr uint32_t kKpiId = 7;        // The configuration's.
constexpr uint32_t kRoutingId = 900;  // Set by the owner; differs so that a mix-up shows.

// No window: every sample closes one.
inline KPICfg NumericCfg(KPISubType sub_type) {
  KPICfg cfg;
  cfg.set_kpi_id(kKpiId);
  cfg.set_type(KPI_NUMERIC);
  cfg.set_sub_type(sub_type);
  return cfg;
}

inline KPICfg WithSampleWindow(KPICfg cfg, uint32_t samples) {
  cfg.set_sample_window(samples);
  return cfg;
}

inline KPICfg WithTimeWindow(KPICfg cfg, uint32_t ms) {
  cfg.set_time_window(ms);
  return cfg;
}

}  // namespace orb::test
