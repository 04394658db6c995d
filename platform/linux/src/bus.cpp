// The connection, and waiting on it.
// Tested by tests/platform/contract_test.cpp and bus_test.cpp.
#include "platform/linux/src/bus.h"

#include <fcntl.h>
#include <orb_platform/lost_buses.h>
#include <poll.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <utility>

#include "platform/linux/src/bus_names.h"
#include "platform/linux/src/threads.h"
#include "platform/linux/src/worker_pool.h"

#define ORB_LOG_TAG "orb_platform"
#include "utility/contained.h"
#include "utility/error_text.h"
#include "utility/log.h"

namespace orb_platform {
namespace {

std::atomic<int> connection_fd{-1};
std::atomic<uint64_t> lost_buses{0};

// A child of fork() that lives on would keep the connection open after the parent's end,
// and peers would take the parent for alive. The binding does not work in a child, so the
// child replaces the descriptor by /dev/null before fork() returns.
void LeaveConnectionToParent() {
  const int fd = connection_fd.load();
  if (fd < 0) return;
  const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (nowhere < 0) return;
  dup3(nowhere, fd, O_CLOEXEC);
  close(nowhere);
}

// A quarter of what the process may open: while a call runs, its descriptors exist in the
// message, in the parcel and in the handler. The binding cannot go on after a message
// whose descriptors the process has no room for.
size_t MostDescriptorsOfCalls() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return CallBudget::kMostDescriptorsOfOne;
  return static_cast<size_t>(std::min<rlim_t>(limit.rlim_cur, 1 << 16)) / 4;
}

// The daemon refuses a call while the receiver's queue is full, which a flood of others'
// messages does as well. It has delivered nothing then, so the call can be made again.
constexpr std::chrono::seconds kFullQueuePatience{20};
constexpr std::chrono::milliseconds kFullQueuePauseMax{80};

bool IsRefusedByBus(const BusMessage& reply) {
  if (reply == nullptr) return false;
  const char* sender = sd_bus_message_get_sender(reply.get());
  return sd_bus_message_is_method_error(reply.get(), SD_BUS_ERROR_LIMITS_EXCEEDED) > 0 &&
         sender != nullptr && strcmp(sender, kDaemon) == 0;
}

// How often the reader tries again to start a worker that the system refused.
constexpr int kGrowRetryMs = 100;

}  // namespace

uint64_t LostBuses() { return lost_buses.load(); }

Bus& Bus::Get() {
  static Bus* const bus = new Bus();
  return *bus;
}

Bus::Bus() : budget_(MostDescriptorsOfCalls()) {
  pthread_atfork(nullptr, nullptr, LeaveConnectionToParent);
}

bool Bus::Connect() {
  orb::MutexLock lock(mutex_);
  return ConnectLocked();
}

// Logs each cause once, because a client that registers tries again every few seconds.
void Bus::ReportConnect(const char* address, int result) {
  if (result < 0 && result != connect_result_) {
    LOGE("no connection to the %s%s: %s%s", address == nullptr ? "system bus" : "bus at ",
         address == nullptr ? "" : address, orb::ErrorText(-result).c_str(),
         result == -ENOBUFS || result == -ECONNRESET
             ? "; the bus may have no place left for this user's connections"
             : "");
  }
  connect_result_ = std::min(result, 0);
}

bool Bus::ConnectLocked() {
  Process();  // Notices an end of the connection.
  if (bus_ != nullptr) return true;
  if (!poller_.Open()) {
    LOGE("no descriptor left for the bus");
    return false;
  }
  const char* address = secure_getenv("ORB_BUS_ADDRESS");
  if (address != nullptr && *address == 0) address = nullptr;
  sd_bus* bus = nullptr;
  int result = 0;
  if (address != nullptr) {
    result = sd_bus_new(&bus);
    if (result >= 0) result = sd_bus_set_address(bus, address);
    if (result >= 0) result = sd_bus_set_bus_client(bus, 1);
    if (result >= 0) result = sd_bus_start(bus);
  } else {
    result = sd_bus_open_system(&bus);
  }
  // Waits for the daemon's greeting, so that the connection is known to work.
  const char* name = nullptr;
  if (result >= 0) result = sd_bus_get_unique_name(bus, &name);
  if (result >= 0) result = sd_bus_add_filter(bus, nullptr, OnMessage, this);
  ReportConnect(address, result);
  if (result < 0 || !StartReader() || !poller_.Attach(sd_bus_get_fd(bus))) {
    poller_.Detach();
    if (bus != nullptr) sd_bus_close_unref(bus);
    return false;
  }
  bus_ = bus;
  connection_++;
  connection_fd = sd_bus_get_fd(bus_);
  Process();  // The binding may hold messages already, which epoll does not see.
  Rearm();
  return bus_ != nullptr;
}

