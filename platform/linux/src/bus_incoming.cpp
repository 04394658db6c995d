// Incoming calls. The reader thread answers those about references and names, and queues
// transactions for workers.
// Tested by tests/platform/contract_test.cpp and bus_test.cpp.
#include <orb_platform/liveness.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <utility>

#include "platform/linux/src/bus.h"
#include "platform/linux/src/bus_names.h"
#include "platform/linux/src/worker_pool.h"
#define ORB_LOG_TAG "orb_platform"
#include "utility/contained.h"
#include "utility/log.h"

namespace orb_platform {

namespace {

using android::Parcel;

// Memory that a call takes besides its body.
constexpr size_t kCallOverheadBytes = 1024;

bool IdOf(const char* path, uint64_t* id) {
  constexpr size_t kPrefixBytes = sizeof kObjectPrefix - 1;
  if (path == nullptr || strncmp(path, kObjectPrefix, kPrefixBytes) != 0) return false;
  const char* const end = path + strlen(path);
  const auto parsed = std::from_chars(path + kPrefixBytes, end, *id);
  return parsed.ec == std::errc() && parsed.ptr == end;
}

}  // namespace

int Bus::OnMessage(sd_bus_message* message, void* bus,
                   sd_bus_error*) ORB_NO_THREAD_SAFETY_ANALYSIS {
  if (sd_bus_message_is_method_call(message, kInterface, nullptr) <= 0) return 0;
  // The binding answers the caller with this error.
  return orb::Contained("OnMessage", -ENOMEM, [&]() ORB_NO_THREAD_SAFETY_ANALYSIS {
    return static_cast<Bus*>(bus)->HandleCall(message);
  });
}

int Bus::HandleCall(sd_bus_message* message) {
  const char* const member = sd_bus_message_get_member(message);
  const char* const from = sd_bus_message_get_sender(message);
  if (from == nullptr) return 1;
  const std::string sender = from;
  uint64_t id = 0;
  uint64_t count = 0;
  const char* holder = nullptr;
  if (strcmp(member, "Transact") == 0) {
    QueueTransaction(message, sender);
  } else if (strcmp(member, "Lookup") == 0) {
    HandleLookup(message, sender);
  } else if (strcmp(member, "Release") == 0) {
    if (sd_bus_message_read(message, "tt", &id, &count) > 0) GiveBack(id, sender, count);
  } else if (strcmp(member, "Retain") == 0) {
    if (sd_bus_message_read(message, "ts", &id, &holder) <= 0) return 1;
    const auto it = exports_.find(id);
    if (it == exports_.end() || !MayUse(it->second, sender) || !IsUniqueName(holder)) {
      ReplyError(message, kErrorNoObject);
      return 1;
    }
    EnsurePeer(holder);
    it->second.holders[holder]++;
  } else {
    return 0;
  }
  return 1;
}

void Bus::ReplyError(sd_bus_message* call, const char* error) {
  if (sd_bus_message_get_expect_reply(call) <= 0) return;
  BusMessage reply;
  const sd_bus_error what = SD_BUS_ERROR_MAKE_CONST(error, "");
  if (sd_bus_message_new_method_error(call, reply.out(), &what) >= 0) Send(reply);
}

void Bus::HandleLookup(sd_bus_message* message, const std::string& sender) {
  const char* name = nullptr;
  if (sd_bus_message_read(message, "s", &name) <= 0) name = "";
  const auto it = services_.find(name);
  if (it == services_.end()) {
    ReplyError(message, kErrorNoService);
    return;
  }
  const uint64_t id = it->second;
  BusMessage reply;
  if (sd_bus_message_new_method_return(message, reply.out()) < 0) return;
  EnsurePeer(sender);
  exports_[id].holders[sender]++;
  sd_bus_message_append(reply.get(), "t", id);
  Send(reply);
}

// Refuses a call before anything is allocated for it. Its message is in memory already,
// but only one message at a time is.
bool Bus::ReadIncoming(sd_bus_message* message, Incoming* call) {
  if (sd_bus_message_has_signature(message, "uuaya(uyst)ah") <= 0 ||
      sd_bus_message_read(message, "uu", &call->code, &call->flags) <= 0 ||
      sd_bus_message_read_array(message, 'y', &call->data, &call->bytes) < 0 ||
      ExceedsLimit(call->bytes, call->oneway) ||
      ReadObjects(message, call->bytes, &call->objects) != android::OK) {
    return false;
  }
  call->cost.bytes =
      kCallOverheadBytes + call->bytes + call->objects.wires.size() * sizeof(WireObject);
  call->cost.descriptors = call->objects.fds.size();
  return true;
}

void Bus::QueueTransaction(sd_bus_message* message, const std::string& sender) {
  uint64_t id = 0;
  const auto it = IdOf(sd_bus_message_get_path(message), &id) ? exports_.find(id) : exports_.end();
  if (it == exports_.end() || !MayUse(it->second, sender)) {
    ReplyError(message, kErrorNoObject);
    return;
  }
  auto call = std::make_shared<Incoming>();
  call->oneway = sd_bus_message_get_expect_reply(message) <= 0;
  if (!ReadIncoming(message, call.get())) {
    ReplyError(message, SD_BUS_ERROR_INVALID_ARGS);
    return;
  }
  if (!budget_.Take(sender, call->cost)) {
    if (call->oneway && !std::exchange(dropping_, true)) {
      LOGE("one-way calls of %zu bytes wait already; one of %s is dropped", budget_.held().bytes,
           sender.c_str());
    }
    ReplyError(message, SD_BUS_ERROR_LIMITS_EXCEEDED);
    return;
  }
  dropping_ = false;
  call->caller = {connection_, sender};
  call->target = it->second.binder;
  call->message = BusMessage(sd_bus_message_ref(message));
  const bool queued = orb::Contained("QueueTransaction", [&]() ORB_NO_THREAD_SAFETY_ANALYSIS {
    Enqueue(call, it->second.oneway);
  });
  if (queued) return;
  ReplyError(message, SD_BUS_ERROR_NO_MEMORY);
  Finished(call.get());
}

void Bus::Enqueue(const std::shared_ptr<Incoming>& call,
                  const std::shared_ptr<OnewayQueue>& queue) {
  // Either statement may throw. When the second does, the task finds nothing to run.
  if (!call->oneway) {
    WorkerPool::Get().Post([this] { RunNext(); });
    calls_.Push(UserOf(call->caller.name), call);
    return;
  }
  if (!queue->busy) {
    WorkerPool::Get().Post([this, queue] { RunOneway(queue); });
    queue->busy = true;
  }
  queue->calls.push_back(call);
}

// The sender's user id, or its bus name until the bus has told the id.
std::string Bus::UserOf(const std::string& sender) const {
  const auto known = peers_.find(sender);
  if (known == peers_.end() || !known->second->credentials) return sender;
  return std::to_string(known->second->credentials->uid);
}

void Bus::RunNext() {
  std::optional<std::shared_ptr<Incoming>> call;
  {
    orb::MutexLock lock(mutex_);
    call = calls_.Pop();
  }
  if (call) RunCall(*call);
}

void Bus::Finished(Incoming* call) {
  call->message = BusMessage();
  budget_.Give(call->caller.name, call->cost);
}

// Runs one call and posts itself again, so that objects share the workers fairly.
void Bus::RunOneway(const std::shared_ptr<OnewayQueue>& queue) {
  std::shared_ptr<Incoming> call;
  {
    orb::MutexLock lock(mutex_);
    queue->busy = !queue->calls.empty();
    if (!queue->busy) return;
    call = std::move(queue->calls.front());
    queue->calls.pop_front();
  }
  RunCall(call);
  bool more = false;
  {
    orb::MutexLock lock(mutex_);
    more = !queue->calls.empty();
    queue->busy = more;
  }
  if (!more) return;
  const bool posted = orb::Contained(
      "RunOneway", [&] { WorkerPool::Get().Post([this, queue] { RunOneway(queue); }); });
  if (posted) return;
  orb::MutexLock lock(mutex_);
  queue->busy = false;  // The object's next call posts a task for these, too.
}

void Bus::RunCall(const std::shared_ptr<Incoming>& call) {
  const bool served = orb::Contained("RunCall", [&] { Serve(call.get()); });
  served_++;
  orb::MutexLock lock(mutex_);
  if (!served && bus_ != nullptr && call->caller.connection == connection_) {
    ReplyError(call->message.get(), SD_BUS_ERROR_NO_MEMORY);
  }
  Finished(call.get());
}

void Bus::Serve(Incoming* call) {
  Parcel data;
  Parcel reply;
  android::status_t status =
      BuildParcel(call->objects, call->data, call->bytes, call->caller, &data);
  if (status == android::OK) {
    const CallerScope scope(&call->caller);
    status = call->target->transact(call->code, data, &reply, call->flags);
  }
  if (status == android::OK && ExceedsLimit(reply, 0)) {
    status = android::FAILED_TRANSACTION;
  }
  if (status != android::OK) reply.freeData();
  const std::vector<uint8_t> scrubbed = Scrub(reply);
  orb::MutexLock lock(mutex_);
  if (call->oneway || bus_ == nullptr || call->caller.connection != connection_) return;
  BusMessage out;
  if (sd_bus_message_new_method_return(call->message.get(), out.out()) >= 0 &&
      sd_bus_message_append(out.get(), "i", status) >= 0 &&
      AppendParcel(out.get(), reply, scrubbed, call->caller.name)) {
    Send(out);
  } else {
    ReplyError(call->message.get(), SD_BUS_ERROR_FAILED);
  }
}

// Sends a one-way call, so that the caller does not wait.
bool Bus::PingOwnService() {
  orb::MutexLock lock(mutex_);
  const char* self = nullptr;
  if (bus_ == nullptr || services_.empty() || sd_bus_get_unique_name(bus_, &self) < 0) return false;
  const std::string path = kObjectPrefix + std::to_string(services_.begin()->second);
  const BusMessage call = NewCall(self, path.c_str(), kInterface, "Transact");
  if (call == nullptr) return false;
  const uint32_t ping = android::IBinder::PING_TRANSACTION;
  const uint32_t oneway = android::IBinder::FLAG_ONEWAY;
  sd_bus_message_set_expect_reply(call.get(), 0);
  return sd_bus_message_append(call.get(), "uuaya(uyst)ah", ping, oneway, 0, 0, 0) >= 0 &&
         Send(call);
}

uint64_t CallsServed() { return Bus::Get().CallsServed(); }
bool PingOwnService() { return Bus::Get().PingOwnService(); }

}  // namespace orb_platform
