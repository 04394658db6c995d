// Every single allocation of the library fails once: a call then does without
// it, or fails and leaves nothing behind. With OpenSSL only.
#include <gtest/gtest.h>
#include <openssl/crypto.h>

#include <cstdlib>
#include <functional>
#include <set>

#include "tests/crypto/sealed_payload.h"
#include "tests/support/log_capture.h"

namespace orb {
namespace {

int64_t allocations_left = -1;  // Until the one that fails; negative: none does.

bool FailsNow() { return allocations_left >= 0 && allocations_left-- == 0; }
void* Malloc(size_t bytes, const char*, int) { return FailsNow() ? nullptr : std::malloc(bytes); }
void* Realloc(void* old, size_t bytes, const char*, int) {
  return FailsNow() ? nullptr : std::realloc(old, bytes);
}
void Free(void* memory, const char*, int) { std::free(memory); }

// Before the library's first allocation.
const int installed = CRYPTO_set_mem_functions(Malloc, Realloc, Free);

// What was logged last in every failed call.
std::set<std::string> FailEverywhere(const std::function<int32_t()>& call) {
  EXPECT_EQ(installed, 1);
  EXPECT_EQ(call(), 0);  // The library makes what it keeps.
  std::set<std::string> messages;
  for (int64_t nth = 0; allocations_left < 0; ++nth) {
    const LogCapture log;
    allocations_left = nth;
    const int32_t result = call();
    if (allocations_left >= 0) break;  // There are no more.
    EXPECT_TRUE(result == 0 || result == 2) << result;
    if (result != 0) messages.insert(log.Lines().back().text);
  }
  allocations_left = -1;
  return messages;
}

TEST(AllocationFailureTest, GivesAllOrNothing) {
  const KeyPair own = NewP256();
  const SealedPayload sealed = Seal(kGcm, own.public_pem, "payload");
  std::set<std::string> messages =
      FailEverywhere([&] { return Seal(kGcm, own.public_pem, "payload").result; });
  messages.merge(FailEverywhere([&] { return Open(kGcm, own.private_pem, sealed).result; }));
  for (const char* message :
       {"can't mallic BIO mem buf", "failed to new EVP PKEY ctx", "failed to init EVP PKEY kengen",
        "failed to set EVP PKEY param", "failed to generate ephemeral pkey",
        "failed to get ephemeral ECkey", "failed to new ephemeral BIO",
        "failed to write ephemeral BIO", "failed to create new cipher ctx",
        "failed to init cipher ctx", "can't read asymmetric key bio_ptr",
        "can't read ephemeral_bio_ptr key to bio_ptr"}) {
    EXPECT_EQ(messages.count(message), 1u) << message;
  }
}

}  // namespace
}  // namespace orb
