// A client as the manager sees it, for tests of the two ends of its interface.
#pragma once

#include <utils/String8.h>

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "ipc/BnKIVCallback.h"
#include "utility/thread_annotations.h"

namespace orb::test {

// Notes what it is told, and answers as scripted. Thread-safe.
class FakeClient : public BnKIVCallback {
  using Status = android::binder::Status;

 public:
  // Gives the result of every start; runs unlocked. Null: 0.
  void OnStart(std::function<int32_t()> script) {
    MutexLock lock(mutex_);
    on_start_ = std::move(script);
  }
  // From now on every call ends with this status.
  void AnswerWith(android::status_t status) {
    MutexLock lock(mutex_);
    status_ = status;
  }
  // "start TOKEN CAMPAIGN", "lic-stop TOKEN CAMPAIGN LICSN" and so on, oldest first.
  std::vector<std::string> Calls() const {
    MutexLock lock(mutex_);
    return calls_;
  }
  // What the latest start brought.
  KIVCampConfig Started() const {
    MutexLock lock(mutex_);
    return started_;
  }

  Status StartSession(const std::string& token, const KIVCampConfig& config,
                      int32_t* result) override {
    std::function<int32_t()> script;
    {
      MutexLock lock(mutex_);
      started_ = config;
      script = on_start_;
    }
    *result = script ? script() : 0;
    return Answer("start " + token, {config.campId});
  }
  Status StopSession(const std::string& token, int64_t camp_id) override {
    return Answer("stop " + token, {camp_id});
  }
  Status StartSessionforLicSN(const std::string& token, int64_t camp_id, int64_t lic_sn) override {
    return Answer("lic-start " + token, {camp_id, lic_sn});
  }
  Status StopSessionforLicSN(const std::string& token, int64_t camp_id, int64_t lic_sn) override {
    return Answer("lic-stop " + token, {camp_id, lic_sn});
  }
  // What it says of itself, in place of the arguments of the dump.
  void Say(const std::string& text) {
    MutexLock lock(mutex_);
    text_ = text;
  }
  // Writes the arguments.
  android::status_t dump(int fd, const android::Vector<android::String16>& args) override {
    MutexLock lock(mutex_);
    if (!text_.empty()) dprintf(fd, "%s", text_.c_str());
    for (size_t i = 0; text_.empty() && i < args.size(); ++i) {
      dprintf(fd, "%s", android::String8(args[i]).c_str());
    }
    return status_;
  }

 private:
  Status Answer(std::string call, const std::vector<int64_t>& numbers) {
    for (const int64_t number : numbers) call += " " + std::to_string(number);
    MutexLock lock(mutex_);
    calls_.push_back(call);
    return Status::fromStatusT(status_);
  }

  mutable Mutex mutex_;
  std::function<int32_t()> on_start_ ORB_GUARDED_BY(mutex_);
  android::status_t status_ ORB_GUARDED_BY(mutex_) = android::OK;
  std::vector<std::string> calls_ ORB_GUARDED_BY(mutex_);
  std::string text_ ORB_GUARDED_BY(mutex_);
  KIVCampConfig started_ ORB_GUARDED_BY(mutex_);
};

}  // namespace orb::test
