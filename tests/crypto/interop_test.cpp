// What we seal opens with the openssl command, which shares no code with ours, and with
// our own functions: so those open what the command would have sealed.
#include <gtest/gtest.h>

#include "tests/crypto/sealed_payload.h"
#include "tests/support/child_process.h"
#include "tests/support/hex.h"

namespace orb {
namespace {

using test::ToHex;

// Runs openssl with `input` in the file IN of its directory; the content of its file OUT.
std::string Openssl(const test::TempDir& dir, std::vector<std::string> args,
                    const std::string& input) {
  EXPECT_TRUE(test::WriteFile(dir.path() + "/in", input));
  args.insert(args.begin(), "openssl");
  args.insert(args.end(), {"-in", dir.path() + "/in", "-out", dir.path() + "/out"});
  const test::CommandResult run = test::RunCommand(args);
  EXPECT_EQ(run.exit_code, 0) << args[1] << ": " << run.err;
  return test::ReadFileOrEmpty(dir.path() + "/out");
}

TEST(InteropTest, AnotherProgramOpensOurs) {
  const KeyPair own = NewP256();
  const test::TempDir dir;
  const std::string private_path = dir.path() + "/own.pem";
  const std::string ephemeral_path = dir.path() + "/peer.pem";
  ASSERT_TRUE(test::WriteFile(private_path, own.private_pem));
  for (const int32_t salgo : {kCbc, kGcm}) {
    for (const size_t bytes : {1u, 15u, 16u, 1000u, 4u << 20}) {
      SCOPED_TRACE(bytes);
      const std::string data = SomeData(bytes);
      const SealedPayload sealed = Seal(salgo, own.public_pem, data);
      EXPECT_EQ(sealed.data.size(), salgo == kCbc ? bytes / 16 * 16 + 16 : bytes);
      EXPECT_EQ(sealed.tag.size(), salgo == kCbc ? 0u : 16u);
      ASSERT_EQ(sealed.iv.size(), 16u);
      EXPECT_TRUE(Open(salgo, own.private_pem, sealed).data == data);
      ASSERT_TRUE(test::WriteFile(ephemeral_path, sealed.key));
      // The x-coordinate of the shared point is the key.
      const std::string secret = Openssl(
          dir, {"pkeyutl", "-derive", "-inkey", private_path, "-peerkey", ephemeral_path}, "");
      EXPECT_EQ(secret.size(), 32u);
      // GCM encrypts with the counter after the tag's own.
      const std::string iv =
          salgo == kCbc ? sealed.iv : sealed.iv.substr(0, 12) + std::string("\0\0\0\2", 4);
      const char* const cipher = salgo == kCbc ? "-aes-256-cbc" : "-aes-256-ctr";
      EXPECT_TRUE(Openssl(dir, {"enc", cipher, "-d", "-K", ToHex(secret), "-iv", ToHex(iv)},
                          sealed.data) == data);
    }
  }
}

}  // namespace
}  // namespace orb
