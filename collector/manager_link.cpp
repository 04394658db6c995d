// Tested by tests/collector/lifecycle_test.cpp.
#include "collector/manager_link.h"

#include <utility>

#include "ipc/kiv_aidl_client.h"

std::shared_ptr<kivAIDLClient> ManagerLink::client() const {
  orb::MutexLock lock(mutex_);
  return client_;
}

std::shared_ptr<kivAIDLClient> ManagerLink::ObtainClient() {
  std::shared_ptr<kivAIDLClient> previous;  // Released after the lock.
  orb::MutexLock lock(mutex_);
  previous = std::exchange(
      client_, client_for_test_ ? client_for_test_ : kivAIDLClient::getClientInstance());
  return client_;
}

bool ManagerLink::ResetClient() {
  std::shared_ptr<kivAIDLClient> previous;  // Released after the lock.
  orb::MutexLock lock(mutex_);
  previous.swap(client_);
  return previous != nullptr;
}

void ManagerLink::SetClientForTest(std::shared_ptr<kivAIDLClient> client) {
  orb::MutexLock lock(mutex_);
  client_for_test_ = std::move(client);
}

void ManagerLink::SetIdentity(const std::string& token, int32_t client_id) {
  orb::MutexLock lock(mutex_);
  token_ = token;
  client_id_ = client_id;
}

std::string ManagerLink::token() const {
  orb::MutexLock lock(mutex_);
  return token_;
}

int32_t ManagerLink::client_id() const {
  orb::MutexLock lock(mutex_);
  return client_id_;
}
