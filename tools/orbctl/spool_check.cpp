// Tested by tests/orbctl/verify_command_test.cpp.
#include "tools/orbctl/spool_check.h"

#include <fmt/format.h>

#include <chrono>
#include <filesystem>
#include <system_error>

#include "reader/record_splitter.h"
#include "reader/upload_layout.h"
#include "tools/orbctl/output.h"

namespace orb::orbctl {
namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kInWork{60};  // The HAL writes 64 MiB at most.

}  // namespace

const char* KindName(Finding::Kind kind) {
  switch (kind) {
    case Finding::Kind::kGap:
      return "gap";
    case Finding::Kind::kRepeat:
      return "repeat";
    case Finding::Kind::kShort:
      return "short";
    case Finding::Kind::kHeader:
      return "header";
    case Finding::Kind::kData:
      return "data";
    case Finding::Kind::kTag:
      return "tag";
    case Finding::Kind::kSealed:
      return "sealed";
    case Finding::Kind::kLeftover:
      return "leftover";
    case Finding::Kind::kUnread:
      return "unread";
  }
  return "";
}

void SpoolCheck::Add(Finding::Kind kind, const std::string& where, std::string text, uint32_t first,
                     uint32_t last) {
  findings_.push_back({kind, where, std::move(text), first, last});
}

void SpoolCheck::CheckFile(const std::string& path) {
  ++uploads_;
  std::string content;
  std::string error;
  if (!ReadFile(path, reader::kMaxFileBytes, &content, &error)) {
    return Add(Finding::Kind::kUnread, path, error);
  }
  CheckUpload(path, {reinterpret_cast<const uint8_t*>(content.data()), content.size()});
}

void SpoolCheck::CheckUpload(const std::string& path, std::span<const uint8_t> file) {
  const reader::UploadPath name = reader::ParseUploadPath(path);
  if (name.client.empty()) {
    Add(Finding::Kind::kHeader, path, "no name of an upload: CLIENT.OWNER/SEQNO-TIMESTAMP.orb");
  } else {
    // The name, not the header, which may be damaged: they are the same when it is not.
    rows_[name.folder + "/" + name.client][name.seqno].push_back(path);
  }
  const reader::Upload upload = reader::OpenUpload(file, keys_);
  if (upload.has_header && !name.client.empty()) CheckName(path, upload.header);
  switch (upload.status) {
    case reader::UploadStatus::kOpened:
      if (upload.header.encrypted) opened_[upload.header.lic_sn] = true;
      return CheckRecords(path, upload);
    case reader::UploadStatus::kSealed:
      if (keys_.empty()) {
        ++unopened_;
      } else {
        shut_[path] = upload.header.lic_sn;
      }
      return;
    case reader::UploadStatus::kDamaged:
      const uint64_t whole_bytes = uint64_t{reader::kHeaderBytes} + upload.header.length_bytes;
      const bool is_short =
          file.size() < reader::kHeaderBytes || (upload.has_header && file.size() < whole_bytes);
      const auto damaged = upload.offset_bytes < reader::kHeaderBytes ? Finding::Kind::kHeader
                                                                      : Finding::Kind::kData;
      return Add(is_short ? Finding::Kind::kShort : damaged, path,
                 fmt::format("at offset {}: {}", upload.offset_bytes, upload.reason));
  }
}

void SpoolCheck::CheckName(const std::string& path, const reader::UploadHeader& header) {
  const reader::UploadPath name = reader::ParseUploadPath(path);
  if (name.seqno == header.seqno && name.timestamp_ms == header.timestamp_ms) return;
  Add(Finding::Kind::kHeader, path,
      fmt::format("the header has number {} and time {}, the name others", header.seqno,
                  header.timestamp_ms));
}

void SpoolCheck::CheckRecords(const std::string& path, const reader::Upload& upload) {
  reader::RecordSplitter splitter(upload.data());
  reader::PayloadRecord record;
  while (splitter.Next(&record)) {
  }
  if (splitter.damage().empty()) return;
  Add(Finding::Kind::kData, path,
      fmt::format("at offset {} of the unzipped data: {}", splitter.damage_offset_bytes(),
                  splitter.damage()));
}

void SpoolCheck::CheckIncoming(const std::string& path) {
  std::error_code gone;
  const auto written = fs::last_write_time(path, gone);
  if (gone || fs::file_time_type::clock::now() - written < kInWork) return;
  Add(Finding::Kind::kLeftover, path, "was never finished; orb-hald removes it when it starts");
}

void SpoolCheck::Finish() {
  for (const auto& [path, lic_sn] : shut_) {
    if (opened_.count(lic_sn) != 0) {
      Add(Finding::Kind::kTag, path,
          fmt::format("the key of LicSN {} opens others and not this one: changed or damaged",
                      lic_sn));
    } else {
      Add(Finding::Kind::kSealed, path,
          fmt::format("none of the keys opens an upload of LicSN {}", lic_sn));
    }
  }
  for (const auto& [client, row] : rows_) CheckRow(client, row);
}

void SpoolCheck::CheckRow(const std::string& client, const Row& row) {
  uint32_t next = row.begin()->first;
  for (const auto& [number, files] : row) {
    if (number > next) {
      Add(Finding::Kind::kGap, client,
          number - next == 1 ? fmt::format("number {} is missing", next)
                             : fmt::format("numbers {} to {} are missing", next, number - 1),
          next, number - 1);
    }
    if (files.size() > 1) {
      Add(Finding::Kind::kRepeat, client,
          fmt::format("number {} has {} uploads: {}", number, files.size(), fmt::join(files, ", ")),
          number, number);
    }
    next = number + 1;  // Past the last one nothing asks for it.
  }
}

}  // namespace orb::orbctl
