// Opens a payload that orb_encrypt.cpp sealed.
// Tested by tests/crypto/.
#define ORB_LOG_TAG "orb_encrypt"

#include <climits>
#include <cstring>
#include <optional>

#include "crypto/key_agreement.h"
#include "include/orb_encrypt.h"
#include "utility/checked.h"
#include "utility/log.h"
#include "utility/program_log_limit.h"

namespace orb {
namespace {

// The caller's arguments. `tag` is null with CBC.
struct Sealed {
  const char* private_pem;
  const uint8_t* data;
  uint64_t data_len;
  const uint8_t* ephemeral_pem;
  uint64_t ephemeral_pem_len;
  const uint8_t* iv;
  uint64_t iv_len;
  const uint8_t* tag;
  uint64_t tag_len;

  bool Complete() const {
    return private_pem != nullptr && data != nullptr && data_len != 0 && ephemeral_pem != nullptr &&
           ephemeral_pem_len != 0 && iv != nullptr;
  }
};

unsigned long Ulong(uint64_t value) { return static_cast<unsigned long>(value); }

EcKeyPtr ReadOwnKey(const char* pem) {
  const size_t length = std::strlen(pem);
  LOGI("transfer asymmetric key[%lu] to EVP_PKEY.", Ulong(length));
  const BioPtr bio = ViewBio(pem, length);
  if (bio == nullptr) {
    LOGD("can't read asymmetric key bio_ptr");
    return nullptr;
  }
  const PKeyPtr key = ReadPrivateKey(bio.get());
  if (key == nullptr) {
    LOGD("can't read asymmetric key to bio_ptr");
    return nullptr;
  }
  LOGI("get EVP PKEY len %d", EVP_PKEY_size(key.get()));
  LOGI("get EVP PKEY id %d", EVP_PKEY_id(key.get()));
  EcKeyPtr ec(EVP_PKEY_get1_EC_KEY(key.get()));
  if (ec == nullptr) LOGD("failed to get asymmetric key");
  return ec;
}

EcKeyPtr ReadEphemeralKey(const uint8_t* pem, uint64_t length) {
  const BioPtr bio = ViewBio(pem, length);
  if (bio == nullptr) {
    LOGD("can't read ephemeral_bio_ptr key to bio_ptr");
    return nullptr;
  }
  if (EcKeyPtr quick = ReadEcPublicKey(bio.get())) return quick;
  const PKeyPtr key = ReadPublicKey(bio.get());
  if (key == nullptr) {
    LOGD("can't read ephemeral key");
    return nullptr;
  }
  EcKeyPtr ec(EVP_PKEY_get1_EC_KEY(key.get()));
  if (ec == nullptr) LOGD("failed to get ephemeral EC key");
  return ec;
}

// Logs the secret, which docs/security.md explains. Only a program that set the log limit in
// its own code gets these two lines. If the environment or a property sufficed, others could
// make a program print its keys.
void LogSecret(const WipedBuffer& secret) {
  const int limit = ProgramLogLimit();
  if (limit == ANDROID_LOG_DEFAULT || limit > ANDROID_LOG_DEBUG) return;
  const uint8_t* s = secret.data();  // A NUL follows the secret.
  LOGD("compute [%lu] bytes symmetric key: \r\n%s\r\n", Ulong(kSecretBytes),
       reinterpret_cast<const char*>(s));
  LOGD(
      "created symmetric key string:"
      "0x%02X 0x%02X 0x%02X 0x%02X 0x%02X 0x%02X 0x%02X 0x%02X "
      "0x%02X 0x%02X 0x%02X 0x%02X 0x%02X 0x%02X 0x%02X 0x%02X  ",
      s[0], s[1], s[2], s[3], s[4], s[5], s[6], s[7], s[8], s[9], s[10], s[11], s[12], s[13], s[14],
      s[15]);
}

std::optional<WipedBuffer> AgreeOnSecret(const EC_KEY* own, const EC_KEY* ephemeral) {
  const EC_GROUP* group = EC_KEY_get0_group(own);
  if (group == nullptr) {
    LOGD("failed to get EC key's group");
    return std::nullopt;
  }
  LOGD("get EC GROUP degree[%lu]", Ulong(EC_GROUP_get_degree(group)));
  const size_t length = SecretLength(group);
  WipedBuffer secret(CheckedAdd<size_t>(length, 1));
  if (!secret.ok()) {
    LOGD("failed to malloc [%lu] bytes for symmetric key", Ulong(length));
    return std::nullopt;
  }
  LOGD("malloc [%lu] bytes for symmetric key", Ulong(length));
  const int computed =
      ComputeSecret(EC_KEY_get0_group(ephemeral), EC_KEY_get0_public_key(ephemeral), own, &secret);
  if (computed != static_cast<int>(kSecretBytes)) {
    LOGD("failed to compute symmetric key[%d]", computed);
    return std::nullopt;
  }
  LogSecret(secret);
  return secret;
}

CipherCtxPtr NewCipher(int32_t salgo, const WipedBuffer& secret, const Sealed& in) {
  CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  if (ctx == nullptr) {
    LOGD("failed to create new cipher ctx");
    return nullptr;
  }
  const EVP_CIPHER* cipher = salgo == kSymmetricGcm ? EVP_aes_256_gcm() : EVP_aes_256_cbc();
  if (EVP_DecryptInit_ex(ctx.get(), cipher, nullptr, secret.data(), in.iv) != 1) {
    LOGD("failed to init cipher ctx");
    return nullptr;
  }
  if (salgo != kSymmetricGcm) return ctx;
  // The library accepts a tag of one byte, which can be forged in 256 tries.
  int result = 0;
  if (in.tag_len == kTagBytes) {
    result = EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_TAG, kTagBytes,
                                 const_cast<uint8_t*>(in.tag));
  }
  if (result != 1) {
    LOGD("failed to set gcm tag %d", result);
    return nullptr;
  }
  return ctx;
}

int32_t Decrypt(EVP_CIPHER_CTX* ctx, const Sealed& in, uint8_t** out_data, uint64_t* out_data_len) {
  const uint64_t room = CheckedAdd<uint64_t>(in.data_len, kSlackBytes);
  if (room > INT_MAX) {  // The library counts input and output in int.
    LOGD("failed to decrypt data %d", 0);
    return kFailed;
  }
  WipedBuffer out(static_cast<size_t>(room));
  if (!out.ok()) {
    LOGD("failed to malloc [%lu] bytes for decryption output", Ulong(room));
    return kFailed;
  }
  int written = 0;
  int result = EVP_DecryptUpdate(ctx, out.data(), &written, in.data, static_cast<int>(in.data_len));
  if (result != 1) {
    LOGD("failed to decrypt data %d", result);
    return kFailed;
  }
  int final_bytes = 0;
  result = EVP_DecryptFinal_ex(ctx, out.data() + written, &final_bytes);
  if (result != 1) {
    LOGD("failed to decrypt data final %d", result);
    crypto_error_log_detail();
    return kFailed;
  }
  *out_data_len = CheckedAdd<uint64_t>(written, final_bytes);
  *out_data = out.Release();
  LOGD("decrypt input[%lu] bytes to out[%lu] bytes", Ulong(in.data_len), Ulong(*out_data_len));
  return kOk;
}

int32_t Open(int32_t salgo, const Sealed& in, uint8_t** out_data, uint64_t* out_data_len) {
  const EcKeyPtr own = ReadOwnKey(in.private_pem);
  if (own == nullptr) return kFailed;
  const EcKeyPtr ephemeral = ReadEphemeralKey(in.ephemeral_pem, in.ephemeral_pem_len);
  if (ephemeral == nullptr) return kFailed;
  const std::optional<WipedBuffer> secret = AgreeOnSecret(own.get(), ephemeral.get());
  if (!secret) return kFailed;
  const CipherCtxPtr ctx = NewCipher(salgo, *secret, in);
  if (ctx == nullptr) return kFailed;
  return Decrypt(ctx.get(), in, out_data, out_data_len);
}

// `want_salgo` and `iv_bytes_min` are what the called C function requires.
int32_t CheckAndOpen(int32_t salgo, int32_t want_salgo, int32_t palgo, uint64_t iv_bytes_min,
                     const Sealed& in, uint8_t** out_data, uint64_t* out_data_len) {
  if (!in.Complete() || in.iv_len < iv_bytes_min || out_data == nullptr ||
      out_data_len == nullptr) {
    LOGD("invalid arguments");
    return kRefused;
  }
  if (salgo != want_salgo || palgo != kPublicKeyEcdh) {
    LOGD("invalid arguments-algrorithm");
    return kRefused;
  }
  *out_data = nullptr;
  *out_data_len = 0;
  ErrorMark errors;
  const int32_t result = Open(salgo, in, out_data, out_data_len);
  if (result == kOk) errors.Drop();
  return result;
}

constexpr uint64_t kGcmNonceBytes = 12;

}  // namespace
}  // namespace orb

