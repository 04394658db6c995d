// Reads keys from PEM text and computes the ECDH secret that encrypts a payload. These
// functions log nothing, because sender and receiver log the same failures differently.
#pragma once

#include <cstddef>
#include <cstdint>

#include "crypto/openssl_handles.h"
#include "crypto/wiped_buffer.h"

namespace orb {

// The algorithm numbers in a campaign.
constexpr int32_t kSymmetricCbc = 1;
constexpr int32_t kSymmetricGcm = 2;
constexpr int32_t kPublicKeyEcdh = 1;

// What the C functions return.
constexpr int32_t kOk = 0;
constexpr int32_t kRefused = 1;
constexpr int32_t kFailed = 2;

constexpr size_t kSecretBytes = 32;  // Size of an x-coordinate on P-256 and of an AES-256 key.
constexpr size_t kIvBytes = 16;
constexpr size_t kTagBytes = 16;
constexpr size_t kSlackBytes = 16;  // An output may be one cipher block longer than its input.

// Makes a read-only view of [length] bytes, which must live as long as the view. Null when that
// fails, or when the length is more than the library can count.
BioPtr ViewBio(const void* bytes, uint64_t length);

// Reads the first public, or private, key in PEM text; null when there is none. A key with a
// passphrase gives null as well: otherwise the library would ask for the passphrase on the
// terminal.
PKeyPtr ReadPublicKey(BIO* pem);
PKeyPtr ReadPrivateKey(BIO* pem);

// Reads a public key of an elliptic curve. ReadPublicKey tries every kind of key, which takes
// twenty times as long. When this returns null, `pem` is at its start again, so that
// ReadPublicKey can find out what it contains.
EcKeyPtr ReadEcPublicKey(BIO* pem);

// Size of a shared secret on the key's curve in bytes, 32 for P-256.
size_t SecretLength(const EC_GROUP* group);

// Stores the x-coordinate of the shared point at `secret`, which must have room for it, padded
// with zeros on the left. Returns its length. With any other length than kSecretBytes the
// secret must not be used: for keys of two curves the library leaves it zero. -1 when a key is
// not on P-256, or an argument is null.
int ComputeSecret(const EC_GROUP* peer_group, const EC_POINT* peer_point, const EC_KEY* own,
                  WipedBuffer* secret);

}  // namespace orb
