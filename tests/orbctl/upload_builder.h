// Uploads as a client makes them, for tests of what reads them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace orb::orbctl::test {

struct UploadPlan {
  std::string records;
  uint64_t lic_sn = 42;
  uint32_t seqno = 3;
  bool gzip = true;
  std::string public_pem;  // Empty: not encrypted.
  bool gcm = true;
};

std::string Gzip(const std::string& data);
// The whole file.
std::vector<uint8_t> BuildUpload(const UploadPlan& plan);
// The text of a key: private (of this number) or its public half. Kept for the process.
const std::string& PrivatePem(int number);
const std::string& PublicPem(int number);

}  // namespace orb::orbctl::test