bool Bus::StartReader() {
  if (!reader_started_) reader_started_ = StartThread("binder-reader", [this] { ReadForever(); });
  return reader_started_;
}

void Bus::ReadForever() {
  for (;;) {
    poller_.Wait(WorkerPool::Get().Relieve() ? kGrowRetryMs : -1);
    orb::MutexLock lock(mutex_);
    Process();
    Rearm();
  }
}

void Bus::Process() {
  if (bus_ == nullptr) return;
  int result;
  while ((result = sd_bus_process(bus_, nullptr)) > 0) {
  }
  dead_peers_.clear();
  if (result < 0 || sd_bus_is_open(bus_) <= 0) Disconnected();
}

// Ends every proxy, call and name of the connection. The next use connects again.
void Bus::Disconnected() {
  lost_buses.fetch_add(1);
  watches_all_ = false;
  poller_.Detach();
  connection_fd = -1;
  sd_bus* const bus = std::exchange(bus_, nullptr);
  std::map<std::string, std::unique_ptr<Peer>> peers;
  peers.swap(peers_);
  for (auto& [name, peer] : peers) SendObituaries(peer.get());
  peers.clear();
  services_.clear();
  for (auto& [id, exported] : exports_) {
    exported.names = 0;
    exported.holders.clear();
  }
  while (!exports_.empty()) DropIfUnused(exports_.begin()->first);
  for (Pending* pending : pending_) Finish(pending);
  sd_bus_close_unref(bus);
}

void Bus::Rearm() {
  if (bus_ == nullptr) return;
  const int events = sd_bus_get_events(bus_);
  poller_.Watch(events < 0 ? POLLIN : events);
}

BusMessage Bus::NewCall(const char* destination, const char* path, const char* interface,
                        const char* member) {
  BusMessage call;
  if (sd_bus_message_new_method_call(bus_, call.out(), destination, path, interface, member) >= 0) {
    sd_bus_message_set_auto_start(call.get(), 0);
  }
  return call;
}

bool Bus::Send(const BusMessage& message) {
  const bool sent = bus_ != nullptr && sd_bus_send(bus_, message.get(), nullptr) >= 0;
  Rearm();
  return sent;
}

int Bus::OnReply(sd_bus_message* reply, void* pending,
                 sd_bus_error*) ORB_NO_THREAD_SAFETY_ANALYSIS {
  auto* const waiting = static_cast<Pending*>(pending);
  waiting->reply = BusMessage(sd_bus_message_ref(reply));
  Get().Finish(waiting);
  return 1;
}

void Bus::Finish(Pending* pending) {
  pending->done = true;
  pending->replied.NotifyOne();
}

BusMessage Bus::CallAndWait(const BusMessage& call,
                            std::optional<std::chrono::milliseconds> timeout) {
  const uint64_t connection = connection_;
  const auto give_up = Clock::now() + timeout.value_or(kFullQueuePatience);
  WorkerPool::Get().BeginWait();
  BusMessage reply;
  for (std::chrono::milliseconds pause{5};; pause = std::min(2 * pause, kFullQueuePauseMax)) {
    reply = CallOnce(call, timeout ? std::optional(give_up) : std::nullopt);
    if (!IsRefusedByBus(reply) || Clock::now() + pause > give_up) break;
    mutex_.Unlock();
    std::this_thread::sleep_for(pause);
    mutex_.Lock();
    if (connection != connection_ || bus_ == nullptr) {
      reply = BusMessage();
      break;
    }
  }
  WorkerPool::Get().EndWait();
  return reply;
}

BusMessage Bus::CallOnce(const BusMessage& call, std::optional<Clock::time_point> deadline) {
  Pending pending;
  pending.deadline = deadline;
  // Makes room first: once the call is sent, its reply refers to `pending`.
  const bool placed = orb::Contained(
      "CallAndWait", [&]() ORB_NO_THREAD_SAFETY_ANALYSIS { pending_.push_back(&pending); });
  if (placed) pending_.pop_back();  // The capacity stays.
  const int sent =
      call == nullptr || !placed
          ? -ENOMEM
          : sd_bus_call_async(bus_, pending.slot.out(), call.get(), OnReply, &pending, UINT64_MAX);
  if (sent < 0) {
    Rearm();
    return BusMessage();
  }
  Await(&pending);
  return std::move(pending.reply);
}

void Bus::Await(Pending* pending) {
  pending_.push_back(pending);
  Rearm();
  while (!pending->done) {
    if (!pending->deadline) {
      pending->replied.Wait(mutex_);
    } else if (!pending->replied.WaitUntil(mutex_, *pending->deadline)) {
      break;
    }
  }
  pending_.erase(std::find(pending_.begin(), pending_.end(), pending));
}

}  // namespace orb_platform
