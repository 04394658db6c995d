// Handles of binders: identity, classes, lifetime, transactions.
#include <android/binder_stability.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>

#include "tests/platform_ndk/echo_class.h"
#include "tests/support/log_capture.h"

namespace {

using ndk::ScopedAIBinder_Weak;
using ndk::ScopedAParcel;
using ndk::SpAIBinder;
using orb::test::DefineEcho;
using orb::test::EchoClass;

class NdkBinderTest : public orb::test::EchoTest {
 protected:
  // The answer of method 1 to 41, or the status of the call.
  static int32_t Call(const SpAIBinder& binder, transaction_code_t code = 1,
                      binder_flags_t flags = 0) {
    AParcel* in = nullptr;
    binder_status_t status = AIBinder_prepareTransaction(binder.get(), &in);
    if (status != STATUS_OK) return status;
    EXPECT_EQ(AParcel_writeInt32(in, 41), STATUS_OK);
    ScopedAParcel out;
    status = AIBinder_transact(binder.get(), code, &in, out.getR(), flags);
    EXPECT_EQ(in, nullptr);
    EXPECT_EQ(out.get() != nullptr, status == STATUS_OK);
    int32_t answer = status;
    if (status == STATUS_OK) {
      EXPECT_EQ(AParcel_readInt32(out.get(), &answer), STATUS_OK);
    }
    return answer;
  }
};

TEST_F(NdkBinderTest, OneRemoteIsOneHandleAndDiesWithItsLastReference) {
  const SpAIBinder first = Check();
  ASSERT_NE(first.get(), nullptr);
  EXPECT_TRUE(AIBinder_isRemote(first.get()));
  EXPECT_NE(first, local_);
  EXPECT_EQ(Check(), first);
  ScopedAIBinder_Weak weak(AIBinder_Weak_new(first.get()));
  EXPECT_EQ(weak.promote(), first);
  const_cast<SpAIBinder&>(first).set(nullptr);
  EXPECT_EQ(weak.promote().get(), nullptr);
  EXPECT_NE(Check().get(), nullptr);
}

TEST_F(NdkBinderTest, AClassFitsOnlyItsOwnDescriptor) {
  static AIBinder_Class* const other = DefineEcho("orb.test.Other");
  static AIBinder_Class* const twin = DefineEcho("orb.test.Echo");
  const SpAIBinder remote = Check();
  {
    orb::LogCapture log;
    EXPECT_EQ(Call(remote), STATUS_INVALID_OPERATION);  // No class yet.
    EXPECT_FALSE(AIBinder_associateClass(remote.get(), other));
    EXPECT_FALSE(AIBinder_associateClass(local_.get(), other));
    EXPECT_FALSE(AIBinder_associateClass(local_.get(), twin));
    EXPECT_FALSE(AIBinder_associateClass(remote.get(), nullptr));
    EXPECT_FALSE(AIBinder_associateClass(nullptr, other));
    EXPECT_TRUE(
        log.Contains("Expecting binder to have class 'orb.test.Other' but descriptor is "
                     "actually 'orb.test.Echo'"));
  }
  EXPECT_EQ(AIBinder_getClass(remote.get()), nullptr);
  for (int i = 0; i < 2; i++) EXPECT_TRUE(AIBinder_associateClass(remote.get(), EchoClass()));
  EXPECT_EQ(AIBinder_getClass(Check().get()), EchoClass());
  EXPECT_EQ(AIBinder_getUserData(remote.get()), nullptr);
}

TEST_F(NdkBinderTest, CallsReachTheObject) {
  const SpAIBinder remote = Check();
  ASSERT_TRUE(AIBinder_associateClass(remote.get(), EchoClass()));
  EXPECT_EQ(AIBinder_ping(remote.get()), STATUS_OK);
  EXPECT_EQ(Call(remote), 42);
  EXPECT_EQ(Call(local_), 42);
  for (const transaction_code_t code : {9, 0, 0x5f504e47}) {  // Unknown, and two reserved ones.
    EXPECT_EQ(Call(remote, code), STATUS_UNKNOWN_TRANSACTION);
  }
  EXPECT_EQ(Call(remote, 1, 0x80), STATUS_BAD_VALUE);
  // A request belongs to the binder that it was prepared for.
  AParcel* in = nullptr;
  AParcel* out = nullptr;
  ASSERT_EQ(AIBinder_prepareTransaction(local_.get(), &in), STATUS_OK);
  EXPECT_EQ(AIBinder_transact(remote.get(), 1, &in, &out, 0), STATUS_BAD_VALUE);
  EXPECT_EQ(AIBinder_transact(remote.get(), 1, &in, &out, 0), STATUS_UNEXPECTED_NULL);
}

TEST_F(NdkBinderTest, ACallWantsTheLevelThatItReliesOn) {
  constexpr void (*kUnmarked)(AIBinder*) = [](AIBinder*) {};
  const struct {
    const char* name;
    void (*mark)(AIBinder*);
    int32_t plain;
    int32_t local;
  } kCases[] = {
      {"unmarked", kUnmarked, 42, STATUS_BAD_TYPE},
      {"unit", AIBinder_markCompilationUnitStability, STATUS_BAD_TYPE, 42},
      {"vintf", AIBinder_markVintfStability, 42, 42},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    const SpAIBinder local(AIBinder_new(EchoClass(), nullptr));
    c.mark(local.get());
    ASSERT_EQ(AServiceManager_addService(local.get(), kName), EX_NONE);
    const SpAIBinder remote = Check();
    ASSERT_TRUE(AIBinder_associateClass(remote.get(), EchoClass()));
    EXPECT_EQ(Call(remote), c.plain);
    EXPECT_EQ(Call(remote, 1, FLAG_PRIVATE_LOCAL), c.local);
  }
}

}  // namespace
