// A closed data file becomes one upload:
//   header:66 gzip                       plain
//   header:66 ciphertext-of-gzip footer  sealed
// Tested by tests/collector/upload_test.cpp.
#include "collector/uploader.h"

#include <unistd.h>

#include <cerrno>
#include <utility>

#include "collector/gzip.h"
#include "collector/next_seqno.h"
#include "collector/seal.h"
#include "ipc/kiv_aidl_client.h"
#include "serializer/telemetry_header.h"
#include "utility/checked.h"
#include "utility/contained.h"
#include "utility/error_text.h"
#include "utility/files.h"
#include "utility/log.h"
#include "utility/malloc_bytes.h"

using orb::LossCause;

namespace {

// With an overridden header the key decides about encryption: a shorter one is a
// placeholder for none.
constexpr size_t kOverrideKeyCharsMin = 11;

// Positions the file after its header and returns the bytes from there on; 0 when there
// are none or the file cannot be read.
uint32_t SeekToPayload(FILE* file, const std::string& path) {
  if (fseek(file, 0, SEEK_END) != 0) {
    LOGE("%s: fseek() failed on %s", "SendData", path.c_str());
    return 0;
  }
  const long size = ftell(file);
  if (size < 0) {
    LOGE("%s: ftell() failed on %s", "SendData", path.c_str());
    return 0;
  }
  if (size <= static_cast<long>(TelemetryHeader::kBytes)) {
    LOGE("%s: no valid data to send %s", "SendData", path.c_str());
    return 0;
  }
  if (fseek(file, TelemetryHeader::kBytes, SEEK_SET) != 0) {
    LOGE("%s: fseek() to payload start failed", "SendData");
    return 0;
  }
  return orb::CheckedCast<uint32_t>(size - static_cast<long>(TelemetryHeader::kBytes));
}

// The campaign's flags decide, or with an overridden header the key itself.
bool WantsEncryption(const CollectorSettings& cfg, const LicSnTables& tables, uint64_t licSN) {
  const auto licSnText = static_cast<unsigned long long>(licSN);
  bool wanted = false;
  if (cfg.header_override) {
    const auto key = tables.keys.find(licSN);
    wanted = key != tables.keys.end() && key->second.pKeyEncAlgo != 0 &&
             key->second.sKeyEncAlgo != 0 &&
             key->second.encryptionPKey.size() >= kOverrideKeyCharsMin;
  } else {
    const auto flag = tables.encrypt.find(licSN);
    if (flag == tables.encrypt.end()) {
      LOGE("%s: %s: LicSN %llu not found in LicSN2EncryptMap", "SendData", cfg.name.c_str(),
           licSnText);
      return false;
    }
    wanted = flag->second;
  }
  if (!wanted) {
    LOGI("%s: %s: encryption not enabled for licSN: %llu", "SendData", cfg.name.c_str(), licSnText);
  }
  return wanted;
}

// Replaces *data by its ciphertext. On failure logs the cause of loss and returns it.
std::optional<LossCause> SealData(const CollectorSettings& cfg, const LicSnKeyTable& keys,
                                  uint64_t licSN, TelemetryHeader* header, orb::MallocBytes* data,
                                  std::string* footer) {
  const auto it = keys.find(licSN);
  if (it == keys.end()) {
    LOGE("%s: %s: ISVKey info not found for LicSN %llu in LicSn2ISVKeyMap", "SendData",
         cfg.name.c_str(), static_cast<unsigned long long>(licSN));
    return LossCause::kNoKey;
  }
  const ISVKeyStruct& key = it->second;
  LOGI("%s: %s: encryptionPkey %s encryptionPkeySize %d salgo %d palgo %d", "SendData",
       cfg.name.c_str(), key.encryptionPKey.c_str(), static_cast<int>(key.encryptionPKey.size()),
       key.sKeyEncAlgo, key.pKeyEncAlgo);
  SealedPayload sealed = Seal(key, data->data, static_cast<uint32_t>(data->size));
  if (!sealed.Complete(cfg.name, key.sKeyEncAlgo)) {
    return key.encryptionPKey.empty() ? LossCause::kNoKey : LossCause::kEncrypt;
  }

  *footer = sealed.Footer();
  const auto sealed_bytes = orb::CheckedCast<uint32_t>(sealed.ciphertext.size);
  const auto footer_bytes = orb::CheckedCast<uint32_t>(footer->size());
  LOGI("%s: %s: out_data_len %d footer_len: %d", "SendData", cfg.name.c_str(),
       static_cast<int>(sealed_bytes), static_cast<int>(footer_bytes));
  header->SetItem(TelemetryHeader::HDR_ITEM_LENGTH,
                  orb::CheckedAdd<uint32_t>(sealed_bytes, footer_bytes));
  header->SetItem(TelemetryHeader::HDR_ITEM_FOOTER_OFFSET,
                  orb::CheckedAdd<uint32_t>(TelemetryHeader::kBytes, sealed_bytes));
  header->SetItem(TelemetryHeader::HDR_ITEM_ENCRYPTED, 1);
  *data = std::move(sealed.ciphertext);
  return std::nullopt;
}

}  // namespace

