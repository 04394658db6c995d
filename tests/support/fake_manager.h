// A manager for tests: hands out tokens, remembers who registered, and starts
// and stops sessions through the callbacks it was given.
//
// Thread-safe. Hooks run unlocked, inside the call that they belong to.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "ipc/BnKIVManager.h"
#include "utility/thread_annotations.h"

namespace orb::test {

class FakeManager : public BnKIVManager {
 public:
  struct Registration {
    KIVClientInfo info;
    KIVClientId id;
    android::sp<IKIVCallback> callback;
  };

  // --- What it is to do. Set before the call that it concerns. ---
  // Every later registration gets this identity; before, "token-1" with client
  // id 1, "token-2" with 2 and so on.
  void AssignAlways(const std::string& token, int32_t client_id) EXCLUDES(mutex_);
  // The n-th call from now (1 is the next), of either kind, answers `status`.
  void FailCall(size_t n, const android::binder::Status& status) EXCLUDES(mutex_);
  // Runs before registerKIVClient answers, and inside deregisterKIVClient.
  void OnRegister(std::function<void(const Registration&)> hook) EXCLUDES(mutex_);
  void OnDeregister(std::function<void(const std::string& token)> hook) EXCLUDES(mutex_);

  // --- What a manager does to its clients. -1 when the call itself failed. ---
  int32_t StartSession(const std::string& token, const KIVCampConfig& config) EXCLUDES(mutex_);
  // These three: 0 when the client answered.
  int StopSession(const std::string& token, int64_t campId) EXCLUDES(mutex_);
  int StartSessionforLicSN(const std::string& token, int64_t campId, int64_t licSN)
      EXCLUDES(mutex_);
  int StopSessionforLicSN(const std::string& token, int64_t campId, int64_t licSN) EXCLUDES(mutex_);

  // --- What it saw. ---
  std::vector<Registration> Registrations() const EXCLUDES(mutex_);
  std::vector<std::string> Deregistrations() const EXCLUDES(mutex_);
  // Waits until it served so many successful registrations; false after 10 s.
  bool WaitForRegistrations(size_t count) EXCLUDES(mutex_);

  android::binder::Status registerKIVClient(const KIVClientInfo& info,
                                            const android::sp<IKIVCallback>& callback,
                                            KIVClientId* id) override EXCLUDES(mutex_);
  android::binder::Status checkForPendingSession(const std::string& token) override;
  android::binder::Status deregisterKIVClient(const std::string& token) override EXCLUDES(mutex_);
  android::binder::Status sendData(const std::vector<uint8_t>& data, const std::string& token,
                                   bool* _aidl_return) override;

 private:
  // The scripted answer of the call that begins now.
  android::binder::Status NextAnswer() REQUIRES(mutex_);
  // The callback that the latest registration of the token brought; any other
  // token goes to the latest registration, to be refused by it.
  android::sp<IKIVCallback> CallbackOf(const std::string& token) const EXCLUDES(mutex_);

  mutable Mutex mutex_;
  CondVar registered_;
  std::vector<Registration> registrations_ GUARDED_BY(mutex_);
  std::vector<std::string> deregistrations_ GUARDED_BY(mutex_);
  std::map<size_t, android::binder::Status> failures_ GUARDED_BY(mutex_);  // By call number.
  size_t calls_ GUARDED_BY(mutex_) = 0;
  bool assign_always_ GUARDED_BY(mutex_) = false;
  KIVClientId assigned_ GUARDED_BY(mutex_);
  std::function<void(const Registration&)> on_register_ GUARDED_BY(mutex_);
  std::function<void(const std::string&)> on_deregister_ GUARDED_BY(mutex_);
};

}  // namespace orb::test
