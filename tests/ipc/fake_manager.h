// A manager for tests of its clients.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "ipc/BnKIVManager.h"
#include "utility/thread_annotations.h"

namespace orb::test {

// Hands out "token-1" with client id 41, "token-2" with 42 and so on. Thread-safe.
class FakeManager : public BnKIVManager {
  using Status = android::binder::Status;

 public:
  // Runs unlocked inside every call, with its token, and gives the answer. Null: success.
  void SetHook(std::function<Status(const std::string& token)> hook) {
    MutexLock lock(mutex_);
    hook_ = std::move(hook);
  }
  // "register NAME TYPE OPTION", "deregister TOKEN" and so on, oldest first.
  std::vector<std::string> Calls() const {
    MutexLock lock(mutex_);
    return calls_;
  }
  // What the latest registration brought.
  android::sp<IKIVCallback> Callback() const {
    MutexLock lock(mutex_);
    return callback_;
  }
  std::string LastToken() const {
    MutexLock lock(mutex_);
    return "token-" + std::to_string(clients_);
  }
  // The client's result, or -1 when the call itself failed.
  int32_t StartSession(const std::string& token, int64_t camp_id) const {
    KIVCampConfig config;
    config.campId = camp_id;
    return StartSession(token, config);
  }
  int32_t StartSession(const std::string& token, const KIVCampConfig& config) const {
    int32_t result = -1;
    return Callback()->StartSession(token, config, &result).isOk() ? result : -1;
  }

  Status registerKIVClient(const KIVClientInfo& info, const android::sp<IKIVCallback>& callback,
                           KIVClientId* id) override {
    {
      MutexLock lock(mutex_);
      callback_ = callback;
      id->token = "token-" + std::to_string(++clients_);
      id->clientId = 40 + clients_;
    }
    return Answer("register " + info.clientName + " " + std::to_string(info.clientType) + " " +
                      std::to_string(info.clientOption),
                  id->token);
  }
  Status checkForPendingSession(const std::string& token) override {
    return Answer("check " + token, token);
  }
  Status deregisterKIVClient(const std::string& token) override {
    return Answer("deregister " + token, token);
  }
  Status sendData(const std::vector<uint8_t>& data, const std::string& token,
                  bool* result) override {
    *result = true;
    return Answer("send " + std::string(data.begin(), data.end()) + " " + token, token);
  }

 private:
  Status Answer(const std::string& call, const std::string& token) {
    std::function<Status(const std::string&)> hook;
    {
      MutexLock lock(mutex_);
      calls_.push_back(call);
      hook = hook_;
    }
    return hook ? hook(token) : Status::ok();
  }

  mutable Mutex mutex_;
  std::function<Status(const std::string&)> hook_ ORB_GUARDED_BY(mutex_);
  std::vector<std::string> calls_ ORB_GUARDED_BY(mutex_);
  android::sp<IKIVCallback> callback_ ORB_GUARDED_BY(mutex_);
  int32_t clients_ ORB_GUARDED_BY(mutex_) = 0;
};

}  // namespace orb::test
