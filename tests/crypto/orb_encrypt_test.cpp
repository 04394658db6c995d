// Arguments, keys, round trips, changed payloads and log lines. Built twice:
// ORB_BORINGSSL is 1 in the program that links BoringSSL.
#include "include/orb_encrypt.h"

#include <android/log.h>
#include <gtest/gtest.h>

#include <functional>
#include <limits>

#include "tests/crypto/sealed_payload.h"
#include "tests/support/log_capture.h"

namespace orb {
namespace {

constexpr char kTag[] = "orb_encrypt";

bool Debug(const LogCapture& log, const std::string& text) {
  return log.Has(ANDROID_LOG_DEBUG, kTag, text);
}

// All arguments of the three functions, valid until a case changes them.
struct Args {
  int32_t salgo = kGcm;
  int32_t palgo = 1;
  const char* pem = "no key";
  const uint8_t* data = reinterpret_cast<const uint8_t*>("payload");
  uint64_t data_len = 7;
  uint8_t* buffers[4] = {};
  uint64_t lengths[4] = {};
  uint8_t** out[4] = {&buffers[0], &buffers[1], &buffers[2], &buffers[3]};  // key data iv tag
  uint64_t* out_len[4] = {&lengths[0], &lengths[1], &lengths[2], &lengths[3]};
  const uint8_t* key = data;
  uint64_t key_len = 7;
  const uint8_t* iv = reinterpret_cast<const uint8_t*>("0123456789abcdef");
  uint64_t iv_len = 16;
  const uint8_t* tag = iv;

