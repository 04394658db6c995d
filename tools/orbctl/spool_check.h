// Looks at the uploads of a spool one by one, then at the row of their numbers.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "reader/upload_files.h"
#include "reader/upload_reader.h"

namespace orb::orbctl {

struct Finding {
  enum class Kind {
    kGap,       // Numbers of a client that no upload has.
    kRepeat,    // A number that several uploads have.
    kShort,     // The file ends early.
    kHeader,    // A header that cannot be, or not of a file of this name.
    kData,      // Gzip or records are damaged.
    kTag,       // The owner's key is here, it opens others, and not this one.
    kSealed,    // None of the keys opens it, nor another of its owner.
    kLeftover,  // A file that was never finished.
    kUnread,    // Cannot be read.
  };
  Kind kind = Kind::kGap;
  std::string where;  // A file, or a client: "spool/up/7/radio".
  std::string text;
  uint32_t first = 0;  // kGap and kRepeat: the numbers, both ends included.
  uint32_t last = 0;
};

// "gap" and so on.
const char* KindName(Finding::Kind kind);

// Not thread-safe. Memory: the content of one upload at a time, and a number for each.
class SpoolCheck {
 public:
  explicit SpoolCheck(std::vector<reader::PrivateKey> keys) : keys_(std::move(keys)) {}

  void CheckFile(const std::string& path);
  // A file in the folder of those being written. What is young may be in work.
  void CheckIncoming(const std::string& path);
  // After the last file: findings that need all of them.
  void Finish();

  const std::vector<Finding>& findings() const { return findings_; }
  size_t uploads() const { return uploads_; }
  size_t clients() const { return rows_.size(); }
  // Sealed ones whose data nobody looked at, as no key was given.
  size_t unopened() const { return unopened_; }

 private:
  // By number, the files that have it. One row for all owners of a client.
  using Row = std::map<uint32_t, std::vector<std::string>>;

  void Add(Finding::Kind kind, const std::string& where, std::string text, uint32_t first = 0,
           uint32_t last = 0);
  void CheckUpload(const std::string& path, std::span<const uint8_t> file);
  void CheckName(const std::string& path, const reader::UploadHeader& header);
  void CheckRecords(const std::string& path, const reader::Upload& upload);
  void CheckRow(const std::string& client, const Row& row);

  const std::vector<reader::PrivateKey> keys_;
  std::vector<Finding> findings_;
  std::map<std::string, Row> rows_;       // By folder and client.
  std::map<uint64_t, bool> opened_;       // By owner: a key opened one of its uploads.
  std::map<std::string, uint64_t> shut_;  // By file, the owner; none of the keys opened it.
  size_t uploads_ = 0;
  size_t unopened_ = 0;
};

}  // namespace orb::orbctl
