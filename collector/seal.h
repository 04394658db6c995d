// One upload's payload, encrypted for the owner of its LicSN.
#pragma once

#include <cstdint>
#include <string>

#include "serializer/licsn_tables.h"
#include "utility/malloc_bytes.h"

struct SealedPayload {
  // True when a receiver could open it: status 0 and all parts there, the tag
  // with GCM only. Logs what is missing.
  bool Complete(const std::string& client_name, int salgo) const;
  // What the receiver needs beside the ciphertext, serialized.
  std::string Footer() const;

  int32_t status = -1;  // orb_encrypt's.
  orb::MallocBytes ciphertext;
  orb::MallocBytes ephemeral_key;
  orb::MallocBytes iv;
  orb::MallocBytes tag;
};

// `bytes` is borrowed: [len] bytes.
SealedPayload Seal(const ISVKeyStruct& key, const uint8_t* bytes, uint32_t len);
