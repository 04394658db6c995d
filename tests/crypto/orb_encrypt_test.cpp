// Arguments, keys, round trips, changed payloads and log lines. Built twice:
// ORB_BORINGSSL is 1 in the program that links BoringSSL.
#include "include/orb_encrypt.h"

#include <android/log.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <unistd.h>

#include <functional>
#include <limits>
#include <vector>

#include "tests/crypto/sealed_payload.h"
#include "tests/support/log_capture.h"

namespace orb {
namespace {

// "3 orb_encrypt: text", the whole line.
std::string Debug(const std::string& text) { return "3 orb_encrypt: " + text + "\n"; }

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
  int32_t DecryptGcm() {
    return orb_decrypt_evp2_ecc_aes_gcm(salgo, palgo, pem, data, data_len, key, key_len, iv, iv_len,
                                        tag, 16, out[1], out_len[1]);
  }
  int32_t DecryptCbc() {
    return orb_decrypt_evp2_ecc_aes_cbc(salgo, palgo, pem, data, data_len, key, key_len, iv, iv_len,
                                        out[1], out_len[1]);
  }
};

TEST(OrbEncryptTest, RefusesIncompleteArguments) {
  using Call = int32_t (Args::*)();
  using Change = void (*)(Args&);
  const auto expect_refused = [](Call call, const char* message,
                                 const std::vector<Change>& changes) {
    for (size_t i = 0; i < changes.size(); ++i) {
      const LogCapture log;
      Args args;
      changes[i](args);
      EXPECT_EQ((args.*call)(), 1) << message << ", change " << i;
      EXPECT_EQ(log.Dump(), Debug(message)) << "change " << i;
      for (const uint8_t* buffer : args.buffers) EXPECT_EQ(buffer, nullptr);
    }
  };
  expect_refused(&Args::Encrypt, "invalid arguments",
                 {[](Args& a) { a.pem = nullptr; }, [](Args& a) { a.data = nullptr; },
                  [](Args& a) { a.data_len = 0; }, [](Args& a) { a.out[0] = nullptr; },
                  [](Args& a) { a.out[1] = nullptr; }, [](Args& a) { a.out[2] = nullptr; },
                  [](Args& a) { a.out_len[0] = nullptr; }, [](Args& a) { a.out_len[1] = nullptr; },
                  [](Args& a) { a.out_len[2] = nullptr; }});
  expect_refused(&Args::Encrypt, "invalid arguments-gcm",
                 {[](Args& a) { a.out[3] = nullptr; }, [](Args& a) { a.out_len[3] = nullptr; }});
  expect_refused(&Args::DecryptGcm, "invalid arguments",
                 {[](Args& a) { a.pem = nullptr; }, [](Args& a) { a.data = nullptr; },
                  [](Args& a) { a.data_len = 0; }, [](Args& a) { a.key = nullptr; },
                  [](Args& a) { a.key_len = 0; }, [](Args& a) { a.iv = nullptr; },
                  [](Args& a) { a.iv_len = 11; }, [](Args& a) { a.tag = nullptr; },
                  [](Args& a) { a.out[1] = nullptr; }, [](Args& a) { a.out_len[1] = nullptr; }});
  expect_refused(&Args::DecryptCbc, "invalid arguments", {[](Args& a) { a.iv_len = 15; }});
  // The name of the function tells the mode.
  expect_refused(&Args::DecryptCbc, "invalid arguments-algrorithm",
                 {[](Args&) {}, [](Args& a) { a.salgo = kCbc, a.palgo = 0; }});
  for (const Call call : {&Args::Encrypt, &Args::DecryptGcm}) {
    expect_refused(
        call, "invalid arguments-algrorithm",
        {[](Args& a) { a.salgo = 0; }, [](Args& a) { a.salgo = 3; }, [](Args& a) { a.palgo = 2; }});
  }
}

TEST(OrbEncryptTest, LengthsBeyondTheLibraryFail) {
  const KeyPair own = NewP256();
  Args args;
  args.pem = own.public_pem.c_str();
  args.data_len = uint64_t{std::numeric_limits<int>::max()} - 15;
  const LogCapture log;
  EXPECT_EQ(args.Encrypt(), 2);
  EXPECT_EQ(log.Dump(), Debug("failed to encrypt data 0"));
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
      {"damaged", Damaged(own.public_pem), unreadable, unreadable},
      {"private", own.private_pem, unreadable, unreadable},
      {"infinity", kInfinityPem, "failed to get EC key", unreadable},
      {"RSA", NewKeyPair("RSA").public_pem, "failed to get EC key", "failed to get EC key"},
      {"P-384", NewKeyPair("EC", "P-384").public_pem, other_curve, other_curve},
      {"secp256k1", NewKeyPair("EC", "secp256k1").public_pem, other_curve, unreadable},
  };
  for (const auto& c : cases) {
    for (const int32_t salgo : {kCbc, kGcm}) {
      SCOPED_TRACE(c.name);
      const LogCapture log;
      EXPECT_EQ(Seal(salgo, c.pem, "payload").result, 2);
      EXPECT_EQ(log.Dump(), Debug(ORB_BORINGSSL ? c.boringssl_message : c.message));
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
      {"public", own.public_pem, sealed.key, "can't read asymmetric key to bio_ptr"},
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
    const LogCapture log;
    EXPECT_EQ(Open(kGcm, c.own, changed).result, 2);
    EXPECT_TRUE(log.Contains(c.message)) << log.Dump();
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
  const SealedPayload a = Seal(kGcm, own.public_pem, "the same data");
  const SealedPayload b = Seal(kGcm, own.public_pem, "the same data");
  EXPECT_TRUE(a.key != b.key && a.iv != b.iv && a.data != b.data && a.tag != b.tag);
}

TEST(OrbDecryptTest, GcmNoticesEveryChange) {
  const KeyPair own = NewP256();
  const SealedPayload sealed = Seal(kGcm, own.public_pem, SomeData(100));
  const char* const at_end = "failed to decrypt data final 0";
  const char* const at_tag = "failed to set gcm tag 0";
  const std::vector<std::pair<const char*, std::function<void(SealedPayload&)>>> cases = {
      {at_end, [](SealedPayload& s) { s.tag[15] ^= 1; }},
      {at_end, [](SealedPayload& s) { s.iv[11] ^= 1; }},
      {at_end, [](SealedPayload& s) { s.data.back() ^= 1; }},
      {at_end, [](SealedPayload& s) { s.data.pop_back(); }},
      {at_tag, [](SealedPayload& s) { s.tag.resize(1); }},
      {at_tag, [](SealedPayload& s) { s.tag.resize(17); }},
      {at_tag, [](SealedPayload& s) { s.tag.clear(); }},
  };
  for (const auto& [message, change] : cases) {
    SealedPayload changed = sealed;
    change(changed);
    const LogCapture log;
    EXPECT_EQ(Open(kGcm, own.private_pem, changed).result, 2);
    EXPECT_TRUE(log.Contains(message)) << log.Dump();
    EXPECT_EQ(log.Contains("boringssl error code["), message == at_end) << log.Dump();
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
  EXPECT_EQ(Open(kCbc, own.private_pem, bad_padding).result, 2);

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
  LogCapture log;
  ASSERT_EQ(Open(kCbc, own.private_pem, sealed).result, 0);
  const std::string text = log.Dump();
  const std::string start =
      "4 orb_encrypt: transfer asymmetric key[" + std::to_string(own.private_pem.size()) +
      "] to EVP_PKEY.\n"
      "4 orb_encrypt: get EVP PKEY len 72\n"
      "4 orb_encrypt: get EVP PKEY id 408\n" +
      Debug("get EC GROUP degree[256]") + Debug("malloc [32] bytes for symmetric key") +
      "3 orb_encrypt: compute [32] bytes symmetric key: \r\n";
  EXPECT_EQ(text.substr(0, start.size()), start);
  EXPECT_TRUE(log.Contains("created symmetric key string:0x"));
  EXPECT_TRUE(text.ends_with(Debug("decrypt input[32] bytes to out[20] bytes"))) << text;
}

// The key is shown only when the program itself asked for debug lines. The environment alone
// does not suffice.
TEST(OrbDecryptTest, ShowsTheSecretByTheProgramsOwnLimitOnly) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // A fresh process, which reads the variable.
  const KeyPair own = NewP256();
  const SealedPayload sealed = Seal(kGcm, own.public_pem, "payload");
  const struct {
    const char* tags;
    int own_limit;  // -1: the program sets none.
    bool steps;     // The other debug lines.
    bool secret;
  } cases[] = {{"*:d", -1, true, false},
               {"*:v", -1, true, false},
               {"*:d", ANDROID_LOG_INFO, false, false},
               {"*:d", ANDROID_LOG_DEFAULT, false, false},
               {"*:d", ANDROID_LOG_VERBOSE, true, true},
               {"*:w", ANDROID_LOG_DEBUG, true, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.tags << ", own limit " << c.own_limit);
    setenv("ANDROID_LOG_TAGS", c.tags, 1);
    const auto has = [](bool there, const char* text) -> testing::Matcher<const std::string&> {
      if (there) return testing::HasSubstr(text);
      return testing::Not(testing::HasSubstr(text));
    };
    EXPECT_EXIT(
        {
          if (c.own_limit >= 0) __android_log_set_minimum_priority(c.own_limit);
          _exit(Open(kGcm, own.private_pem, sealed).result);
        },
        testing::ExitedWithCode(0),
        testing::AllOf(has(c.steps, "malloc [32] bytes"), has(c.secret, "] bytes symmetric key:"),
                       has(c.secret, "created symmetric key")));
  }
  unsetenv("ANDROID_LOG_TAGS");
}

// The error queue belongs to the host: its errors and its marks survive every call.
TEST(ErrorQueueTest, KeepsTheHostsErrorsAndMarks) {
  const KeyPair own = NewP256();
  const SealedPayload gcm = Seal(kGcm, own.public_pem, "payload");
  const SealedPayload cbc = Seal(kCbc, own.public_pem, "payload");
  const struct {
    const char* name;
    std::function<int32_t()> call;
    int32_t want;
  } cases[] = {
      {"seal", [&] { return Seal(kGcm, own.public_pem, "payload").result; }, 0},
      {"open GCM", [&] { return Open(kGcm, own.private_pem, gcm).result; }, 0},
      {"open CBC", [&] { return Open(kCbc, own.private_pem, cbc).result; }, 0},
      {"seal, no key", [&] { return Seal(kGcm, "no key", "payload").result; }, 2},
      {"open, no key", [&] { return Open(kGcm, "no key", gcm).result; }, 2},
  };
  const auto put = [](int reason) { ERR_put_error(ERR_LIB_USER, 0, reason, __FILE__, __LINE__); };
  for (const auto& c : cases) {
    for (const int marked : {0, 1, 2}) {  // The host's error that has a mark.
      SCOPED_TRACE(testing::Message() << c.name << ", mark " << marked);
      ERR_clear_error();
      for (const int reason : {1, 2}) {
        put(reason);
        if (reason == marked) ERR_set_mark();
      }
      EXPECT_EQ(c.call(), c.want);
      if (c.want == 0) {
        EXPECT_EQ(ERR_GET_REASON(ERR_peek_last_error()), 2) << "no error of ours is left";
      }
      put(3);
      if (marked != 0) {
        EXPECT_EQ(ERR_pop_to_mark(), 1);
        EXPECT_EQ(ERR_GET_REASON(ERR_peek_last_error()), marked);
      }
      EXPECT_EQ(ERR_GET_REASON(ERR_get_error()), 1);
    }
  }
  ERR_clear_error();
}

}  // namespace
}  // namespace orb
