// Sealing and opening with owned strings in place of raw buffers, and keys of
// every kind. Keys come from the openssl command, so that a test program that
// links another libcrypto has them, too.
#pragma once

#include <cstdint>
#include <string>

namespace orb {

constexpr int32_t kCbc = 1;
constexpr int32_t kGcm = 2;

struct SealedPayload {
  int32_t result = -1;
  std::string key;  // Ephemeral public key, PEM.
  std::string data;
  std::string iv;
  std::string tag;  // Empty with CBC.
};
// Also fails the test when a failed call left an output behind.
SealedPayload Seal(int32_t salgo, const std::string& recipient_pem, const std::string& data);

struct OpenedPayload {
  int32_t result = -1;
  std::string data;
};
OpenedPayload Open(int32_t salgo, const std::string& private_pem, const SealedPayload& sealed);

struct KeyPair {
  std::string private_pem;
  std::string public_pem;
};
// `algorithm` as `openssl genpkey` names it, such as "EC" or "ED25519";
// `curve` only for EC.
KeyPair NewKeyPair(const std::string& algorithm, const std::string& curve = "");
inline KeyPair NewP256() { return NewKeyPair("EC", "P-256"); }

// The private key, locked by a passphrase.
std::string LockedKey(const std::string& private_pem);

// `bytes` bytes that do not repeat within a cipher block.
std::string SomeData(size_t bytes);

}  // namespace orb
