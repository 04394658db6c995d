// What a trial brought, counted from outside: by what the calls answered, what
// the spool holds and what the library logged.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "ledger/loss_cause.h"
#include "proto/ltc_campaign.pb.h"
#include "reader/upload_reader.h"
#include "tools/orbctl/sim/trial.h"

namespace orb::orbctl {

// One KPI's records of one owner.
struct StreamTally {
  uint64_t records = 0;
  uint64_t samples = 0;  // That the records speak of; of a blob, the records.
};

// One owner's data.
struct OwnerTally {
  uint64_t uploads = 0;
  uint64_t bytes = 0;    // Of the uploads, as stored.
  uint64_t sealed = 0;   // Uploads that no key opens: their records are not counted.
  uint64_t damaged = 0;  // Uploads that are read up to a point only.
  std::map<uint32_t, StreamTally> kpis;
  // Only with data files: what the library took in hand for the file, and what
  // of that it knows not to have got there.
  std::optional<uint64_t> handled;
  std::optional<uint64_t> unwritten;
  // Accepted by a call; gauges left out, whose records do not tell.
  uint64_t accepted = 0;

  // By the library's own account, gauges included.
  ByLossCause<EventTally> losses;

  uint64_t records() const;
  uint64_t samples() const;  // Gauges left out, too.
};

// A sum of a window did not fit: on a device the client ends there.
struct Overflow {
  std::vector<uint32_t> kpis;  // One, unless several may have been it.
  // The sample that was being logged; null as the session ended.
  const LoadItem* item = nullptr;
  uint64_t sample = 0;  // Which of its KPI's samples that is, from 1.

  // One line for people.
  std::string ToText() const;
};

class TrialReport {
 public:
  TrialReport(const LTCCampaignDef& campaign, const TrialInput& input);

  // After the trial's end. False with *error when the spool cannot be read.
  bool Collect(const Trial& trial, const LibraryLog& log, const std::string& spool,
               const std::vector<reader::PrivateKey>& keys, std::string* error);

  // After Collect, of a trial that the library ended.
  void AddOverflow(const Trial& trial);
  const std::optional<Overflow>& overflow() const { return overflow_; }

  void PrintText(std::ostream& out) const;
  void PrintJson(std::ostream& out) const;

  // What only the caller knows.
  uint64_t offered = 0;  // Uploads that reached the HAL.
  uint64_t stored = 0;
  double took_s = 0;
  std::string directory;

 private:
  void CountUpload(const std::string& path, const reader::Upload& upload, uint64_t bytes);
  void CountAccepted();
  const char* KindName(uint32_t kpi) const;
  bool IsGauge(uint32_t kpi) const;
  CallTally AllCalls() const;
  double LoadSeconds() const;

  const TrialInput& input_;
  std::map<uint32_t, KPICfg> kpis_;
  std::map<uint64_t, OwnerTally> owners_;
  std::map<uint32_t, std::vector<uint64_t>> owners_of_;  // None: all.
  std::map<uint32_t, CallTally> calls_;
  std::vector<LibraryLog::Message> problems_;
  size_t queue_max_ = 0;
  std::optional<Overflow> overflow_;
};

}  // namespace orb::orbctl
