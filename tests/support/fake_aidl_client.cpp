#include "tests/support/fake_aidl_client.h"

#include "collector/kiv_collector.h"

namespace orb::test {

void FakeAidlClient::Fail(const std::string& operation, int nth, int times, int result) {
  MutexLock lock(mutex_);
  failures_[operation] = {nth - 1, times, result};
}

void FakeAidlClient::SetRegisterHook(std::function<void()> hook) {
  MutexLock lock(mutex_);
  register_hook_ = std::move(hook);
}

std::vector<std::string> FakeAidlClient::Calls() const {
  MutexLock lock(mutex_);
  return calls_;
}

size_t FakeAidlClient::Count(const std::string& operation) const {
  MutexLock lock(mutex_);
  const auto it = counts_.find(operation);
  return it == counts_.end() ? 0 : it->second;
}

bool FakeAidlClient::WaitForCalls(const std::string& operation, size_t count,
                                  std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  MutexLock lock(mutex_);
  while (counts_[operation] < count) {
    if (!called_.WaitUntil(mutex_, deadline)) return counts_[operation] >= count;
  }
  return true;
}

std::vector<FakeAidlClient::Upload> FakeAidlClient::Uploads() const {
  MutexLock lock(mutex_);
  return uploads_;
}

std::vector<FakeAidlClient::Piece> FakeAidlClient::Pieces() const {
  MutexLock lock(mutex_);
  return pieces_;
}

int FakeAidlClient::Record(const std::string& operation, const std::string& arguments) {
  calls_.push_back(operation + " " + arguments);
  ++counts_[operation];
  called_.NotifyAll();
  const auto it = failures_.find(operation);
  if (it == failures_.end()) return 0;
  Failure& failure = it->second;
  if (failure.skip > 0) {
    --failure.skip;
    return 0;
  }
  return failure.times-- > 0 ? failure.result : 0;
}

int FakeAidlClient::registerClient(const std::string& name, uint32_t clientType,
                                   uint32_t clientOption, kiv_collector* collector) {
  std::function<void()> hook;
  int result = 0;
  {
    MutexLock lock(mutex_);
    result = Record("registerClient",
                    name + " " + std::to_string(clientType) + " " + std::to_string(clientOption));
    hook = register_hook_;
  }
  if (hook) hook();
  if (result == 0) collector->SetIdentity(kToken, kClientId);
  return result;
}

int FakeAidlClient::sendData(const std::string& token, const std::string& name,
                             const uint8_t* header, uint32_t headerLen, const uint8_t* data,
                             uint32_t dataLen, const uint8_t* footer, uint32_t footerLen) {
  MutexLock lock(mutex_);
  uploads_.push_back({token,
                      name,
                      {header, header + headerLen},
                      {data, data + dataLen},
                      {footer, footer + footerLen}});
  return Record("sendData", name);
}

int FakeAidlClient::deRegisterClient(const std::string& token) {
  MutexLock lock(mutex_);
  return Record("deRegisterClient", token);
}

int FakeAidlClient::setupFD(int fd, uint32_t offset, uint32_t length, const std::string& token,
                            uint32_t* fdToken) {
  MutexLock lock(mutex_);
  const int result = Record("setupFD", std::to_string(fd) + " " + std::to_string(offset) + " " +
                                           std::to_string(length) + " " + token);
  if (result == 0) *fdToken = next_region_++;
  return result;
}

int FakeAidlClient::FdWrite(const std::string& token, uint32_t fdToken, const std::string& name,
                            const std::vector<uint8_t>& header, uint32_t offset, uint32_t size,
                            CompressType compress) {
  MutexLock lock(mutex_);
  pieces_.push_back({token, fdToken, name, header, offset, size, compress});
  return Record("FdWrite", std::to_string(fdToken));
}

int FakeAidlClient::UnsetFD(const std::string& token, uint32_t fdToken) {
  MutexLock lock(mutex_);
  return Record("UnsetFD", token + " " + std::to_string(fdToken));
}

void FakeAidlClient::forgetCollector(kiv_collector*) {
  MutexLock lock(mutex_);
  Record("forgetCollector", "");
}

}  // namespace orb::test
