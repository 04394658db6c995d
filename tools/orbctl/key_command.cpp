// Tested by tests/orbctl/commands_test.cpp.
#include "tools/orbctl/key_command.h"

#include <fcntl.h>
#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>

#include "tools/orbctl/output.h"
#include "utility/error_text.h"
#include "utility/unique_fd.h"

namespace orb::orbctl {
namespace {

struct ReleaseKey {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
// Also wipes: a memory BIO of secret kind clears its buffer.
struct ReleaseBio {
  void operator()(BIO* bio) const { BIO_free_all(bio); }
};
using Bio = std::unique_ptr<BIO, ReleaseBio>;

// 0, or an errno value. Nothing is left behind on failure.
int WritePem(const std::string& path, mode_t mode, BIO* pem) {
  const UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
  if (!fd.ok()) return errno;
  char* text = nullptr;
  const long bytes = BIO_get_mem_data(pem, &text);
  const bool whole = write(fd.get(), text, static_cast<size_t>(bytes)) == bytes;
  if (whole && fsync(fd.get()) == 0) return 0;
  const int error = errno;
  unlink(path.c_str());
  return error;
}

}  // namespace

int NewKey(const std::string& directory, bool json) {
  const std::string private_path = directory + "/private.pem";
  const std::string public_path = directory + "/public.pem";
  std::error_code ec;
  std::filesystem::create_directories(directory, ec);
  for (const std::string& path : {private_path, public_path}) {
    if (std::filesystem::exists(path, ec)) {
      return Fail(path + " is there already; give another directory");
    }
  }
  const std::unique_ptr<EVP_PKEY, ReleaseKey> key(EVP_EC_gen("P-256"));
  const Bio private_pem(BIO_new(BIO_s_secmem()));
  const Bio public_pem(BIO_new(BIO_s_mem()));
  if (key == nullptr || private_pem == nullptr || public_pem == nullptr ||
      PEM_write_bio_PrivateKey(private_pem.get(), key.get(), nullptr, nullptr, 0, nullptr,
                               nullptr) != 1 ||
      PEM_write_bio_PUBKEY(public_pem.get(), key.get()) != 1) {
    return Fail("the crypto library cannot make a key");
  }
  int error = WritePem(private_path, 0600, private_pem.get());
  if (error != 0) {
    return Fail("cannot write " + private_path + ": " + ErrorText(error));
  }
  error = WritePem(public_path, 0644, public_pem.get());
  if (error != 0) {
    unlink(private_path.c_str());
    return Fail("cannot write " + public_path + ": " + ErrorText(error));
  }
  if (json) {
    PrintLine(nlohmann::json{{"private", private_path}, {"public", public_path}}.dump());
  } else {
    PrintLine(private_path);
    PrintLine(public_path);
  }
  return kOk;
}

}  // namespace orb::orbctl
