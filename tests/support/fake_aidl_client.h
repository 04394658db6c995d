// The manager and the HAL as a collector sees them: takes every call, records
// it, and fails those that a test names. Thread-safe.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "ipc/kiv_aidl_client.h"
#include "utility/thread_annotations.h"

namespace orb::test {

class FakeAidlClient : public kivAIDLClient {
 public:
  struct Upload {
    std::string token;
    std::string name;
    std::vector<uint8_t> header;
    std::vector<uint8_t> data;
    std::vector<uint8_t> footer;
  };
  struct Piece {
    std::string token;
    uint32_t fdToken;
    std::string name;
    std::vector<uint8_t> header;
    uint32_t offset;
    uint32_t size;
    CompressType compress;
  };

  // Registered collectors get this identity; regions get these tokens in turn.
  static constexpr const char* kToken = "token-1";
  static constexpr int32_t kClientId = 7;
  static constexpr uint32_t kFirstRegion = 100;

  // From the `nth` call of `operation` on (1: the next one), `times` calls give `result`.
  void Fail(const std::string& operation, int nth, int times, int result = -1) EXCLUDES(mutex_);
  // Runs inside every registerClient, with no lock held, before it answers.
  void SetRegisterHook(std::function<void()> hook) EXCLUDES(mutex_);

  // "operation argument argument", oldest first.
  std::vector<std::string> Calls() const EXCLUDES(mutex_);
  size_t Count(const std::string& operation) const EXCLUDES(mutex_);
  bool WaitForCalls(const std::string& operation, size_t count,
                    std::chrono::milliseconds timeout = std::chrono::seconds(10)) EXCLUDES(mutex_);
  std::vector<Upload> Uploads() const EXCLUDES(mutex_);
  std::vector<Piece> Pieces() const EXCLUDES(mutex_);

  int registerClient(const std::string& name, uint32_t clientType, uint32_t clientOption,
                     kiv_collector* collector) override;
  int sendData(const std::string& token, const std::string& name, const uint8_t* header,
               uint32_t headerLen, const uint8_t* data, uint32_t dataLen, const uint8_t* footer,
               uint32_t footerLen) override;
  int deRegisterClient(const std::string& token) override;
  int setupFD(int fd, uint32_t offset, uint32_t length, const std::string& token,
              uint32_t* fdToken) override;
  int FdWrite(const std::string& token, uint32_t fdToken, const std::string& name,
              const std::vector<uint8_t>& header, uint32_t offset, uint32_t size,
              CompressType compress) override;
  int UnsetFD(const std::string& token, uint32_t fdToken) override;
  void forgetCollector(kiv_collector* collector) override;

 private:
  struct Failure {
    int skip;
    int times;
    int result;
  };
  // Notes the call and gives its result.
  int Record(const std::string& operation, const std::string& arguments) REQUIRES(mutex_);

  mutable Mutex mutex_;
  CondVar called_;
  std::vector<std::string> calls_ GUARDED_BY(mutex_);
  std::map<std::string, size_t> counts_ GUARDED_BY(mutex_);
  std::map<std::string, Failure> failures_ GUARDED_BY(mutex_);
  std::function<void()> register_hook_ GUARDED_BY(mutex_);
  std::vector<Upload> uploads_ GUARDED_BY(mutex_);
  std::vector<Piece> pieces_ GUARDED_BY(mutex_);
  uint32_t next_region_ GUARDED_BY(mutex_) = kFirstRegion;
};

}  // namespace orb::test
