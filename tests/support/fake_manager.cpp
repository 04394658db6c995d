#include "tests/support/fake_manager.h"

#include <chrono>
#include <utility>

namespace orb::test {

using android::sp;
using android::binder::Status;

void FakeManager::AssignAlways(const std::string& token, int32_t client_id) {
  MutexLock lock(mutex_);
  assign_always_ = true;
  assigned_.token = token;
  assigned_.clientId = client_id;
}

void FakeManager::FailCall(size_t n, const Status& status) {
  MutexLock lock(mutex_);
  failures_[calls_ + n] = status;
}

void FakeManager::OnRegister(std::function<void(const Registration&)> hook) {
  MutexLock lock(mutex_);
  on_register_ = std::move(hook);
}

void FakeManager::OnDeregister(std::function<void(const std::string&)> hook) {
  MutexLock lock(mutex_);
  on_deregister_ = std::move(hook);
}

int32_t FakeManager::StartSession(const std::string& token, const KIVCampConfig& config) {
  int32_t result = -1;
  const sp<IKIVCallback> callback = CallbackOf(token);
  if (callback == nullptr || !callback->StartSession(token, config, &result).isOk()) return -1;
  return result;
}

int FakeManager::StopSession(const std::string& token, int64_t campId) {
  const sp<IKIVCallback> callback = CallbackOf(token);
  return callback != nullptr && callback->StopSession(token, campId).isOk() ? 0 : -1;
}

int FakeManager::StartSessionforLicSN(const std::string& token, int64_t campId, int64_t licSN) {
  const sp<IKIVCallback> callback = CallbackOf(token);
  if (callback == nullptr) return -1;
  return callback->StartSessionforLicSN(token, campId, licSN).isOk() ? 0 : -1;
}

int FakeManager::StopSessionforLicSN(const std::string& token, int64_t campId, int64_t licSN) {
  const sp<IKIVCallback> callback = CallbackOf(token);
  if (callback == nullptr) return -1;
  return callback->StopSessionforLicSN(token, campId, licSN).isOk() ? 0 : -1;
}

std::vector<FakeManager::Registration> FakeManager::Registrations() const {
  MutexLock lock(mutex_);
  return registrations_;
}

std::vector<std::string> FakeManager::Deregistrations() const {
  MutexLock lock(mutex_);
  return deregistrations_;
}

bool FakeManager::WaitForRegistrations(size_t count) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  MutexLock lock(mutex_);
  while (registrations_.size() < count) {
    if (!registered_.WaitUntil(mutex_, deadline)) return registrations_.size() >= count;
  }
  return true;
}

Status FakeManager::registerKIVClient(const KIVClientInfo& info, const sp<IKIVCallback>& callback,
                                      KIVClientId* id) {
  Registration registration;
  registration.info = info;
  registration.callback = callback;
  std::function<void(const Registration&)> hook;
  {
    MutexLock lock(mutex_);
    const Status answer = NextAnswer();
    if (!answer.isOk()) return answer;
    if (assign_always_) {
      registration.id = assigned_;
    } else {
      registration.id.clientId = static_cast<int32_t>(registrations_.size() + 1);
      registration.id.token = "token-" + std::to_string(registration.id.clientId);
    }
    registrations_.push_back(registration);
    hook = on_register_;
  }
  registered_.NotifyAll();
  *id = registration.id;
  if (hook) hook(registration);
  return Status::ok();
}

Status FakeManager::checkForPendingSession(const std::string&) { return Status::ok(); }

Status FakeManager::deregisterKIVClient(const std::string& token) {
  std::function<void(const std::string&)> hook;
  {
    MutexLock lock(mutex_);
    const Status answer = NextAnswer();
    if (!answer.isOk()) return answer;
    deregistrations_.push_back(token);
    hook = on_deregister_;
  }
  if (hook) hook(token);
  return Status::ok();
}

Status FakeManager::sendData(const std::vector<uint8_t>&, const std::string&, bool* _aidl_return) {
  *_aidl_return = false;
  return Status::ok();
}

Status FakeManager::NextAnswer() {
  ++calls_;
  const auto failure = failures_.find(calls_);
  return failure == failures_.end() ? Status::ok() : failure->second;
}

sp<IKIVCallback> FakeManager::CallbackOf(const std::string& token) const {
  MutexLock lock(mutex_);
  for (auto entry = registrations_.rbegin(); entry != registrations_.rend(); ++entry) {
    if (entry->id.token == token) return entry->callback;
  }
  return registrations_.empty() ? nullptr : registrations_.back().callback;
}

}  // namespace orb::test
