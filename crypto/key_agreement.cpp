// Tested by tests/crypto/orb_encrypt_test.cpp and interop_test.cpp.
#include "crypto/key_agreement.h"

#include <openssl/ecdh.h>
#include <openssl/pem.h>

#include <climits>

namespace orb {
namespace {

int NoPassphrase(char*, int, int, void*) { return -1; }

bool OnP256(const EC_GROUP* group) {
  return group != nullptr && EC_GROUP_get_curve_name(group) == NID_X9_62_prime256v1;
}

}  // namespace

BioPtr ViewBio(const void* bytes, uint64_t length) {
  if (length > INT_MAX) return nullptr;
  return BioPtr(BIO_new_mem_buf(bytes, static_cast<int>(length)));
}

PKeyPtr ReadPublicKey(BIO* pem) {
  return PKeyPtr(PEM_read_bio_PUBKEY(pem, nullptr, NoPassphrase, nullptr));
}

EcKeyPtr ReadEcPublicKey(BIO* pem) {
  ErrorMark errors;
  EcKeyPtr key(PEM_read_bio_EC_PUBKEY(pem, nullptr, NoPassphrase, nullptr));
  errors.Drop();
  if (key != nullptr && EC_POINT_is_at_infinity(EC_KEY_get0_group(key.get()),
                                                EC_KEY_get0_public_key(key.get())) == 0) {
    return key;
  }
  BIO_reset(pem);
  return nullptr;
}

PKeyPtr ReadPrivateKey(BIO* pem) {
  return PKeyPtr(PEM_read_bio_PrivateKey(pem, nullptr, NoPassphrase, nullptr));
}

size_t SecretLength(const EC_GROUP* group) {
  return (static_cast<size_t>(EC_GROUP_get_degree(group)) + 7) / 8;
}

int ComputeSecret(const EC_GROUP* peer_group, const EC_POINT* peer_point, const EC_KEY* own,
                  WipedBuffer* secret) {
  if (peer_point == nullptr || own == nullptr || secret->bytes() < kSecretBytes) return -1;
  if (!OnP256(peer_group) || !OnP256(EC_KEY_get0_group(own))) return -1;
  return ECDH_compute_key(secret->data(), kSecretBytes, peer_point, own, nullptr);
}

}  // namespace orb
