// Peers, exports, proxies: who holds what, and until when.
// Tested by tests/platform/bus_test.cpp.
#include <binder/Status.h>

#include <algorithm>
#include <utility>

#include "platform/linux/src/bus.h"
#include "platform/linux/src/bus_names.h"
#include "platform/linux/src/worker_pool.h"
#define ORB_LOG_TAG "orb_platform"
#include "utility/contained.h"

namespace orb_platform {

using android::BBinder;
using android::BpBinder;
using android::IBinder;
using android::sp;

namespace {

// The owner's reader thread answers at once; a stopped process must not block the caller.
constexpr std::chrono::milliseconds kLookupTimeout{2000};
constexpr uint32_t kDoNotQueue = 4;
constexpr uint32_t kPrimaryOwner = 1;
constexpr uint32_t kAlreadyOwner = 4;

}  // namespace

BusTarget::BusTarget(uint64_t connection_number, std::string peer_name, uint64_t object_id)
    : connection(connection_number),
      peer(std::move(peer_name)),
      id(object_id),
      path(kObjectPrefix + std::to_string(object_id)) {}

android::status_t BusTarget::Transact(uint32_t code, const android::Parcel& data,
                                      android::Parcel* reply, uint32_t flags) {
  return Bus::Get().Transact(*this, code, data, reply, flags);
}

void BusTarget::Released(BpBinder* proxy) { Bus::Get().ReleaseProxy(*this, proxy); }

void BusTarget::PostObituary(const sp<BpBinder>& proxy) {
  WorkerPool::Get().Post([proxy] { proxy->sendObituary(); });
}

// Installs the watch before it asks for the credentials, so that a peer which dies before
// the answer is noticed, too.
Bus::Peer* Bus::EnsurePeer(const std::string& name) {
  const auto known = peers_.find(name);
  if (known != peers_.end()) return known->second.get();
  auto made = std::make_unique<Peer>();
  Peer* const peer = made.get();
  peer->bus = this;
  peer->name = name;
  peers_.emplace(name, std::move(made));
  Watch(peer);
  sd_bus_call_method_async(bus_, peer->check.out(), kDaemon, kDaemonPath, kDaemon,
                           "GetConnectionCredentials", OnPeerChecked, peer, "s", name.c_str());
  Rearm();
  return peer;
}

// Few peers get a rule each, so that a client, which has two peers, sleeps while others
// come and go. Many peers share one rule, because the bus allows a connection 512.
void Bus::Watch(Peer* peer) {
  constexpr size_t kMostAlone = 16;
  if (watches_all_) return;
  watches_all_ = peers_.size() > kMostAlone;
  const std::string rule =
      "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
      "member='NameOwnerChanged'," +
      (watches_all_ ? "arg0namespace=':1'" : "arg0='" + peer->name + "'");
  // Without a callback the binding would end the connection when the bus refuses the rule.
  const auto installed = [](sd_bus_message*, void*, sd_bus_error*) { return 0; };
  sd_bus_add_match_async(bus_, watches_all_ ? nullptr : peer->watch.out(), rule.c_str(),
                         OnOwnerChanged, installed, this);
}

int Bus::OnOwnerChanged(sd_bus_message* message, void* bus,
                        sd_bus_error*) ORB_NO_THREAD_SAFETY_ANALYSIS {
  const char* name = nullptr;
  const char* before = nullptr;
  const char* after = nullptr;
  if (sd_bus_message_read(message, "sss", &name, &before, &after) < 0) return 0;
  if (*after == 0) {
    orb::Contained("OnOwnerChanged",
                   [&]() ORB_NO_THREAD_SAFETY_ANALYSIS { static_cast<Bus*>(bus)->PeerDied(name); });
  }
  return 0;
}

int Bus::OnPeerChecked(sd_bus_message* reply, void* peer,
                       sd_bus_error*) ORB_NO_THREAD_SAFETY_ANALYSIS {
  auto* const checked = static_cast<Peer*>(peer);
  orb::Contained("OnPeerChecked", [&]() ORB_NO_THREAD_SAFETY_ANALYSIS {
    Credentials credentials;
    if (sd_bus_message_is_method_error(reply, SD_BUS_ERROR_NAME_HAS_NO_OWNER) > 0) {
      checked->bus->PeerDied(std::string(checked->name));
    } else if (ReadCredentials(reply, &credentials)) {
      checked->credentials = credentials;
    }
  });
  return 0;
}

bool Bus::ReadCredentials(sd_bus_message* reply, Credentials* out) {
  if (sd_bus_message_is_method_error(reply, nullptr) > 0) return false;
  if (sd_bus_message_enter_container(reply, 'a', "{sv}") < 0) return false;
  while (sd_bus_message_enter_container(reply, 'e', "sv") > 0) {
    const char* key = nullptr;
    if (sd_bus_message_read(reply, "s", &key) < 0) return false;
    const std::string name = key;
    uint32_t value = 0;
    if (name == "ProcessID" || name == "UnixUserID") {
      if (sd_bus_message_read(reply, "v", "u", &value) < 0) return false;
      if (name == "ProcessID") out->pid = static_cast<pid_t>(value);
      if (name == "UnixUserID") out->uid = value;
    } else if (sd_bus_message_skip(reply, "v") < 0) {
      return false;
    }
    sd_bus_message_exit_container(reply);
  }
  return true;
}

Credentials Bus::CredentialsOf(const Caller& caller) {
  orb::MutexLock lock(mutex_);
  if (bus_ == nullptr || caller.connection != connection_) return {};
  // Holds for the caller's life: the bus never gives its name to another connection.
  const auto known = peers_.find(caller.name);
  if (known != peers_.end() && known->second->credentials) return *known->second->credentials;
  EnsurePeer(caller.name);
  BusMessage call = NewCall(kDaemon, kDaemonPath, kDaemon, "GetConnectionCredentials");
  if (call != nullptr) sd_bus_message_append(call.get(), "s", caller.name.c_str());
  const BusMessage reply = CallAndWait(call);
  Credentials out;
  if (reply != nullptr && !ReadCredentials(reply.get(), &out)) out = {};
  return out;
}

void Bus::PeerDied(const std::string& name) {
  const auto it = peers_.find(name);
  if (it == peers_.end()) return;
  auto node = peers_.extract(it);
  SendObituaries(node.mapped().get());
  dead_peers_.insert(std::move(node));
  for (auto next = exports_.begin(); next != exports_.end();) {
    const auto held = next++;  // Dropping erases it.
    if (held->second.holders.erase(name) > 0) DropIfUnused(held->first);
  }
}

void Bus::SendObituaries(Peer* peer) {
  for (auto& [id, proxy] : peer->proxies) {
    if (proxy.raw == nullptr || !proxy.raw->markDead()) continue;
    {
      const sp<BpBinder> strong = proxy.weak.promote();
      if (strong == nullptr) continue;
      strong->incStrong(this);
    }
    // The task frees the reference. Without memory for a task it leaks on purpose: freeing
    // the last one here would run a destructor under the lock.
    orb::Contained("SendObituaries", [this, dead = proxy.raw] {
      WorkerPool::Get().Post([this, dead] {
        dead->sendObituary();
        dead->decStrong(this);
      });
    });
  }
}

uint64_t Bus::ExportId(const sp<BBinder>& binder) {
  const auto [it, added] = export_ids_.try_emplace(binder.get(), last_id_ + 1);
  if (!added && exports_.count(it->second) != 0) return it->second;
  // The id has no export when memory ran out after the id was listed.
  it->second = ++last_id_;
  exports_[it->second].binder = binder;
  return it->second;
}

uint64_t Bus::ExportTo(const sp<BBinder>& binder, const std::string& holder) {
  EnsurePeer(holder);
  const uint64_t id = ExportId(binder);
  exports_[id].holders[holder]++;
  return id;
}

void Bus::GiveBack(uint64_t id, const std::string& holder, uint64_t count) {
  const auto it = exports_.find(id);
  if (it == exports_.end()) return;
  const auto held = it->second.holders.find(holder);
  if (held == it->second.holders.end()) return;
  held->second -= std::min(held->second, count);
  if (held->second > 0) return;
  it->second.holders.erase(held);
  DropIfUnused(id);
}

void Bus::DropIfUnused(uint64_t id) {
  const auto it = exports_.find(id);
  if (it == exports_.end() || it->second.names > 0 || !it->second.holders.empty()) return;
  export_ids_.erase(it->second.binder.get());
  dropped_.push_back(std::move(it->second.binder));
  exports_.erase(it);
  if (drop_posted_) return;
  WorkerPool::Get().Post([this] {
    mutex_.Lock();
    drop_posted_ = false;
    mutex_.Unlock();
    DropReferences();
  });
  drop_posted_ = true;
}

void Bus::DropReferences() {
  std::vector<sp<BBinder>> dropped;
  orb::MutexLock lock(mutex_);
  dropped.swap(dropped_);
}

bool Bus::MayUse(const Export& exported, const std::string& peer) const {
  return exported.names > 0 || exported.holders.count(peer) > 0;
}

sp<IBinder> Bus::OwnObject(uint64_t id, const std::string& peer) {
  orb::MutexLock lock(mutex_);
  const auto it = exports_.find(id);
  return it != exports_.end() && MayUse(it->second, peer) ? it->second.binder : nullptr;
}

sp<IBinder> Bus::AcquireProxy(uint64_t connection, const std::string& owner, uint64_t id) {
  orb::MutexLock lock(mutex_);
  if (bus_ == nullptr || connection != connection_ || owner.empty()) {
    sp<BpBinder> dead = BpBinder::create(std::make_shared<BusTarget>(0, owner, id));
    dead->markDead();
    return dead;
  }
  Peer* const peer = EnsurePeer(owner);
  const auto [it, added] = peer->proxies.try_emplace(id, Proxy{nullptr, nullptr, 0});
  Proxy& proxy = it->second;
  proxy.received++;
  sp<BpBinder> strong = added ? nullptr : proxy.weak.promote();
  if (strong == nullptr) {
    strong = BpBinder::create(std::make_shared<BusTarget>(connection, owner, id));
    proxy.raw = strong.get();
    proxy.weak = strong;
  }
  return strong;
}

void Bus::ReleaseProxy(const BusTarget& target, const BpBinder* proxy) {
  orb::MutexLock lock(mutex_);
  if (bus_ == nullptr || target.connection != connection_) return;
  const auto peer = peers_.find(target.peer);
  if (peer == peers_.end()) return;
  const auto it = peer->second->proxies.find(target.id);
  // A newer proxy of the object has taken over the count.
  if (it == peer->second->proxies.end() || it->second.raw != proxy) return;
  const BusMessage call = NewCall(target.peer.c_str(), kRootPath, kInterface, "Release");
  if (call != nullptr) {
    sd_bus_message_append(call.get(), "tt", target.id, it->second.received);
    sd_bus_message_set_expect_reply(call.get(), 0);
    Send(call);
  }
  peer->second->proxies.erase(it);
}

sp<IBinder> Bus::FindService(const std::string& bus_name, android::status_t* why) {
  uint64_t connection = 0;
  uint64_t id = 0;
  std::string owner;  // Empty when nothing was found.
  *why = android::OK;
  {
    orb::MutexLock lock(mutex_);
    if (!ConnectLocked()) {
      *why = android::NO_INIT;
      return nullptr;
    }
    const auto own = services_.find(bus_name);
    if (own != services_.end()) return exports_[own->second].binder;
    connection = connection_;
    BusMessage call = NewCall(bus_name.c_str(), kRootPath, kInterface, "Lookup");
    if (call != nullptr) sd_bus_message_append(call.get(), "s", bus_name.c_str());
    const BusMessage reply = CallAndWait(call, kLookupTimeout);
    if (reply == nullptr) {
      *why = android::TIMED_OUT;
    } else if (sd_bus_message_is_method_error(reply.get(), SD_BUS_ERROR_ACCESS_DENIED) > 0) {
      *why = android::PERMISSION_DENIED;
    } else if (sd_bus_message_is_method_error(reply.get(), nullptr) > 0 ||
               sd_bus_message_read(reply.get(), "t", &id) <= 0 ||
               sd_bus_message_get_sender(reply.get()) == nullptr) {
      *why = android::NAME_NOT_FOUND;
    } else {
      owner = sd_bus_message_get_sender(reply.get());
    }
  }
  return *why == android::OK ? AcquireProxy(connection, owner, id) : nullptr;
}

int32_t Bus::AddService(const std::string& bus_name, const sp<BBinder>& service) {
  orb::MutexLock lock(mutex_);
  using android::binder::Status;
  if (!ConnectLocked()) return Status::EX_TRANSACTION_FAILED;
  // Lists the service before the bus grants the name, so that no lookup comes too early.
  const uint64_t id = ExportId(service);
  exports_[id].names++;
  const auto [it, added] = services_.try_emplace(bus_name, id);
  if (!added) {
    const uint64_t before = std::exchange(it->second, id);
    exports_[before].names--;
    DropIfUnused(before);
    return Status::EX_NONE;
  }
  BusMessage call = NewCall(kDaemon, kDaemonPath, kDaemon, "RequestName");
  if (call != nullptr) sd_bus_message_append(call.get(), "su", bus_name.c_str(), kDoNotQueue);
  const BusMessage reply = CallAndWait(call);
  uint32_t result = 0;
  int32_t code = Status::EX_TRANSACTION_FAILED;
  if (reply == nullptr) return code;  // Disconnected, so nothing is listed any more.
  if (sd_bus_message_is_method_error(reply.get(), nullptr) > 0) {
    if (sd_bus_message_is_method_error(reply.get(), SD_BUS_ERROR_ACCESS_DENIED) > 0) {
      code = Status::EX_SECURITY;
    }
  } else if (sd_bus_message_read(reply.get(), "u", &result) > 0) {
    const bool ours = result == kPrimaryOwner || result == kAlreadyOwner;
    code = ours ? Status::EX_NONE : Status::EX_ILLEGAL_STATE;
  }
  const auto listed = services_.find(bus_name);
  if (code != Status::EX_NONE && listed != services_.end()) {
    const uint64_t last = listed->second;
    services_.erase(listed);
    exports_[last].names--;
    DropIfUnused(last);
  }
  return code;
}

std::vector<std::string> Bus::ListNames() {
  orb::MutexLock lock(mutex_);
  std::vector<std::string> out;
  if (!ConnectLocked()) return out;
  const BusMessage reply = CallAndWait(NewCall(kDaemon, kDaemonPath, kDaemon, "ListNames"));
  if (reply == nullptr) return out;
  const char* name = nullptr;
  if (sd_bus_message_enter_container(reply.get(), 'a', "s") > 0) {
    while (sd_bus_message_read(reply.get(), "s", &name) > 0) out.emplace_back(name);
  }
  return out;
}

}  // namespace orb_platform
