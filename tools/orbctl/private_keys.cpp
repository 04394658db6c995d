// Tested by tests/orbctl/decode_command_test.cpp.
#include "tools/orbctl/private_keys.h"

#include "tools/orbctl/output.h"

namespace orb::orbctl {
namespace {

constexpr uint64_t kMaxKeyBytes = 64U << 10;

}  // namespace

bool ReadKeys(const std::vector<std::string>& paths, std::vector<reader::PrivateKey>* keys) {
  for (const std::string& path : paths) {
    reader::PrivateKey key{path, ""};
    std::string error;
    if (!ReadFile(path, kMaxKeyBytes, &key.pem, &error)) {
      PrintError(error);
      return false;
    }
    if (key.pem.find("PRIVATE KEY") == std::string::npos) {
      PrintError(path + ": no private key in PEM; give what `orbctl key new` wrote");
      return false;
    }
    keys->push_back(std::move(key));
  }
  return true;
}

}  // namespace orb::orbctl
