// What we seal opens along a path that shares no code with ours, and the other
// way round: the openssl command derives the secret and runs AES; the tag of
// GCM is computed here from its definition.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>

#include "tests/crypto/sealed_payload.h"
#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"
#include "utility/byte_order.h"

namespace orb {
namespace {

using Block = std::array<uint64_t, 2>;  // 16 bytes, the first one topmost.

std::string Hex(const std::string& bytes) {
  std::string out;
  for (const char c : bytes) {
    out += "0123456789abcdef"[static_cast<uint8_t>(c) >> 4];
    out += "0123456789abcdef"[c & 15];
  }
  return out;
}

Block LoadBlock(const std::string& data, size_t at) {
  uint8_t bytes[16] = {};
  data.copy(reinterpret_cast<char*>(bytes), 16, at);
  return {LoadBigEndian<uint64_t>(bytes), LoadBigEndian<uint64_t>(bytes + 8)};
}

// x * h in GF(2^128), bit 0 being the topmost.
Block Multiply(const Block& x, Block h) {
  Block out = {};
  for (int bit = 0; bit < 128; ++bit) {
    const uint64_t take = -((x[bit / 64] >> (63 - bit % 64)) & 1);
    out[0] ^= h[0] & take;
    out[1] ^= h[1] & take;
    const uint64_t reduce = -(h[1] & 1);
    h[1] = h[1] >> 1 | h[0] << 63;
    h[0] = h[0] >> 1 ^ (reduce & 0xE100000000000000u);
  }
  return out;
}

Block Ghash(const Block& h, const std::string& data) {
  Block y = {};
  for (size_t at = 0; at < data.size(); at += 16) {
    const Block x = LoadBlock(data, at);
    y = Multiply({y[0] ^ x[0], y[1] ^ x[1]}, h);
  }
  return Multiply({y[0], y[1] ^ data.size() * 8}, h);
}

// The openssl command with its files in a directory of its own.
class Command {
 public:
  std::string Run(std::vector<std::string> argv, const std::string& input) {
    const std::string in = dir_.path() + "/in";
    const std::string out = dir_.path() + "/out";
    EXPECT_TRUE(test::WriteFile(in, input));
    argv.insert(argv.begin(), "openssl");
    argv.insert(argv.end(), {"-in", in, "-out", out});
    return RunTo(argv, out);
  }

  // The x-coordinate of the shared point.
  std::string Secret(const std::string& private_pem, const std::string& public_pem) {
    const std::string own = dir_.path() + "/own.pem";
    const std::string peer = dir_.path() + "/peer.pem";
    const std::string out = dir_.path() + "/secret";
    EXPECT_TRUE(test::WriteFile(own, private_pem));
    EXPECT_TRUE(test::WriteFile(peer, public_pem));
    return RunTo({"openssl", "pkeyutl", "-derive", "-inkey", own, "-peerkey", peer, "-out", out},
                 out);
  }

  std::string Cbc(const std::string& secret, const std::string& iv, const std::string& data,
                  const char* direction) {
    return Run({"enc", "-aes-256-cbc", direction, "-K", Hex(secret), "-iv", Hex(iv)}, data);
  }

  // GCM encrypts, and decrypts, with the counter after the tag's own.
  std::string GcmCounter(const std::string& secret, const std::string& iv,
                         const std::string& data) {
    const std::string start = iv.substr(0, 12) + std::string("\0\0\0\2", 4);
    return Run({"enc", "-aes-256-ctr", "-e", "-K", Hex(secret), "-iv", Hex(start)}, data);
  }

  std::string GcmTag(const std::string& secret, const std::string& iv,
                     const std::string& ciphertext) {
    const std::string blocks =
        std::string(16, '\0') + iv.substr(0, 12) + std::string("\0\0\0\1", 4);
    const std::string aes = Run({"enc", "-aes-256-ecb", "-e", "-nopad", "-K", Hex(secret)}, blocks);
    const Block hash = Ghash(LoadBlock(aes, 0), ciphertext);
    const Block mask = LoadBlock(aes, 16);
    uint8_t tag[16];
    StoreBigEndian<uint64_t>(tag, hash[0] ^ mask[0]);
    StoreBigEndian<uint64_t>(tag + 8, hash[1] ^ mask[1]);
    return std::string(reinterpret_cast<char*>(tag), sizeof tag);
  }

 private:
  static std::string RunTo(const std::vector<std::string>& argv, const std::string& out) {
    const test::CommandResult run = test::RunCommand(argv);
    EXPECT_EQ(run.exit_code, 0) << argv[1] << ": " << run.err;
    return test::ReadFileOrEmpty(out);
  }

  test::TempDir dir_;
};

class InteropTest : public testing::TestWithParam<size_t> {
 protected:
  const KeyPair own_ = NewP256();
  const std::string data_ = SomeData(GetParam());
  Command openssl_;
};

TEST_P(InteropTest, OtherPathOpensOurs) {
  const SealedPayload cbc = Seal(kCbc, own_.public_pem, data_);
  std::string secret = openssl_.Secret(own_.private_pem, cbc.key);
  EXPECT_EQ(secret.size(), 32u);
  EXPECT_TRUE(openssl_.Cbc(secret, cbc.iv, cbc.data, "-d") == data_);

  const SealedPayload gcm = Seal(kGcm, own_.public_pem, data_);
  secret = openssl_.Secret(own_.private_pem, gcm.key);
  EXPECT_TRUE(openssl_.GcmCounter(secret, gcm.iv, gcm.data) == data_);
  EXPECT_EQ(Hex(openssl_.GcmTag(secret, gcm.iv, gcm.data)), Hex(gcm.tag));
}

TEST_P(InteropTest, WeOpenTheOtherPaths) {
  const KeyPair ephemeral = NewP256();
  const std::string secret = openssl_.Secret(ephemeral.private_pem, own_.public_pem);
  SealedPayload sealed;
  sealed.key = ephemeral.public_pem;
  sealed.iv = SomeData(16);

  sealed.data = openssl_.Cbc(secret, sealed.iv, data_, "-e");
  LogCapture log;
  EXPECT_TRUE(Open(kCbc, own_.private_pem, sealed).data == data_);
  char first_bytes[16];
  std::snprintf(first_bytes, sizeof first_bytes, "0x%02X 0x%02X ", secret[0] & 0xFF,
                secret[1] & 0xFF);
  EXPECT_TRUE(log.Contains(std::string("created symmetric key string:") + first_bytes))
      << log.Dump();

  sealed.data = openssl_.GcmCounter(secret, sealed.iv, data_);
  sealed.tag = openssl_.GcmTag(secret, sealed.iv, sealed.data);
  EXPECT_TRUE(Open(kGcm, own_.private_pem, sealed).data == data_);
}

INSTANTIATE_TEST_SUITE_P(Bytes, InteropTest, testing::Values(1, 16, 1000, 4 << 20));

}  // namespace
}  // namespace orb
