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

#include "tools/orbctl/campaign_file.h"
#include "tools/orbctl/output.h"
#include "tools/orbctl/private_keys.h"
#include "tools/orbctl/upload_files.h"
#include "tools/orbctl/upload_reader.h"

namespace orb::orbctl {
namespace {

namespace fs = std::filesystem;

class Decoder {
 public:
  Decoder(std::vector<PrivateKey> keys, bool salvage, RecordPrinter* printer)
      : keys_(std::move(keys)), salvage_(salvage), printer_(*printer) {}

  // False when something of the file could not be decoded; that is told.
  bool Decode(const std::string& path) {
    std::string content;
    std::string error;
    if (!ReadFile(path, kMaxFileBytes, &content, &error)) {
      PrintError(error);
      return false;
    }
    const std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t*>(content.data()),
                                         content.size());
    const Upload upload = salvage_ ? SalvageUpload(bytes, keys_) : OpenUpload(bytes, keys_);
    if (upload.status == UploadStatus::kDamaged && !salvage_) {
      PrintError(
          fmt::format("{}: damaged at offset {}: {}", path, upload.offset_bytes, upload.reason));
      return false;
    }
    if (upload.status == UploadStatus::kSealed) {
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

  void BeginSource(const std::string& path, const Upload& upload) {
    RecordSource source;
    source.file = path;
    source.client = ClientOfPath(path);
    source.campaign_id = upload.header.campaign_id;
    source.lic_sn = upload.header.lic_sn;
    source.seqno = upload.header.seqno;
    printer_.BeginSource(source);
  }

  static std::string_view Records(const Upload& upload) {
    return {reinterpret_cast<const char*>(upload.records.data()), upload.records.size()};
  }

  bool Print(const std::string& path, const Upload& upload) {
    BeginSource(path, upload);
    RecordSplitter splitter(Records(upload));
    PayloadRecord record;
    while (splitter.Next(&record)) printer_.Print(record);
    if (splitter.damage().empty()) return true;
    PrintError(fmt::format("{}: damaged at offset {} of the unzipped data, after {} records: {}",
                           path, splitter.damage_offset_bytes(), splitter.count(),
                           splitter.damage()));
    return false;
  }

  bool Salvage(const std::string& path, const Upload& upload) {
    BeginSource(path, upload);
    RecordSplitter splitter(Records(upload), RecordSplitter::Trust::kWary);
    SalvageReport report;
    report.skipped = upload.skipped;
    report.unchecked = upload.unchecked;
    PayloadRecord record;
    for (;;) {
      while (splitter.Next(&record)) printer_.Print(record);
      if (splitter.damage().empty()) break;
      Skipped part{Skipped::Of::kData, splitter.damage_offset_bytes(), 0, splitter.damage()};
      part.bytes = splitter.Resync();
      report.skipped.push_back(std::move(part));
    }
    report.records = splitter.count();
    if (report.skipped.empty()) return true;
    printer_.PrintSalvage(report);
    TellSkipped(path, report);
    return false;
  }

  static void TellSkipped(const std::string& path, const SalvageReport& report) {
    for (const Skipped& part : report.skipped) {
      PrintError(
          fmt::format("{}: {} bytes skipped at offset {}{}: {}", path, part.bytes, part.offset,
                      part.of == Skipped::Of::kFile ? "" : " of the unzipped data", part.reason));
    }
    PrintError(fmt::format(
        "{}: {} records salvaged, {} bytes of the file and {} of the unzipped data skipped{}", path,
        report.records, report.SkippedBytes(Skipped::Of::kFile),
        report.SkippedBytes(Skipped::Of::kData),
        report.unchecked ? "; no checksum covers these records, values may be wrong" : ""));
  }

  const std::vector<PrivateKey> keys_;
  const bool salvage_;
  RecordPrinter& printer_;
  std::map<uint64_t, Sealed> sealed_;
};

}  // namespace

std::string ClientOfPath(const std::string& path) {
  const std::string folder = fs::path(path).parent_path().filename().string();
  const size_t dot = folder.rfind('.');
  if (dot == std::string::npos || dot + 1 == folder.size() ||
      folder.find_first_not_of("0123456789", dot + 1) != std::string::npos) {
    return "";
  }
  return folder.substr(0, dot);
}

int DecodeCommand::Run(std::ostream& out) const {
  std::vector<PrivateKey> keys;
  if (!ReadKeys(key_paths, &keys)) return kFailed;
  std::optional<CampaignIndex> index;
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
      all = AddFolder(path, &files) && all;
    } else {
      files.push_back(path);
    }
  }
  if (files.empty() && all) PrintError("note: no uploads in " + paths.front());
  const std::unique_ptr<RecordPrinter> printer =
      RecordPrinter::Create(format, &out, index ? &*index : nullptr);
  Decoder decoder(std::move(keys), salvage, printer.get());
  for (const std::string& file : files) all = decoder.Decode(file) && all;
  decoder.TellSealed();
  out.flush();
  return all ? kOk : kFailed;
}

}  // namespace orb::orbctl
