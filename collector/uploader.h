// Sends closed data files: gives each upload its number, compresses it, encrypts it for
// its owner and hands it to the HAL.
//
// Thread-safe. Its mutex is a leaf; it is held while the ".seq" file is read and written.
// Tested by tests/collector/upload_test.cpp.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

#include "collector/collector_settings.h"
#include "collector/manager_link.h"
#include "ledger/delivery_ledger.h"
#include "serializer/licsn_tables.h"
#include "utility/thread_annotations.h"

class Uploader {
 public:
  // All are borrowed and outlive it.
  Uploader(const CollectorSettings& settings, const ManagerLink& link, DeliveryLedger* ledger)
      : settings_(settings), link_(link), ledger_(*ledger) {}

  // Compresses, seals and sends one closed data file of a session with these tables,
  // then deletes it. The HAL's status; -1 when nothing was sent.
  int SendData(const std::string& path, const LicSnTables& tables) ORB_EXCLUDES(mutex_);

  // The next upload's number, from the client's ".seq" file.
  uint32_t NextSeqno() ORB_EXCLUDES(mutex_);
  // The latest number of this process; -1 before the first.
  int64_t last_seqno() const { return last_seqno_; }
  // The name by which the HAL stores an upload.
  std::string NameOf(int32_t client_id, uint64_t suffix) const;

  // Call in the child of a fork(). False when a thread of the parent was inside.
  bool AdoptInChild() ORB_EXCLUDES(mutex_) { return mutex_.IsFree(); }

 private:
  // What became of one upload.
  struct Fate {
    uint32_t payload_bytes = 0;  // Before compression.
    std::optional<orb::LossCause> lost;
  };
  int SendOpenFile(FILE* file, const std::string& path, const LicSnTables& tables, Fate* fate)
      ORB_EXCLUDES(mutex_);

  const CollectorSettings& settings_;
  const ManagerLink& link_;
  DeliveryLedger& ledger_;
  orb::Mutex mutex_;  // The ".seq" file's read and write are one step.
  std::atomic<int64_t> last_seqno_{-1};
};
