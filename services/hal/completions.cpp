// Tested by tests/services/completions_test.cpp.
#include "services/hal/completions.h"

#include <algorithm>
#include <deque>
#include <iterator>
#include <map>
#include <utility>

#include "utility/log.h"
#include "utility/thread_annotations.h"

namespace orb::hal {
namespace {

using Clock = std::chrono::steady_clock;

// Time between two looks at who is late and what has to be sent again.
constexpr std::chrono::milliseconds kTick(50);

struct Item {
  Notice notice;
  std::shared_ptr<const SendNotice> send;
};

// A process that has notices; forgotten once it has none.
struct Client {
  std::deque<Item> waiting;
  uint64_t under_way = 0;  // Number of the notice; 0 for none.
  Clock::time_point due;   // When the receipt is late, or a failed notice is sent again.
  bool failed = false;
  bool silent = false;
};

}  // namespace

struct Completions::State : std::enable_shared_from_this<Completions::State> {
  explicit State(std::chrono::milliseconds patience_ms) : patience(patience_ms) {}

  void Run() ORB_EXCLUDES(mutex);
  void SendNext() ORB_REQUIRES(mutex);
  // The notice was not sent; what is given up is destroyed unlocked.
  void Failed(const Caller& caller, uint64_t number, const Item& item, Sent sent,
              std::deque<Item>* dropped) ORB_REQUIRES(mutex);
  bool Finished() const ORB_REQUIRES(mutex);
  void Look(Clock::time_point now) ORB_REQUIRES(mutex);
  void Answered(const Caller& caller, uint64_t number) ORB_EXCLUDES(mutex);
  // Has the next notice of the client sent, or forgets a client that has none.
  void Continue(const Caller& caller, Client* client) ORB_REQUIRES(mutex);

