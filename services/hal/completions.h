// Tells clients which of their slots are consumed. Nobody waits for a client here: a
// notice is sent, and its receipt comes back when the client has taken note. One is
// under way for each process at a time, so a client that does not answer keeps its own
// notices waiting and nobody else's.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>

#include "services/hal/caller.h"

namespace orb::hal {

// What fd_write_done says.
struct Notice {
  int32_t token = 0;
  int32_t offset = 0;
  int32_t size = 0;
  int32_t result = 0;
};

// Destroyed once the client has taken note of the notice, or has died.
using Receipt = std::shared_ptr<void>;

enum class Sent {
  kYes,
  kLater,  // It could not be sent now.
  kNever,  // The client is dead.
};

// Sends one notice without waiting for the client.
using SendNotice = std::function<Sent(const Notice& notice, Receipt receipt)>;

// Thread-safe. One thread of its own sends.
class Completions {
 public:
  static constexpr size_t kMaxWaiting = 1024;  // Notices for one process.
  static constexpr std::chrono::milliseconds kPatience{10'000};

  // A client has `patience` for a notice, then it counts as silent.
  explicit Completions(std::chrono::milliseconds patience = kPatience);
  // Receipts may outlive this.
  ~Completions();
  Completions(const Completions&) = delete;
  Completions& operator=(const Completions&) = delete;

  // Null when the client may have another slot, else why not: it is silent, or too
  // many notices wait.
  const char* Refusal(const Caller& client) const;
  // Sends the notice after the client's earlier ones; a failure is tried again. False
  // when too many wait, or after FinishBy.
  bool Post(const Caller& client, const Notice& notice, std::shared_ptr<const SendNotice> send);
  // Drops the notices that wait for a channel that is gone.
  void Drop(const Caller& client, int32_t token);

  // Takes no more, and sends what waits at once, but not to silent clients. False when
  // the deadline came first.
  bool FinishBy(std::chrono::steady_clock::time_point deadline);

 private:
  struct State;

  const std::shared_ptr<State> state_;
  std::thread sender_;
};

}  // namespace orb::hal
