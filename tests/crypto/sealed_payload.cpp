#include "tests/crypto/sealed_payload.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "include/orb_encrypt.h"
#include "tests/support/child_process.h"

namespace orb {
namespace {

// A buffer and a length that the library fills.
struct Filled {
  uint8_t* data = reinterpret_cast<uint8_t*>(1);  // Must not survive a call.
  uint64_t length = 77;

  std::string Take() {
    if (data == nullptr) {
      EXPECT_EQ(length, 0u);
      return "";
    }
    std::string out(reinterpret_cast<char*>(data), length);
    std::free(data);
    return out;
  }
};

const uint8_t* Bytes(const std::string& text) {
  return reinterpret_cast<const uint8_t*>(text.data());
}

std::string MustRun(const std::vector<std::string>& argv) {
  const test::CommandResult run = test::RunCommand(argv);
  EXPECT_EQ(run.exit_code, 0) << argv[1] << ": " << run.err;
  return run.out;
}

}  // namespace

SealedPayload Seal(int32_t salgo, const std::string& recipient_pem, const std::string& data) {
  Filled key, sealed, iv, tag;
  SealedPayload out;
  out.result =
      orb_encrypt(salgo, 1, recipient_pem.c_str(), Bytes(data), data.size(), &key.data, &key.length,
                  &sealed.data, &sealed.length, &iv.data, &iv.length, &tag.data, &tag.length);
  out.key = key.Take();
  out.data = sealed.Take();
  out.iv = iv.Take();
  out.tag = tag.Take();
  if (out.result != 0) {
    EXPECT_EQ(out.key + out.data + out.iv + out.tag, "");
  }
  return out;
}

OpenedPayload Open(int32_t salgo, const std::string& private_pem, const SealedPayload& sealed) {
  Filled data;
  OpenedPayload out;
  if (salgo == kCbc) {
    out.result = orb_decrypt_evp2_ecc_aes_cbc(
        salgo, 1, private_pem.c_str(), Bytes(sealed.data), sealed.data.size(), Bytes(sealed.key),
        sealed.key.size(), Bytes(sealed.iv), sealed.iv.size(), &data.data, &data.length);
  } else {
    out.result = orb_decrypt_evp2_ecc_aes_gcm(
        salgo, 1, private_pem.c_str(), Bytes(sealed.data), sealed.data.size(), Bytes(sealed.key),
        sealed.key.size(), Bytes(sealed.iv), sealed.iv.size(), Bytes(sealed.tag), sealed.tag.size(),
        &data.data, &data.length);
  }
  if (out.result == 1) return out;  // Nothing was written.
  out.data = data.Take();
  if (out.result != 0) {
    EXPECT_EQ(out.data, "");
  }
  return out;
}

KeyPair NewKeyPair(const std::string& algorithm, const std::string& curve) {
  const test::TempDir dir;
  const std::string path = dir.path() + "/key.pem";
  std::vector<std::string> argv = {"openssl", "genpkey", "-algorithm", algorithm, "-out", path};
  if (!curve.empty()) argv.insert(argv.end(), {"-pkeyopt", "ec_paramgen_curve:" + curve});
  MustRun(argv);
  return {test::ReadFileOrEmpty(path), MustRun({"openssl", "pkey", "-in", path, "-pubout"})};
}

std::string LockedKey(const std::string& private_pem) {
  const test::TempDir dir;
  const std::string path = dir.path() + "/key.pem";
  EXPECT_TRUE(test::WriteFile(path, private_pem));
  return MustRun({"openssl", "pkey", "-in", path, "-aes256", "-passout", "pass:secret"});
}

std::string SomeData(size_t bytes) {
  std::string out(bytes, '\0');
  uint32_t state = 12345;
  for (char& c : out) {
    state = state * 1664525u + 1013904223u;
    c = static_cast<char>(state >> 24);
  }
  return out;
}

}  // namespace orb
