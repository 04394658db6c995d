// Keys from PEM text, and the ECDH secret that a payload is encrypted with.
// Nothing here logs: sender and receiver name the same failures differently.
#pragma once

#include <cstddef>
#include <cstdint>

#include "crypto/openssl_handles.h"
#include "crypto/wiped_buffer.h"

namespace orb {

// The two selectors, as they travel with a campaign.
constexpr int32_t kSymmetricCbc = 1;
constexpr int32_t kSymmetricGcm = 2;
constexpr int32_t kPublicKeyEcdh = 1;

// Results of the C functions.
constexpr int32_t kOk = 0;
constexpr int32_t kRefused = 1;
constexpr int32_t kFailed = 2;

constexpr size_t kSecretBytes = 32;  // An x-coordinate of P-256, and an AES-256 key.
constexpr size_t kIvBytes = 16;
constexpr size_t kTagBytes = 16;
constexpr size_t kSlackBytes = 16;  // One cipher block more than the input.

// A read-only view of [length] bytes, borrowed while the result lives; null
// when that failed or the length is beyond what the library counts.
BioPtr ViewBio(const void* bytes, uint64_t length);

// The first public, or private, key in PEM text; null without one. A key that
// is locked by a passphrase counts as none: the library would otherwise ask for
// it on the terminal.
PKeyPtr ReadPublicKey(BIO* pem);
PKeyPtr ReadPrivateKey(BIO* pem);

// The same for a public key that must be an elliptic curve's. It does not look
// through every kind of key there is, which takes twenty times as long. Null
// leaves `pem` at its start, for ReadPublicKey to say what is there.
EcKeyPtr ReadEcPublicKey(BIO* pem);

// Bytes of a shared secret on the key's curve, 32 for P-256.
size_t SecretLength(const EC_GROUP* group);

// Stores the x-coordinate of the shared point, zero-padded on the left, at
// `secret`, which has room for it. Returns its length as the library tells it:
// anything but kSecretBytes is a failure and the secret must not be used, as
// the library leaves it zero for keys of two curves. Both keys must be on
// P-256, else -1. Null arguments give -1.
int ComputeSecret(const EC_GROUP* peer_group, const EC_POINT* peer_point, const EC_KEY* own,
                  WipedBuffer* secret);

}  // namespace orb
