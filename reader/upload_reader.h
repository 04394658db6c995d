// One spooled upload, opened: header checked, payload decrypted and unzipped.
//
// upload := header[66] data [footer]    footer only when the header says encrypted
//
// docs/formats/upload.md has the byte table.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace orb::reader {

// The header's numbers in host order.
struct UploadHeader {
  uint32_t client_id = 0;
  uint8_t kind = 0;
  uint32_t version = 0;
  uint64_t timestamp_ms = 0;  // Since the epoch.
  uint32_t length_bytes = 0;  // Of all that follows the header.
  bool compressed = false;
  uint64_t boot_ms = 0;  // Since boot.
  int16_t zone_minutes = 0;
  uint64_t campaign_id = 0;
  uint32_t seqno = 0;
  uint64_t lic_sn = 0;
  bool encrypted = false;
  uint32_t footer_offset = 0;
};

struct PrivateKey {
  std::string path;  // For messages.
  std::string pem;
};

enum class UploadStatus {
  kOpened,  // `records` is what the client wrote.
  kSealed,  // Sound as far as one can see, but none of the keys opens it.
  kDamaged,
};

// Bytes that were passed over: of the file, or of what came out of it.
struct Skipped {
  enum class Of { kFile, kData };
  Of of = Of::kFile;
  uint64_t offset = 0;
  uint64_t bytes = 0;  // 0: nothing is lost by this, or nothing that is there.
  std::string reason;
};

struct Upload {
  UploadStatus status = UploadStatus::kDamaged;
  bool has_header = false;  // `header` holds; also true for many damaged files.
  UploadHeader header;
  std::vector<uint8_t> records;
  // Why it is not kOpened, and the offset in the file that this is about.
  std::string reason;
  uint64_t offset_bytes = 0;
  std::string key_path;          // The key that opened it; empty when it was not encrypted.
  std::vector<Skipped> skipped;  // By SalvageUpload(), in order; empty for a sound upload.
  bool unchecked = false;        // `records` may hold wrong bytes: no checksum covers them.

  // The records as a RecordSplitter takes them.
  std::string_view data() const {
    return {reinterpret_cast<const char*>(records.data()), records.size()};
  }
};

inline constexpr uint64_t kMaxFileBytes = uint64_t{256} << 20;  // Of an upload that is read.
// Never more than this comes out of a gzip stream: a few KiB can claim anything.
inline constexpr uint64_t kMaxRecordBytes = uint64_t{256} << 20;

// Tries the keys in order. Any bytes will do.
Upload OpenUpload(std::span<const uint8_t> file, std::span<const PrivateKey> keys);

// The same for damaged files: kOpened with whatever can be had.
//   header    wrong constants, flags and lengths are put right; what cannot be known
//             (campaign, owner, number) is believed
//   gzip      everything before the damage; `unchecked`, as the checksum is behind it
//   CBC       whole blocks in front of the footer; wrong ones end the gzip stream
//   GCM       all or nothing: without its tag no byte is known to be the client's
// kSealed and kDamaged: nothing, and `skipped` covers the file.
Upload SalvageUpload(std::span<const uint8_t> file, std::span<const PrivateKey> keys);

}  // namespace orb::reader
