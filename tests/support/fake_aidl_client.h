// The manager and the HAL as a collector sees them: takes every call, records
// it, and fails those that a test names. Thread-safe.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "collector/kiv_collector.h"
#include "ipc/kiv_aidl_client.h"
#include "tests/support/wait_for.h"
#include "utility/thread_annotations.h"

namespace orb::test {

class FakeAidlClient : public kivAIDLClient {
  using Bytes = std::vector<uint8_t>;

 public:
  struct Upload {
    std::string token;
    std::string name;
    Bytes header;
    Bytes data;
    Bytes footer;
  };
  struct Piece {
    std::string token;
    uint32_t fdToken;
    std::string name;
    Bytes header;
    uint32_t offset;
    uint32_t size;
    CompressType compress;
  };

  // Registered collectors get this identity; regions get these tokens in turn.
  static constexpr const char* kToken = "token-1";
  static constexpr int32_t kClientId = 7;
  static constexpr uint32_t kFirstRegion = 100;

  // From the `nth` call of `operation` on (1: the next one), `times` calls give `result`.
  void Fail(const std::string& operation, int nth, int times, int result = -1) {
    MutexLock lock(mutex_);
    failures_[operation] = {nth - 1, times, result};
  }
  // Runs inside every call of `operation`, with no lock held, before it answers.
  void SetHook(const std::string& operation, std::function<void()> hook) {
    MutexLock lock(mutex_);
    hooks_[operation] = std::move(hook);
  }

  // "operation argument argument", oldest first.
  std::vector<std::string> Calls() const {
    MutexLock lock(mutex_);
    return calls_;
  }
  size_t Count(const std::string& operation) const {
    size_t count = 0;
    for (const std::string& call : Calls()) count += call.rfind(operation + ' ', 0) == 0 ? 1 : 0;
    return count;
  }
  bool WaitForCalls(const std::string& operation, size_t count) const {
    return WaitFor([&] { return Count(operation) >= count; });
  }
  std::vector<Upload> Uploads() const {
    MutexLock lock(mutex_);
    return uploads_;
  }
  std::vector<Piece> Pieces() const {
    MutexLock lock(mutex_);
    return pieces_;
  }

  int registerClient(const std::string& name, uint32_t clientType, uint32_t clientOption,
                     RoutedCollector* collector) override {
    const int result = Call("registerClient " + name + " " + std::to_string(clientType) + " " +
                            std::to_string(clientOption));
    if (result == 0) collector->SetIdentity(kToken, kClientId);
    return result;
  }
  int sendData(const std::string& token, const std::string& name, const uint8_t* header,
               uint32_t headerLen, const uint8_t* data, uint32_t dataLen, const uint8_t* footer,
               uint32_t footerLen) override {
    {
      MutexLock lock(mutex_);
      uploads_.push_back({token, name, Bytes(header, header + headerLen),
                          Bytes(data, data + dataLen), Bytes(footer, footer + footerLen)});
    }
    return Call("sendData " + name);
  }
  int deRegisterClient(const std::string& token) override {
    return Call("deRegisterClient " + token);
  }
  int setupFD(int fd, uint32_t offset, uint32_t length, RoutedCollector* collector,
              uint32_t* fdToken) override {
    const int result =
        Call("setupFD " + std::to_string(fd) + " " + std::to_string(offset) + " " +
             std::to_string(length) + " " + static_cast<kiv_collector*>(collector)->Token());
    MutexLock lock(mutex_);
    if (result == 0) *fdToken = next_region_++;
    return result;
  }
  int FdWrite(const std::string& token, const std::atomic<uint32_t>& fdToken,
              const std::string& name, const Bytes& header, uint32_t offset, uint32_t size,
              CompressType compress) override {
    {
      MutexLock lock(mutex_);
      pieces_.push_back({token, fdToken, name, header, offset, size, compress});
    }
    return Call("FdWrite " + std::to_string(fdToken));
  }
  int UnsetFD(const std::string& token, const std::atomic<uint32_t>& fdToken) override {
    return Call("UnsetFD " + token + " " + std::to_string(fdToken));
  }
  void forgetCollector(RoutedCollector*) override { Call("forgetCollector "); }

 private:
  struct Failure {
    int skip;
    int times;
    int result;
  };
  static std::string OperationOf(const std::string& call) { return call.substr(0, call.find(' ')); }
  // Notes the call, runs its hook and gives its result.
  int Call(const std::string& call) ORB_EXCLUDES(mutex_) {
    int result = 0;
    std::function<void()> hook;
    {
      MutexLock lock(mutex_);
      result = Record(call);
      const auto found = hooks_.find(OperationOf(call));
      if (found != hooks_.end()) hook = found->second;
    }
    if (hook) hook();
    return result;
  }
  int Record(const std::string& call) ORB_REQUIRES(mutex_) {
    calls_.push_back(call);
    const auto it = failures_.find(OperationOf(call));
    if (it == failures_.end()) return 0;
    Failure& failure = it->second;
    if (failure.skip-- > 0) return 0;
    return failure.times-- > 0 ? failure.result : 0;
  }

  mutable Mutex mutex_;
  std::vector<std::string> calls_ ORB_GUARDED_BY(mutex_);
  std::map<std::string, Failure> failures_ ORB_GUARDED_BY(mutex_);
  std::map<std::string, std::function<void()>> hooks_ ORB_GUARDED_BY(mutex_);
  std::vector<Upload> uploads_ ORB_GUARDED_BY(mutex_);
  std::vector<Piece> pieces_ ORB_GUARDED_BY(mutex_);
  uint32_t next_region_ ORB_GUARDED_BY(mutex_) = kFirstRegion;
};

}  // namespace orb::test
