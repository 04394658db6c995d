// Tested by tests/orbctl/decode_command_test.cpp.
#include "tools/orbctl/decode_command.h"

#include <fmt/format.h>

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <system_error>

#include "reader/upload_files.h"
#include "reader/upload_reader.h"
#include "tools/orbctl/campaign_file.h"
#include "tools/orbctl/output.h"
#include "tools/orbctl/private_keys.h"

namespace orb::orbctl {
namespace {

namespace fs = std::filesystem;

class Decoder {
 public:
  Decoder(std::vector<reader::PrivateKey> keys, bool salvage, reader::RecordPrinter* printer)
      : keys_(std::move(keys)), salvage_(salvage), printer_(*printer) {}

  // False when something of the file could not be decoded; that is told.
  bool Decode(const std::string& path) {
    std::string content;
    std::string error;
    if (!ReadFile(path, reader::kMaxFileBytes, &content, &error)) {
      PrintError(error);
      return false;
    }
    const std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t*>(content.data()),
                                         content.size());
    const reader::Upload upload =
        salvage_ ? reader::SalvageUpload(bytes, keys_) : reader::OpenUpload(bytes, keys_);
    if (upload.status == reader::UploadStatus::kDamaged && !salvage_) {
      PrintError(
          fmt::format("{}: damaged at offset {}: {}", path, upload.offset_bytes, upload.reason));
      return false;
    }
    if (upload.status == reader::UploadStatus::kSealed) {
      Sealed& sealed = sealed_[upload.header.lic_sn];
      if (sealed.files++ == 0) sealed.first = path;
      sealed.reason = upload.reason;
      if (!salvage_) return false;
    }
    return salvage_ ? Salvage(path, upload) : Print(path, upload);
  }

  // One line for each owner whose uploads stay shut.
  void TellSealed() const {
    for (const auto& [lic_sn, sealed] : sealed_) {
      PrintError(fmt::format("LicSN {}: {} ({} file{}, first {})", lic_sn, sealed.reason,
                             sealed.files, sealed.files == 1 ? "" : "s", sealed.first));
    }
  }

 private:
  struct Sealed {
    size_t files = 0;
    std::string first;
    std::string reason;
  };

  void BeginSource(const std::string& path, const reader::Upload& upload) {
    reader::RecordSource source;
    source.file = path;
    source.client = reader::ClientOfPath(path);
    source.campaign_id = upload.header.campaign_id;
    source.lic_sn = upload.header.lic_sn;
    source.seqno = upload.header.seqno;
    printer_.BeginSource(source);
  }

  bool Print(const std::string& path, const reader::Upload& upload) {
    BeginSource(path, upload);
    reader::RecordSplitter splitter(upload.data());
    reader::PayloadRecord record;
    while (splitter.Next(&record)) printer_.Print(record);
    if (splitter.damage().empty()) return true;
    PrintError(fmt::format("{}: damaged at offset {} of the unzipped data, after {} records: {}",
                           path, splitter.damage_offset_bytes(), splitter.count(),
                           splitter.damage()));
    return false;
  }

  bool Salvage(const std::string& path, const reader::Upload& upload) {
    BeginSource(path, upload);
    reader::RecordSplitter splitter(upload.data(), reader::RecordSplitter::Trust::kWary);
    reader::SalvageReport report;
    report.skipped = upload.skipped;
    report.unchecked = upload.unchecked;
    reader::PayloadRecord record;
    for (;;) {
      while (splitter.Next(&record)) printer_.Print(record);
      if (splitter.damage().empty()) break;
      reader::Skipped part{reader::Skipped::Of::kData, splitter.damage_offset_bytes(), 0,
                           splitter.damage()};
      part.bytes = splitter.Resync();
      report.skipped.push_back(std::move(part));
    }
    report.records = splitter.count();
    if (report.skipped.empty()) return true;
    printer_.PrintSalvage(report);
    TellSkipped(path, report);
    return false;
  }

  static void TellSkipped(const std::string& path, const reader::SalvageReport& report) {
    for (const reader::Skipped& part : report.skipped) {
      PrintError(fmt::format(
          "{}: {} bytes skipped at offset {}{}: {}", path, part.bytes, part.offset,
          part.of == reader::Skipped::Of::kFile ? "" : " of the unzipped data", part.reason));
    }
    PrintError(fmt::format(
        "{}: {} records salvaged, {} bytes of the file and {} of the unzipped data skipped{}", path,
        report.records, report.SkippedBytes(reader::Skipped::Of::kFile),
        report.SkippedBytes(reader::Skipped::Of::kData),
        report.unchecked ? "; no checksum covers these records, values may be wrong" : ""));
  }

  const std::vector<reader::PrivateKey> keys_;
  const bool salvage_;
  reader::RecordPrinter& printer_;
  std::map<uint64_t, Sealed> sealed_;
};

}  // namespace

int DecodeCommand::Run(std::ostream& out) const {
  std::vector<reader::PrivateKey> keys;
  if (!ReadKeys(key_paths, &keys)) return kFailed;
  std::optional<reader::CampaignIndex> index;
  if (!campaign_path.empty()) {
    LTCCampaignDef campaign;
    std::string error;
    if (!ReadCampaignFile(campaign_path, &campaign, &error)) return Fail(error);
    index.emplace(campaign);
  }
  bool all = true;
  std::vector<std::string> files;
  for (const std::string& path : paths) {
    std::error_code ec;
    if (fs::is_directory(path, ec)) {
      std::string error;
      if (reader::AddFolder(path, &files, &error)) continue;
      PrintError(error);
      all = false;
    } else {
      files.push_back(path);
    }
  }
  if (files.empty() && all) PrintError("note: no uploads in " + paths.front());
  const std::unique_ptr<reader::RecordPrinter> printer =
      reader::RecordPrinter::Create(format, &out, index ? &*index : nullptr);
  Decoder decoder(std::move(keys), salvage, printer.get());
  for (const std::string& file : files) all = decoder.Decode(file) && all;
  decoder.TellSealed();
  out.flush();
  return all ? kOk : kFailed;
}

}  // namespace orb::orbctl
