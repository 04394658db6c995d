// The process-wide client with a manager of this process, and collectors that
// are not more than what they are registered for: custom sessions without any
// storage, so a session is the two callbacks.
#pragma once

#include <gtest/gtest.h>
#include <orb_platform/local_service_manager.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "collector/kiv_collector.h"
#include "ipc/kiv_aidl_client.h"
#include "tests/support/fake_manager.h"
#include "tests/support/log_capture.h"

namespace orb::test {

// Services that may die as soon as somebody has found them.
class MortalServices : public orb_platform::LocalServiceManager {
 public:
  // After so many look-ups from now on, of any service.
  void KillAfter(int lookups) { lookups_left_ = lookups; }
  android::sp<android::IBinder> checkService(const android::String16& name) const override;

 private:
  mutable std::atomic<int> lookups_left_{0};
};

class ClientTest : public ::testing::Test {
 protected:
  ClientTest();
  ~ClientTest() override;

  // Puts a new manager in place of the old one, if any.
  void StartManager();
  // The manager's process dies; returns when the client has dealt with it.
  void KillManager();

  // A collector that is not registered yet. The fixture destroys it, unless
  // Deregister did.
  kiv_collector* NewCollector(const std::string& name, bool hbt = true);
  // As a client program does it: waits for the manager. Null on failure.
  kiv_collector* Register(const std::string& name);
  // kiv_deregister, which waits for calls under way.
  int Deregister(kiv_collector* collector);

  // "I text" of every line of the library since the last call or log_.Clear().
  std::vector<std::string> TakeLog();

  static android::sp<MortalServices> Services();

  LogCapture log_;  // Tests clear it.
  android::sp<FakeManager> manager_;
  const std::shared_ptr<kivAIDLClient> client_ = kivAIDLClient::getClientInstance();
  // What the collectors' start callback does; null accepts.
  static std::function<int(kiv_collector*)> on_start;

 private:
  kiv_cfg_s Record(const std::string& name, bool hbt) const;

  LogCapture all_;  // Never cleared.
  std::string dir_;
  std::vector<kiv_collector*> collectors_;
};

}  // namespace orb::test
