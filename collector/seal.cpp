// Tested by tests/collector/upload_test.cpp.
#include "collector/seal.h"

#include "orb_encrypt.h"
#include "proto/telemetry_footer.pb.h"
#include "utility/log.h"

namespace {

std::string AsString(const orb::MallocBytes& bytes) {
  if (bytes.empty()) return std::string();
  return std::string(reinterpret_cast<const char*>(bytes.data), bytes.size);
}

}  // namespace

SealedPayload Seal(const ISVKeyStruct& key, const uint8_t* bytes, uint32_t len) {
  SealedPayload sealed;
  sealed.status = orb_encrypt(key.sKeyEncAlgo, key.pKeyEncAlgo, key.encryptionPKey.c_str(), bytes,
                              len, &sealed.ephemeral_key.data, &sealed.ephemeral_key.size,
                              &sealed.ciphertext.data, &sealed.ciphertext.size, &sealed.iv.data,
                              &sealed.iv.size, &sealed.tag.data, &sealed.tag.size);
  return sealed;
}

bool SealedPayload::Complete(const std::string& client_name, int salgo) const {
  if (status != 0 || ciphertext.empty() || ephemeral_key.empty() || iv.empty()) {
    LOGE("%s: %s: encryption failed - %d", "SendData", client_name.c_str(), status);
    return false;
  }
  if (salgo == ORB_SALGO_AES_256_GCM && tag.empty()) {
    LOGE("%s: %s: encryption failed - %d gcm_tag empty", "SendData", client_name.c_str(), status);
    return false;
  }
  return true;
}

std::string SealedPayload::Footer() const {
  TelemetryFooter footer;
  footer.set_ephemeral_key(AsString(ephemeral_key));
  footer.set_iv(AsString(iv));
  footer.set_gcm_tag(AsString(tag));
  return footer.SerializeAsString();
}
