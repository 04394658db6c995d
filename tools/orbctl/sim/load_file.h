// The load of a trial: what the client logs, and when.
//
// file   := "time,kpi,value" line*            "#" and empty lines are skipped
// line   := TIME "," KPI "," VALUE
// TIME   := seconds since the start, at most nine decimals, never going back
// KPI    := decimal, or hexadecimal after 0x; empty for flush
// VALUE  := NUMBER [ "*" COUNT ]              kiv_log, COUNT times
//         | "text:" BYTES | "hex:" DIGITS | "size:" N      kiv_log_blob
//         | "state:" A "/" B                  kiv_log_state
//         | "flush"                           kiv_flush
// NUMBER is -2147483648 to 4294967295: gauges and histograms read it as signed.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace orb::orbctl {

enum class LoadCall : uint8_t { kLog, kBlob, kState, kFlush };

struct LoadItem {
  std::chrono::nanoseconds time{0};
  uint32_t kpi = 0;
  uint32_t a = 0;  // The value; a state's first number; a blob's index in Load::blobs.
  uint32_t b = 0;  // How often the value is logged; a state's second number.
  LoadCall call = LoadCall::kLog;
  uint32_t line = 0;  // Of the file, from 1.
};

struct Load {
  std::vector<LoadItem> items;  // In order of time.
  std::vector<std::string> blobs;
  uint64_t samples = 0;  // Calls but flushes.
};

// Reads the whole file; "-" is standard input. False with *error, one line that
// names the file and the line.
bool ReadLoad(const std::string& path, Load* load, std::string* error);

}  // namespace orb::orbctl