int32_t orb_decrypt_evp2_ecc_aes_cbc(int32_t salgo, int32_t palgo, const char* private_pem,
                                     const uint8_t* in_data, uint64_t in_len,
                                     const uint8_t* ephemeral_pem, uint64_t ephemeral_pem_len,
                                     const uint8_t* iv, uint64_t iv_len, uint8_t** out_data,
                                     uint64_t* out_data_len) {
  const orb::Sealed in{private_pem, in_data, in_len, ephemeral_pem, ephemeral_pem_len, iv,
                       iv_len,      nullptr, 0};
  return orb::CheckAndOpen(salgo, orb::kSymmetricCbc, palgo, orb::kIvBytes, in, out_data,
                           out_data_len);
}

int32_t orb_decrypt_evp2_ecc_aes_gcm(int32_t salgo, int32_t palgo, const char* private_pem,
                                     const uint8_t* in_data, uint64_t in_len,
                                     const uint8_t* ephemeral_pem, uint64_t ephemeral_pem_len,
                                     const uint8_t* iv, uint64_t iv_len, const uint8_t* tag,
                                     uint64_t tag_len, uint8_t** out_data, uint64_t* out_data_len) {
  if (tag == nullptr) {
    LOGD("invalid arguments");
    return orb::kRefused;
  }
  const orb::Sealed in{private_pem, in_data, in_len, ephemeral_pem, ephemeral_pem_len,
                       iv,          iv_len,  tag,    tag_len};
  return orb::CheckAndOpen(salgo, orb::kSymmetricGcm, palgo, orb::kGcmNonceBytes, in, out_data,
                           out_data_len);
}