  int32_t Encrypt() {
    return orb_encrypt(salgo, palgo, pem, data, data_len, out[0], out_len[0], out[1], out_len[1],
                       out[2], out_len[2], out[3], out_len[3]);
  }
  int32_t Decrypt() {
    if (salgo != kGcm) {
      return orb_decrypt_evp2_ecc_aes_cbc(salgo, palgo, pem, data, data_len, key, key_len, iv,
                                          iv_len, out[1], out_len[1]);
    }
    return orb_decrypt_evp2_ecc_aes_gcm(salgo, palgo, pem, data, data_len, key, key_len, iv, iv_len,
                                        tag, 16, out[1], out_len[1]);
  }
};

struct RefusedCase {
  const char* name;
  std::function<void(Args&)> change;
  const char* message;
};

void ExpectRefused(const std::vector<RefusedCase>& cases, int32_t (Args::*call)()) {
  for (const RefusedCase& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture log;
    Args args;
    c.change(args);
    EXPECT_EQ((args.*call)(), 1);
    EXPECT_EQ(log.Lines(), (std::vector<LogLine>{{ANDROID_LOG_DEBUG, kTag, c.message}}));
    for (const uint8_t* buffer : args.buffers) EXPECT_EQ(buffer, nullptr);
  }
}

TEST(OrbEncryptTest, RefusesIncompleteArguments) {
  std::vector<RefusedCase> cases = {
      {"pem", [](Args& a) { a.pem = nullptr; }, "invalid arguments"},
      {"data", [](Args& a) { a.data = nullptr; }, "invalid arguments"},
      {"no data", [](Args& a) { a.data_len = 0; }, "invalid arguments"},
      {"salgo 0", [](Args& a) { a.salgo = 0; }, "invalid arguments-algrorithm"},
      {"salgo 3", [](Args& a) { a.salgo = 3; }, "invalid arguments-algrorithm"},
      {"palgo 2", [](Args& a) { a.palgo = 2; }, "invalid arguments-algrorithm"},
      {"tag", [](Args& a) { a.out[3] = nullptr; }, "invalid arguments-gcm"},
      {"tag length", [](Args& a) { a.out_len[3] = nullptr; }, "invalid arguments-gcm"},
  };
  for (int i = 0; i < 3; ++i) {
    cases.push_back({"out", [i](Args& a) { a.out[i] = nullptr; }, "invalid arguments"});
    cases.push_back({"out length", [i](Args& a) { a.out_len[i] = nullptr; }, "invalid arguments"});
  }
  ExpectRefused(cases, &Args::Encrypt);
}

TEST(OrbDecryptTest, RefusesIncompleteArguments) {
  ExpectRefused(
      {
          {"pem", [](Args& a) { a.pem = nullptr; }, "invalid arguments"},
          {"data", [](Args& a) { a.data = nullptr; }, "invalid arguments"},
          {"no data", [](Args& a) { a.data_len = 0; }, "invalid arguments"},
          {"key", [](Args& a) { a.key = nullptr; }, "invalid arguments"},
          {"no key", [](Args& a) { a.key_len = 0; }, "invalid arguments"},
          {"iv", [](Args& a) { a.iv = nullptr; }, "invalid arguments"},
          {"short nonce", [](Args& a) { a.iv_len = 11; }, "invalid arguments"},
          {"short iv", [](Args& a) { a.salgo = kCbc, a.iv_len = 15; }, "invalid arguments"},
          {"tag", [](Args& a) { a.tag = nullptr; }, "invalid arguments"},
          {"out", [](Args& a) { a.out[1] = nullptr; }, "invalid arguments"},
          {"out length", [](Args& a) { a.out_len[1] = nullptr; }, "invalid arguments"},
          {"salgo 0", [](Args& a) { a.salgo = 0; }, "invalid arguments-algrorithm"},
          {"palgo 0", [](Args& a) { a.palgo = 0; }, "invalid arguments-algrorithm"},
      },
      &Args::Decrypt);
  // The name of the function tells the mode.
  Args args;
  EXPECT_EQ(orb_decrypt_evp2_ecc_aes_cbc(kGcm, 1, args.pem, args.data, 7, args.key, 7, args.iv, 16,
                                         args.out[1], args.out_len[1]),
            1);
}

TEST(OrbEncryptTest, LengthsBeyondTheLibraryFail) {
  const KeyPair own = NewP256();
  Args args;
  args.pem = own.public_pem.c_str();
  args.data_len = uint64_t{std::numeric_limits<int>::max()} - 15;
  LogCapture log;
  EXPECT_EQ(args.Encrypt(), 2);
  EXPECT_TRUE(Debug(log, "failed to encrypt data 0")) << log.Dump();
  args.data_len = UINT64_MAX - 15;
  EXPECT_DEATH(args.Encrypt(), "");
}

std::string Damaged(std::string pem) {
  pem[pem.size() / 2] = '!';
  return pem;
}

// A P-256 key whose point is the one at infinity: it would give a zero secret.
constexpr char kInfinityPem[] =
    "-----BEGIN PUBLIC KEY-----\n"
    "MBkwEwYHKoZIzj0CAQYIKoZIzj0DAQcDAgAA\n"
    "-----END PUBLIC KEY-----\n";

TEST(OrbEncryptTest, NeverSealsForAWrongKey) {
  const char* const unreadable = "can't read asymmetric key";
  const char* const other_curve = "failed to call ECDH_compute_key() -1";
  const KeyPair own = NewP256();
  const struct {
    const char* name;
    std::string pem;
    const char* message;
    const char* boringssl_message;  // It knows fewer curves.
  } cases[] = {
      {"empty", "", unreadable, unreadable},
      {"text", "none of this is a key", unreadable, unreadable},
      {"damaged", Damaged(own.public_pem), unreadable, unreadable},
      {"cut", own.public_pem.substr(0, 100), unreadable, unreadable},
      {"private", own.private_pem, unreadable, unreadable},
      {"infinity", kInfinityPem, "failed to get EC key", unreadable},
      {"RSA", NewKeyPair("RSA").public_pem, "failed to get EC key", "failed to get EC key"},
      {"Ed25519", NewKeyPair("ED25519").public_pem, "failed to get EC key", "failed to get EC key"},
      {"P-224", NewKeyPair("EC", "P-224").public_pem, other_curve, other_curve},
      {"P-384", NewKeyPair("EC", "P-384").public_pem, other_curve, other_curve},
      {"P-521", NewKeyPair("EC", "P-521").public_pem, other_curve, other_curve},
      {"secp256k1", NewKeyPair("EC", "secp256k1").public_pem, other_curve, unreadable},
      {"brainpool", NewKeyPair("EC", "brainpoolP256r1").public_pem, other_curve, unreadable},
  };
  for (const auto& c : cases) {
    for (const int32_t salgo : {kCbc, kGcm}) {
      SCOPED_TRACE(c.name);
      LogCapture log;
      EXPECT_EQ(Seal(salgo, c.pem, "payload").result, 2);
      EXPECT_TRUE(Debug(log, ORB_BORINGSSL ? c.boringssl_message : c.message)) << log.Dump();
    }
  }
}

TEST(OrbDecryptTest, NeverOpensWithAWrongKey) {
  const KeyPair own = NewP256();
  const KeyPair p384 = NewKeyPair("EC", "P-384");
  const KeyPair rsa = NewKeyPair("RSA");
  const SealedPayload sealed = Seal(kGcm, own.public_pem, "payload");
  const struct {
    const char* name;
    std::string own;
    std::string ephemeral;
    const char* message;
  } cases[] = {
      {"empty", "", sealed.key, "can't read asymmetric key to bio_ptr"},
      {"public", own.public_pem, sealed.key, "can't read asymmetric key to bio_ptr"},
      {"damaged", Damaged(own.private_pem), sealed.key, "can't read asymmetric key to bio_ptr"},
      {"locked", LockedKey(own.private_pem), sealed.key, "can't read asymmetric key to bio_ptr"},
      {"RSA", rsa.private_pem, sealed.key, "failed to get asymmetric key"},
      {"P-384", p384.private_pem, sealed.key, "failed to compute symmetric key[-1]"},
      {"another's", NewP256().private_pem, sealed.key, "failed to decrypt data final 0"},
      {"damaged sender", own.private_pem, Damaged(sealed.key), "can't read ephemeral key"},
      {"RSA sender", own.private_pem, rsa.public_pem, "failed to get ephemeral EC key"},
      {"P-384 sender", own.private_pem, p384.public_pem, "failed to compute symmetric key[-1]"},
      {"P-384 both", p384.private_pem, p384.public_pem, "failed to compute symmetric key[-1]"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    SealedPayload changed = sealed;
    changed.key = c.ephemeral;
    LogCapture log;
    EXPECT_EQ(Open(kGcm, c.own, changed).result, 2);
    EXPECT_TRUE(Debug(log, c.message)) << log.Dump();
  }
}

TEST(OrbEncryptTest, CbcNeedsNoTag) {
  const KeyPair own = NewP256();
  Args args;
  args.salgo = kCbc;
  args.pem = own.public_pem.c_str();
  args.out[3] = nullptr;
  args.out_len[3] = nullptr;
  EXPECT_EQ(args.Encrypt(), 0);
  EXPECT_EQ(args.buffers[0][args.lengths[0]], '\0');  // A C string as well.
  for (uint8_t* buffer : args.buffers) std::free(buffer);
}

TEST(OrbEncryptTest, NothingRepeatsBetweenTwoPayloads) {
  const KeyPair own = NewP256();
  for (const int32_t salgo : {kCbc, kGcm}) {
    const SealedPayload a = Seal(salgo, own.public_pem, "the same data");
    const SealedPayload b = Seal(salgo, own.public_pem, "the same data");
    EXPECT_NE(a.key, b.key);
    EXPECT_NE(a.iv, b.iv);
    EXPECT_NE(a.data, b.data);
    if (salgo == kGcm) {
      EXPECT_NE(a.tag, b.tag);
    }
  }
}

TEST(OrbDecryptTest, GcmNoticesEveryChange) {
  const KeyPair own = NewP256();
  const SealedPayload sealed = Seal(kGcm, own.public_pem, SomeData(100));
  const struct {
    const char* name;
    std::function<void(SealedPayload&)> change;
    const char* message;
  } cases[] = {
      {"tag", [](SealedPayload& s) { s.tag[15] ^= 1; }, "failed to decrypt data final 0"},
      {"iv", [](SealedPayload& s) { s.iv[11] ^= 1; }, "failed to decrypt data final 0"},
      {"first", [](SealedPayload& s) { s.data.front() ^= 1; }, "failed to decrypt data final 0"},
      {"last", [](SealedPayload& s) { s.data.back() ^= 1; }, "failed to decrypt data final 0"},
      {"cut", [](SealedPayload& s) { s.data.pop_back(); }, "failed to decrypt data final 0"},
      {"short tag", [](SealedPayload& s) { s.tag.resize(1); }, "failed to set gcm tag 0"},
      {"long tag", [](SealedPayload& s) { s.tag.resize(17); }, "failed to set gcm tag 0"},
      {"no tag", [](SealedPayload& s) { s.tag.clear(); }, "failed to set gcm tag 0"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    SealedPayload changed = sealed;
    c.change(changed);
    LogCapture log;
    EXPECT_EQ(Open(kGcm, own.private_pem, changed).result, 2);
    EXPECT_TRUE(Debug(log, c.message)) << log.Dump();
    const bool at_end = std::string(c.message).find("final") != std::string::npos;
    EXPECT_EQ(log.Contains("boringssl error code["), at_end) << log.Dump();
  }
  // The last four bytes of the IV are no part of the nonce.
  SealedPayload same = sealed;
  same.iv.resize(12);
  EXPECT_EQ(Open(kGcm, own.private_pem, same).result, 0);
}

TEST(OrbDecryptTest, CbcNoticesBadPaddingOnly) {
  const KeyPair own = NewP256();
  const std::string data = SomeData(32);
  const SealedPayload sealed = Seal(kCbc, own.public_pem, data);

  SealedPayload bad_padding = sealed;
  bad_padding.data[31] ^= 1;  // Makes the padding byte 16 a 17.
  LogCapture log;
  EXPECT_EQ(Open(kCbc, own.private_pem, bad_padding).result, 2);
  EXPECT_TRUE(Debug(log, "failed to decrypt data final 0")) << log.Dump();
  EXPECT_TRUE(log.Contains("boringssl error code[")) << log.Dump();

  SealedPayload cut = sealed;
  cut.data.pop_back();
  EXPECT_EQ(Open(kCbc, own.private_pem, cut).result, 2);

  SealedPayload forged = sealed;
  forged.iv[0] ^= 0x20;
  std::string want = data;
  want[0] ^= 0x20;
  EXPECT_EQ(Open(kCbc, own.private_pem, forged).data, want);
}

TEST(OrbDecryptTest, TellsItsSteps) {
  const KeyPair own = NewP256();
  const SealedPayload sealed = Seal(kCbc, own.public_pem, "twenty bytes of data");
  const std::string length = std::to_string(own.private_pem.size());
  LogCapture log;
  ASSERT_EQ(Open(kCbc, own.private_pem, sealed).result, 0);
  EXPECT_TRUE(
      log.Has(ANDROID_LOG_INFO, kTag, "transfer asymmetric key[" + length + "] to EVP_PKEY."));
  EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, kTag, "get EVP PKEY len 72"));
  EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, kTag, "get EVP PKEY id 408"));
  EXPECT_TRUE(Debug(log, "get EC GROUP degree[256]"));
  EXPECT_TRUE(Debug(log, "malloc [32] bytes for symmetric key"));
  EXPECT_TRUE(log.Contains("compute [32] bytes symmetric key: \r\n"));
  EXPECT_TRUE(log.Contains("created symmetric key string:0x"));
  EXPECT_TRUE(Debug(log, "decrypt input[32] bytes to out[20] bytes")) << log.Dump();
}

TEST(OrbDecryptTest, AboveDebugNoSecretIsLogged) {
  const KeyPair own = NewP256();
  const SealedPayload sealed = Seal(kGcm, own.public_pem, "payload");
  LogCapture log;
  const int before = __android_log_set_minimum_priority(ANDROID_LOG_INFO);
  EXPECT_EQ(Open(kGcm, own.private_pem, sealed).data, "payload");
  __android_log_set_minimum_priority(before);
  EXPECT_TRUE(log.Contains("get EVP PKEY id"));
  EXPECT_FALSE(log.Contains("symmetric key:")) << log.Dump();
  EXPECT_FALSE(log.Contains("symmetric key string")) << log.Dump();
}

}  // namespace
}  // namespace orb
