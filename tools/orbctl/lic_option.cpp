// Tested by tests/orbctl/campaign_lint_test.cpp.
#include "tools/orbctl/lic_option.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdlib>

#include "orb_encrypt.h"
#include "tools/orbctl/output.h"

namespace orb::orbctl {
namespace {

constexpr uint64_t kKeyBytesMax = 1 << 20;

bool ParseLicSn(const std::string& text, uint64_t* lic_sn) {
  const bool hex = text.starts_with("0x") || text.starts_with("0X");
  const std::string digits = hex ? text.substr(2) : text;
  const char* allowed = hex ? "0123456789abcdefABCDEF" : "0123456789";
  if (digits.empty() || digits.find_first_not_of(allowed) != std::string::npos) return false;
  errno = 0;
  *lic_sn = strtoull(digits.c_str(), nullptr, hex ? 16 : 10);
  return errno == 0;
}

int32_t SymmetricAlgo(const std::string& name) {
  if (name == "cbc") return ORB_SALGO_AES_256_CBC;
  if (name == "gcm") return ORB_SALGO_AES_256_GCM;
  return 0;
}

}  // namespace

// The path may hold colons: the first and the last one count.
bool ParseLicOption(const std::string& text, LicOption* option, std::string* error) {
  const size_t first = text.find(':');
  const size_t last = text.rfind(':');
  *option = LicOption();
  if (!ParseLicSn(text.substr(0, first), &option->lic_sn)) {
    *error = fmt::format("--lic {}: LICSN is a number of up to 64 bits", text);
    return false;
  }
  if (first == std::string::npos) return true;
  option->symmetric_algo = first == last ? 0 : SymmetricAlgo(text.substr(last + 1));
  if (option->symmetric_algo == 0) {
    *error = fmt::format("--lic {}: write LICSN, LICSN:PUB.pem:cbc or LICSN:PUB.pem:gcm", text);
    return false;
  }
  option->public_key_algo = ORB_PALGO_ECDH_P256;
  return ReadFile(text.substr(first + 1, last - first - 1), kKeyBytesMax, &option->key_pem, error);
}

bool CanSealFor(const LicOption& option) {
  const uint8_t byte = 0;
  uint8_t *key = nullptr, *data = nullptr, *iv = nullptr, *tag = nullptr;
  uint64_t key_len = 0, data_len = 0, iv_len = 0, tag_len = 0;
  const int32_t status =
      orb_encrypt(option.symmetric_algo, option.public_key_algo, option.key_pem.c_str(), &byte, 1,
                  &key, &key_len, &data, &data_len, &iv, &iv_len, &tag, &tag_len);
  for (uint8_t* buffer : {key, data, iv, tag}) free(buffer);
  return status == 0;
}

}  // namespace orb::orbctl
