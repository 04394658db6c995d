// Seals a payload with a new P-256 key pair, ECDH, and AES-256 in CBC or GCM mode.
// Tested by tests/crypto/.
#define ORB_LOG_TAG "orb_encrypt"

#include "include/orb_encrypt.h"

#include <openssl/pem.h>
#include <openssl/rand.h>

#include <climits>
#include <cstring>
#include <optional>

#include "crypto/key_agreement.h"
#include "utility/checked.h"
#include "utility/log.h"

namespace orb {
namespace {

// One output of the caller. It is set completely or, after a failure, is empty.
struct Output {
  uint8_t** data;
  uint64_t* length;

  void Clear() const {
    if (data != nullptr) *data = nullptr;
    if (length != nullptr) *length = 0;
  }
  void Take(WipedBuffer* buffer, uint64_t bytes) const {
    *data = buffer->Release();
    *length = bytes;
  }
};

EcKeyPtr ReadRecipient(const char* pem) {
  const BioPtr bio = ViewBio(pem, std::strlen(pem));
  if (bio == nullptr) {
    LOGD("can't mallic BIO mem buf");
    return nullptr;
  }
  if (EcKeyPtr quick = ReadEcPublicKey(bio.get())) return quick;
  const PKeyPtr key = ReadPublicKey(bio.get());
  if (key == nullptr) {
    LOGD("can't read asymmetric key");
    return nullptr;
  }
  EcKeyPtr ec(EVP_PKEY_get1_EC_KEY(key.get()));
  if (ec == nullptr) LOGD("failed to get EC key");
  return ec;
}

PKeyPtr GenerateKeyPair() {
  const PKeyCtxPtr ctx(EVP_PKEY_CTX_new_id(EVP_PKEY_EC, nullptr));
  if (ctx == nullptr) {
    LOGD("failed to new EVP PKEY ctx");
    return nullptr;
  }
  if (EVP_PKEY_keygen_init(ctx.get()) <= 0) {
    LOGD("failed to init EVP PKEY kengen");
    return nullptr;
  }
  if (EVP_PKEY_CTX_set_ec_paramgen_curve_nid(ctx.get(), NID_X9_62_prime256v1) <= 0) {
    LOGD("failed to set EVP PKEY param");
    return nullptr;
  }
  EVP_PKEY* key = nullptr;
  if (EVP_PKEY_keygen(ctx.get(), &key) <= 0) {
    LOGD("failed to generate ephemeral pkey");
    return nullptr;
  }
  return PKeyPtr(key);
}

// Writes the public key as PEM text with a NUL at its end.
std::optional<WipedBuffer> ExportPublicKey(EVP_PKEY* key) {
  const BioPtr bio(BIO_new(BIO_s_mem()));
  if (bio == nullptr) {
    LOGD("failed to new ephemeral BIO");
    return std::nullopt;
  }
  if (PEM_write_bio_PUBKEY(bio.get(), key) != 1) {
    LOGD("failed to write ephemeral BIO");
    return std::nullopt;
  }
  const size_t pending = BIO_pending(bio.get());
  WipedBuffer pem(CheckedAdd<size_t>(pending, 1));
  if (!pem.ok()) {
    LOGD("failed to malloc memeory for out key");
    return std::nullopt;
  }
  if (pending == 0 ||
      BIO_read(bio.get(), pem.data(), static_cast<int>(pending)) != static_cast<int>(pending)) {
    LOGD("failed to copy out ephemeral key");
    return std::nullopt;
  }
  return pem;
}

std::optional<WipedBuffer> AgreeOnSecret(const EC_KEY* recipient, const EC_KEY* ephemeral) {
  const EC_POINT* point = EC_KEY_get0_public_key(recipient);
  if (point == nullptr) {
    LOGD("failed to get EC public key");
    return std::nullopt;
  }
  const EC_GROUP* group = EC_KEY_get0_group(recipient);
  if (group == nullptr) {
    LOGD("failed to get EC key group");
    return std::nullopt;
  }
  const size_t length = SecretLength(group);
  WipedBuffer secret(CheckedAdd<size_t>(length, 1));
  if (!secret.ok()) {
    LOGD("failed to malloc [%lu] bytes", static_cast<unsigned long>(length));
    return std::nullopt;
  }
  const int computed = ComputeSecret(group, point, ephemeral, &secret);
  if (computed != static_cast<int>(kSecretBytes)) {
    LOGD("failed to call ECDH_compute_key() %d", computed);
    return std::nullopt;
  }
  return secret;
}

std::optional<WipedBuffer> NewIv() {
  WipedBuffer iv(kIvBytes);
  if (!iv.ok()) {
    LOGD("failed to malloc iv");
    return std::nullopt;
  }
  if (RAND_bytes(iv.data(), kIvBytes) != 1) {
    LOGD("failed to generate iv");
    return std::nullopt;
  }
  return iv;
}

struct Ciphertext {
  WipedBuffer data;
  uint64_t length;
};

// Encrypts the whole input in one pass. `ctx` has its key already.
std::optional<Ciphertext> Encrypt(EVP_CIPHER_CTX* ctx, const uint8_t* data, uint64_t data_len) {
  const uint64_t room = CheckedAdd<uint64_t>(data_len, kSlackBytes);
  if (room > INT_MAX) {  // The library counts input and output in int.
    LOGD("failed to encrypt data %d", 0);
    return std::nullopt;
  }
  WipedBuffer out(static_cast<size_t>(room));
  if (!out.ok()) {
    LOGD("failed to malloc [%lu] bytes for encryption output", static_cast<unsigned long>(room));
    return std::nullopt;
  }
  int written = 0;
  int result = EVP_EncryptUpdate(ctx, out.data(), &written, data, static_cast<int>(data_len));
  if (result != 1) {
    LOGD("failed to encrypt data %d", result);
    return std::nullopt;
  }
  int final_bytes = 0;
  result = EVP_EncryptFinal_ex(ctx, out.data() + written, &final_bytes);
  if (result != 1) {
    LOGD("failed to encrypt data final %d", result);
    return std::nullopt;
  }
  return Ciphertext{std::move(out), CheckedAdd<uint64_t>(written, final_bytes)};
}

std::optional<WipedBuffer> ReadTag(EVP_CIPHER_CTX* ctx) {
  WipedBuffer tag(kTagBytes);
  if (!tag.ok()) {
    LOGD("failed to malloc gcm tag");
    return std::nullopt;
  }
  const int result = EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_GET_TAG, kTagBytes, tag.data());
  if (result != 1) {
    LOGD("failed to get gcm tag %d", result);
    return std::nullopt;
  }
  return tag;
}

struct Outputs {
  Output key, data, iv, tag;
};

// Makes a context with a key for one payload. CBC takes 16 bytes of the IV, GCM the first 12.
CipherCtxPtr NewCipher(int32_t salgo, const WipedBuffer& secret, const WipedBuffer& iv) {
  CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  if (ctx == nullptr) {
    LOGD("failed to create new cipher ctx");
    return nullptr;
  }
  const EVP_CIPHER* cipher = salgo == kSymmetricGcm ? EVP_aes_256_gcm() : EVP_aes_256_cbc();
  if (EVP_EncryptInit_ex(ctx.get(), cipher, nullptr, secret.data(), iv.data()) != 1) {
    LOGD("failed to init cipher ctx");
    return nullptr;
  }
  return ctx;
}

// Sets all outputs or none.
int32_t Seal(int32_t salgo, const char* recipient_pem, const uint8_t* data, uint64_t data_len,
             const Outputs& out) {
  const EcKeyPtr recipient = ReadRecipient(recipient_pem);
  if (recipient == nullptr) return kFailed;
  const PKeyPtr pair = GenerateKeyPair();
  if (pair == nullptr) return kFailed;
  const EcKeyPtr ephemeral(EVP_PKEY_get1_EC_KEY(pair.get()));
  if (ephemeral == nullptr) {
    LOGD("failed to get ephemeral ECkey");
    return kFailed;
  }
  std::optional<WipedBuffer> pem = ExportPublicKey(pair.get());
  if (!pem) return kFailed;
  const std::optional<WipedBuffer> secret = AgreeOnSecret(recipient.get(), ephemeral.get());
  if (!secret) return kFailed;
  std::optional<WipedBuffer> iv = NewIv();
  if (!iv) return kFailed;
  const CipherCtxPtr ctx = NewCipher(salgo, *secret, *iv);
  if (ctx == nullptr) return kFailed;
  std::optional<Ciphertext> sealed = Encrypt(ctx.get(), data, data_len);
  if (!sealed) return kFailed;
  if (salgo == kSymmetricGcm) {
    std::optional<WipedBuffer> tag = ReadTag(ctx.get());
    if (!tag) return kFailed;
    out.tag.Take(&*tag, kTagBytes);
  }
  out.key.Take(&*pem, pem->bytes() - 1);
  out.iv.Take(&*iv, kIvBytes);
  out.data.Take(&sealed->data, sealed->length);
  return kOk;
}

}  // namespace
}  // namespace orb

