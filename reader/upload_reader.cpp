// Tested by tests/reader/upload_reader_test.cpp.
#include "reader/upload_reader.h"

#include <cstdlib>
#include <memory>

#include "include/orb_encrypt.h"
#include "proto/telemetry_footer.pb.h"
#include "reader/cbc_blocks.h"
#include "reader/gunzip.h"
#include "reader/upload_layout.h"
#include "serializer/header_layout.h"
#include "utility/checked.h"

namespace orb::reader {
namespace {

constexpr size_t kIvBytes = 16;
constexpr size_t kTagBytes = 16;

struct Free {
  void operator()(uint8_t* buffer) const { free(buffer); }
};

bool Damaged(Upload* upload, uint64_t offset, std::string reason) {
  upload->status = UploadStatus::kDamaged;
  upload->offset_bytes = offset;
  upload->reason = std::move(reason);
  return false;
}

UploadHeader ReadHeader(const uint8_t* at) {
  UploadHeader header;
  header.client_id = header::kClientId.Load(at);
  header.kind = header::kKind.Load(at);
  header.version = header::kVersion.Load(at);
  header.timestamp_ms = header::kCreated.Load(at);
  header.length_bytes = header::kLength.Load(at);
  header.compressed = header::kCompressed.Load(at) != 0;
  header.boot_ms = header::kUptime.Load(at);
  header.zone_minutes = static_cast<int16_t>(header::kTimeZone.Load(at));
  header.campaign_id = header::kCampaignId.Load(at);
  header.seqno = header::kSeqno.Load(at);
  header.lic_sn = header::kLicSn.Load(at);
  header.encrypted = header::kEncrypted.Load(at) != 0;
  header.footer_offset = header::kFooterOffset.Load(at);
  return header;
}

bool CheckConstants(std::span<const uint8_t> file, Upload* upload) {
  if (file.size() < header::kBytes) {
    return Damaged(upload, file.size(), "the file ends inside the 66-byte header");
  }
  const uint8_t* at = file.data();
  if (header::kFormat.Load(at) != header::kFormatWord) {
    return Damaged(upload, header::kFormat.offset, "the first word is not 9");
  }
  if (header::kSize.Load(at) != header::kBytes) {
    return Damaged(upload, header::kSize.offset, "the header size is not 66");
  }
  if (header::kConstant.Load(at) != header::kConstantByte) {
    return Damaged(upload, header::kConstant.offset, "the constant byte is not 1");
  }
  for (const auto& flag : {header::kCompressed, header::kEncrypted}) {
    if (flag.Load(at) > 1) return Damaged(upload, flag.offset, "the flag is neither 0 nor 1");
  }
  return true;
}

bool CheckLengths(std::span<const uint8_t> file, Upload* upload) {
  const UploadHeader& header = upload->header;
  const uint64_t payload_bytes = file.size() - header::kBytes;
  if (header.length_bytes > payload_bytes) {
    return Damaged(upload, file.size(),
                   "cut short: " + std::to_string(header.length_bytes) +
                       " bytes are announced behind the header, " + std::to_string(payload_bytes) +
                       " are there");
  }
  if (header.length_bytes < payload_bytes) {
    return Damaged(
        upload, header::kBytes + uint64_t{header.length_bytes},
        std::to_string(payload_bytes - header.length_bytes) + " bytes follow the announced end");
  }
  if (payload_bytes == 0) return Damaged(upload, header::kBytes, "nothing follows the header");
  if (!header.encrypted && header.footer_offset != 0) {
    return Damaged(upload, header::kFooterOffset.offset,
                   "a footer offset, but the upload is not encrypted");
  }
  if (header.encrypted &&
      (header.footer_offset <= header::kBytes || header.footer_offset >= file.size())) {
    return Damaged(
        upload, header::kFooterOffset.offset,
        "footer offset " + std::to_string(header.footer_offset) + " lies outside the payload");
  }
  return true;
}

bool ReadFooter(std::span<const uint8_t> file, TelemetryFooter* footer, Upload* upload) {
  const uint32_t at = upload->header.footer_offset;
  const std::span<const uint8_t> bytes = file.subspan(at);
  if (!footer->ParseFromArray(bytes.data(), CheckedCast<int>(bytes.size()))) {
    return Damaged(upload, at, "the footer is no TelemetryFooter");
  }
  if (footer->ephemeral_key().empty()) return Damaged(upload, at, "the footer has no key");
  if (footer->iv().size() != kIvBytes)
    return Damaged(upload, at, "the footer's IV is not 16 bytes");
  if (!footer->gcm_tag().empty() && footer->gcm_tag().size() != kTagBytes) {
    return Damaged(upload, at, "the footer's tag is not 16 bytes");
  }
  return true;
}

// Empty when the key does not fit. CBC has no tag, and one wrong key in 256
// leaves padding that looks right; but an encrypted payload is always gzip.
std::vector<uint8_t> Decrypt(std::span<const uint8_t> data, const TelemetryFooter& footer,
                             const PrivateKey& key, Effort effort) {
  const auto bytes = [](const std::string& text) {
    return reinterpret_cast<const uint8_t*>(text.data());
  };
  uint8_t* raw = nullptr;
  uint64_t raw_bytes = 0;
  const bool gcm = !footer.gcm_tag().empty();
  const int32_t result =
      gcm ? orb_decrypt_evp2_ecc_aes_gcm(
                ORB_SALGO_AES_256_GCM, ORB_PALGO_ECDH_P256, key.pem.c_str(), data.data(),
                data.size(), bytes(footer.ephemeral_key()), footer.ephemeral_key().size(),
                bytes(footer.iv()), footer.iv().size(), bytes(footer.gcm_tag()),
                footer.gcm_tag().size(), &raw, &raw_bytes)
          : orb_decrypt_evp2_ecc_aes_cbc(
                ORB_SALGO_AES_256_CBC, ORB_PALGO_ECDH_P256, key.pem.c_str(), data.data(),
                data.size(), bytes(footer.ephemeral_key()), footer.ephemeral_key().size(),
                bytes(footer.iv()), footer.iv().size(), &raw, &raw_bytes);
  const std::unique_ptr<uint8_t, Free> owned(raw);
  if (result != 0 && !gcm && effort == Effort::kParts) {
    std::vector<uint8_t> blocks =
        DecryptCbcBlocks(data, footer.ephemeral_key(), footer.iv(), key.pem);
    return IsGzip(blocks) ? blocks : std::vector<uint8_t>();
  }
  if (result != 0 || raw == nullptr) return {};
  const std::span<const uint8_t> plain(raw, raw_bytes);
  if (!IsGzip(plain)) return {};
  return {plain.begin(), plain.end()};
}

bool Unseal(std::span<const uint8_t> file, std::span<const PrivateKey> keys, Effort effort,
            std::vector<uint8_t>* payload, Upload* upload) {
  TelemetryFooter footer;
  if (!ReadFooter(file, &footer, upload)) return false;
  const std::span<const uint8_t> data =
      file.subspan(header::kBytes, upload->header.footer_offset - header::kBytes);
  for (const PrivateKey& key : keys) {
    *payload = Decrypt(data, footer, key, effort);
    if (payload->empty()) continue;
    upload->key_path = key.path;
    return true;
  }
  upload->status = UploadStatus::kSealed;
  upload->offset_bytes = header::kBytes;
  upload->reason = keys.empty() ? "encrypted, and no --key is given"
                                : "encrypted, and none of the keys opens it";
  return false;
}

// The gzip stream breaks at `fault_at` of the payload; what came before it stays.
void AcceptPart(uint64_t payload_bytes, uint64_t fault_at, const std::string& fault,
                Upload* upload) {
  const uint64_t left = payload_bytes - fault_at;
  upload->unchecked = fault != kTrailingBytes;
  upload->skipped.push_back({Skipped::Of::kFile, header::kBytes + fault_at, left, fault});
}

}  // namespace

Upload OpenUpload(std::span<const uint8_t> file, std::span<const PrivateKey> keys) {
  return OpenUpload(file, keys, Effort::kWhole);
}

Upload OpenUpload(std::span<const uint8_t> file, std::span<const PrivateKey> keys, Effort effort) {
  Upload upload;
  if (!CheckConstants(file, &upload)) return upload;
  upload.has_header = true;
  upload.header = ReadHeader(file.data());
  if (!CheckLengths(file, &upload)) return upload;
  std::vector<uint8_t> payload;
  if (!upload.header.encrypted) {
    payload.assign(file.begin() + header::kBytes, file.end());
  } else if (!Unseal(file, keys, effort, &payload, &upload)) {
    return upload;
  }
  // The stream's own first bytes decide, not the header's flag: data sent by
  // shared memory says 1 when the receiver is asked to compress it, and arrives
  // plain. No record starts like gzip does.
  if (IsGzip(payload)) {
    uint64_t fault_at = 0;
    const std::string fault = Gunzip(payload, kMaxRecordBytes, &upload.records, &fault_at);
    if (!fault.empty() && effort == Effort::kWhole) {
      upload.records.clear();
      Damaged(&upload, header::kBytes + fault_at, fault);
      return upload;
    }
    if (!fault.empty()) AcceptPart(payload.size(), fault_at, fault, &upload);
  } else {
    upload.records = std::move(payload);
  }
  upload.status = UploadStatus::kOpened;
  return upload;
}

}  // namespace orb::reader