  const std::chrono::milliseconds patience;
  Mutex mutex;
  CondVar changed;
  std::map<Caller, Client> clients ORB_GUARDED_BY(mutex);
  std::deque<Caller> ready ORB_GUARDED_BY(mutex);  // With a notice that can be sent.
  uint64_t last_number ORB_GUARDED_BY(mutex) = 0;
  bool sending ORB_GUARDED_BY(mutex) = false;
  bool finishing ORB_GUARDED_BY(mutex) = false;
  bool stopping ORB_GUARDED_BY(mutex) = false;
};

Completions::Completions(std::chrono::milliseconds patience)
    : state_(std::make_shared<State>(patience)), sender_([state = state_] { state->Run(); }) {}

Completions::~Completions() {
  {
    MutexLock lock(state_->mutex);
    state_->stopping = true;
    state_->changed.NotifyAll();
  }
  sender_.join();
}

const char* Completions::Refusal(const Caller& client) const {
  MutexLock lock(state_->mutex);
  const auto found = state_->clients.find(client);
  if (found == state_->clients.end()) return nullptr;
  if (found->second.silent) return "the client does not answer";
  return found->second.waiting.size() < kMaxWaiting ? nullptr : "too many slots are unconfirmed";
}

bool Completions::Post(const Caller& client, const Notice& notice,
                       std::shared_ptr<const SendNotice> send) {
  MutexLock lock(state_->mutex);
  if (state_->finishing) return false;
  const auto [at, added] = state_->clients.try_emplace(client);
  if (at->second.waiting.size() >= kMaxWaiting) return false;
  at->second.waiting.push_back({notice, std::move(send)});
  // A client that was known has a notice under way, in line, or to be sent again.
  if (added) state_->Continue(client, &at->second);
  return true;
}

void Completions::Drop(const Caller& client, int32_t token) {
  std::deque<Item> dropped;  // Destroyed unlocked: they may own anything.
  MutexLock lock(state_->mutex);
  const auto found = state_->clients.find(client);
  if (found == state_->clients.end()) return;
  std::deque<Item>& waiting = found->second.waiting;
  const auto gone = std::stable_partition(
      waiting.begin(), waiting.end(), [token](const Item& i) { return i.notice.token != token; });
  std::move(gone, waiting.end(), std::back_inserter(dropped));
  waiting.erase(gone, waiting.end());
}

bool Completions::FinishBy(Clock::time_point deadline) {
  State& state = *state_;
  MutexLock lock(state.mutex);
  state.finishing = true;
  for (auto& [caller, client] : state.clients) {
    if (!client.silent && !client.failed) state.ready.push_back(caller);
  }
  state.changed.NotifyAll();
  while (!state.Finished()) {
    if (!state.changed.WaitUntil(state.mutex, deadline)) return state.Finished();
  }
  return true;
}

bool Completions::State::Finished() const {
  return !sending && std::all_of(clients.begin(), clients.end(), [](const auto& entry) {
    return entry.second.silent || entry.second.waiting.empty();
  });
}

void Completions::State::Run() {
  MutexLock lock(mutex);
  Clock::time_point next_look = Clock::now();
  while (!stopping) {
    const Clock::time_point now = Clock::now();
    if (now >= next_look) {
      Look(now);
      next_look = now + kTick;
    }
    if (!ready.empty()) {
      SendNext();
    } else if (clients.empty()) {
      changed.Wait(mutex);
    } else {
      changed.WaitUntil(mutex, next_look);
    }
  }
}

void Completions::State::SendNext() {
  const Caller caller = ready.front();
  ready.pop_front();
  const auto found = clients.find(caller);
  if (found == clients.end() || (found->second.under_way != 0 && !finishing)) return;
  Client& client = found->second;
  if (client.waiting.empty()) return Continue(caller, &client);
  Item item = std::move(client.waiting.front());
  client.waiting.pop_front();
  const uint64_t number = ++last_number;
  client.under_way = number;
  client.due = Clock::now() + patience;
  sending = true;
  mutex.Unlock();
  Receipt receipt(this, [state = weak_from_this(), caller, number](void*) {
    if (const std::shared_ptr<State> alive = state.lock()) alive->Answered(caller, number);
  });
  const Sent sent = (*item.send)(item.notice, receipt);
  std::deque<Item> dropped;
  mutex.Lock();
  if (sent != Sent::kYes) Failed(caller, number, item, sent, &dropped);
  mutex.Unlock();
  receipt.reset();  // What is destroyed here may call back, or take locks.
  dropped.clear();
  item = {};
  mutex.Lock();
  sending = false;
  const auto last = clients.find(caller);
  if (finishing && last != clients.end() && !last->second.failed) ready.push_back(caller);
  changed.NotifyAll();
}

void Completions::State::Failed(const Caller& caller, uint64_t number, const Item& item, Sent sent,
                                std::deque<Item>* dropped) {
  const auto found = clients.find(caller);
  if (found == clients.end() || found->second.under_way != number) return;
  Client& client = found->second;
  client.under_way = 0;  // The receipt is ignored from now on.
  if (sent == Sent::kNever) {
    dropped->swap(client.waiting);
    clients.erase(found);
    return;
  }
  client.waiting.push_front(item);
  client.failed = true;
  client.due = Clock::now() + kTick;
}

void Completions::State::Look(Clock::time_point now) {
  for (auto& [caller, client] : clients) {
    if (client.failed && now >= client.due) {
      client.failed = false;
      ready.push_back(caller);
    } else if (client.under_way != 0 && !client.silent && now >= client.due) {
      client.silent = true;
      LOGW("%s does not answer: its slots are refused until it does", caller.ToString().c_str());
    }
  }
}

void Completions::State::Answered(const Caller& caller, uint64_t number) {
  MutexLock lock(mutex);
  const auto found = clients.find(caller);
  if (found == clients.end() || found->second.under_way != number) return;
  found->second.under_way = 0;
  if (std::exchange(found->second.silent, false)) {
    LOGI("%s answers again", caller.ToString().c_str());
  }
  Continue(caller, &found->second);
}

void Completions::State::Continue(const Caller& caller, Client* client) {
  if (client->waiting.empty()) {
    if (client->under_way == 0) clients.erase(caller);
  } else {
    ready.push_back(caller);
  }
  changed.NotifyAll();
}

}  // namespace orb::hal
