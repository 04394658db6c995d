// A small NDK class for tests: method 1 answers its number plus one.
#pragma once

#include <android/binder_auto_utils.h>
#include <android/binder_ibinder.h>
#include <android/binder_manager.h>
#include <binder/IServiceManager.h>
#include <gtest/gtest.h>
#include <orb_platform/local_service_manager.h>

namespace orb::test {

inline AIBinder_Class* DefineEcho(const char* descriptor) {
  const auto on_create = [](void* args) { return args; };
  const auto on_destroy = [](void*) {};
  const auto on_transact = [](AIBinder*, transaction_code_t code, const AParcel* in,
                              AParcel* out) -> binder_status_t {
    if (code != 1) return STATUS_UNKNOWN_TRANSACTION;
    int32_t value = 0;
    const binder_status_t status = AParcel_readInt32(in, &value);
    return status == STATUS_OK ? AParcel_writeInt32(out, value + 1) : status;
  };
  return AIBinder_Class_define(descriptor, on_create, on_destroy, on_transact);
}

inline AIBinder_Class* EchoClass() {
  static AIBinder_Class* const clazz = DefineEcho("orb.test.Echo");
  return clazz;
}

// An echo that is published in this process under kName.
class EchoTest : public testing::Test {
 protected:
  static constexpr char kName[] = "orb.test.Echo/default";

  EchoTest() {
    android::setDefaultServiceManager(manager_);
    local_.set(AIBinder_new(EchoClass(), nullptr));
    EXPECT_EQ(AServiceManager_addService(local_.get(), kName), EX_NONE);
  }
  ~EchoTest() override { android::setDefaultServiceManager(nullptr); }

  static ndk::SpAIBinder Check() { return ndk::SpAIBinder(AServiceManager_checkService(kName)); }

  const android::sp<orb_platform::LocalServiceManager> manager_{
      new orb_platform::LocalServiceManager};
  ndk::SpAIBinder local_;
};

}  // namespace orb::test