int32_t orb_encrypt(int32_t salgo, int32_t palgo, const char* recipient_pem, const uint8_t* data,
                    uint64_t data_len, uint8_t** out_key, uint64_t* out_key_len, uint8_t** out_data,
                    uint64_t* out_data_len, uint8_t** out_iv, uint64_t* out_iv_len,
                    uint8_t** out_tag, uint64_t* out_tag_len) {
  if (recipient_pem == nullptr || data == nullptr || data_len == 0 || out_key == nullptr ||
      out_key_len == nullptr || out_data == nullptr || out_data_len == nullptr ||
      out_iv == nullptr || out_iv_len == nullptr) {
    LOGD("invalid arguments");
    return orb::kRefused;
  }
  if ((salgo != orb::kSymmetricCbc && salgo != orb::kSymmetricGcm) ||
      palgo != orb::kPublicKeyEcdh) {
    LOGD("invalid arguments-algrorithm");
    return orb::kRefused;
  }
  if (salgo == orb::kSymmetricGcm && (out_tag == nullptr || out_tag_len == nullptr)) {
    LOGD("invalid arguments-gcm");
    return orb::kRefused;
  }
  const orb::Outputs outputs{{out_key, out_key_len},
                             {out_data, out_data_len},
                             {out_iv, out_iv_len},
                             {out_tag, out_tag_len}};
  for (const orb::Output& output : {outputs.key, outputs.data, outputs.iv, outputs.tag}) {
    output.Clear();
  }
  orb::ErrorMark errors;
  const int32_t result = orb::Seal(salgo, recipient_pem, data, data_len, outputs);
  if (result == orb::kOk) errors.Drop();
  return result;
}