int Uploader::SendData(const std::string& path, const LicSnTables& tables) {
  FILE* file = orb::Files::Open(path.c_str(), "r+be");
  if (file == nullptr) {
    LOGE("%s: error in opening file %s - %s", "SendData", path.c_str(),
         orb::ErrorText(errno).c_str());
    return -1;
  }
  // No buffer: when a child of fork() exits, its stdio would move the shared position back.
  static_cast<void>(setvbuf(file, nullptr, _IONBF, 0));
  Fate fate;
  int result = -1;
  if (!orb::Contained("SendData", [&] { result = SendOpenFile(file, path, tables, &fate); })) {
    fate.lost = LossCause::kMemory;
  }
  if (!ledger_.Settle(path, fate.lost)) ledger_.SettleRecovered(fate.payload_bytes, fate.lost);
  // The file goes even when the upload failed: there is no second attempt. It is emptied
  // where it cannot be deleted, so that a later start does not find it.
  if (unlink(path.c_str()) != 0 && ftruncate(fileno(file), 0) != 0) {
    LOGE("%s: error in deleting file %s - %s", "SendData", path.c_str(),
         orb::ErrorText(errno).c_str());
  }
  (void)fclose(file);  // It was only read.
  return result;
}

int Uploader::SendOpenFile(FILE* file, const std::string& path, const LicSnTables& tables,
                           Fate* fate) {
  TelemetryHeader header;
  header.ParseFromFile(file);
  const uint32_t payload_bytes = SeekToPayload(file, path);
  fate->payload_bytes = payload_bytes;
  fate->lost = LossCause::kUnreadable;
  if (payload_bytes == 0) return -1;

  orb::MallocBytes data;
  uint32_t compressed_bytes = 0;
  if (GzipRest(file, payload_bytes, &data.data, &compressed_bytes) != 0 || compressed_bytes == 0) {
    LOGE("%s: compress failed", "SendData");
    fate->lost = LossCause::kCompress;
    return -1;
  }
  data.size = compressed_bytes;
  header.SetItem(TelemetryHeader::HDR_ITEM_SEQNO, NextSeqno());
  header.SetItem(TelemetryHeader::HDR_ITEM_LENGTH, compressed_bytes);
  header.SetItem(TelemetryHeader::HDR_ITEM_COMPRESSED, 1);

  std::string footer;
  const uint64_t licSN = header.GetItem(TelemetryHeader::HDR_ITEM_LICSN);
  fate->lost = WantsEncryption(settings_, tables, licSN)
                   ? SealData(settings_, tables.keys, licSN, &header, &data, &footer)
                   : std::nullopt;
  if (fate->lost) {
    LOGE("%s: %s: encrypt enabled but encryption failed - dropping data %s", "SendData",
         settings_.name.c_str(), path.c_str());
    return -1;
  }
  fate->lost = LossCause::kHal;
  const auto client = link_.client();
  if (client == nullptr) return -1;
  const int result =
      client->sendData(link_.token(), NameOf(link_.client_id(), licSN), header.GetHeader().data(),
                       TelemetryHeader::kBytes, data.data, static_cast<uint32_t>(data.size),
                       footer.empty() ? nullptr : reinterpret_cast<const uint8_t*>(footer.data()),
                       orb::CheckedCast<uint32_t>(footer.size()));
  if (result == 0) fate->lost.reset();
  return result;
}

std::string Uploader::NameOf(int32_t client_id, uint64_t suffix) const {
  return "/up/" + std::to_string(client_id) + "/" + settings_.name + "." + std::to_string(suffix);
}

uint32_t Uploader::NextSeqno() {
  orb::MutexLock lock(mutex_);
  const uint32_t seqno = next_seqno((settings_.data_dir + "/" + settings_.name + ".seq").c_str());
  last_seqno_ = seqno;
  return seqno;
}
