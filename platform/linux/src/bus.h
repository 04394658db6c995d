// This process's connection to the bus: outgoing calls, incoming calls, and who holds
// which object.
//
// The binding is not thread-safe, so everything happens under mutex_. The reader
// thread alone waits on the socket. It hands each reply to the thread that waits for
// it, and each call to a worker; it runs no handler itself. docs/formats/bus.md has the
// messages.
//
// Objects. exports_ keeps a local binder that was sent away, and counts the sends to each
// holder. A holder's Release gives back as many sends as it received, so an object whose
// send is still under way stays. A peer is watched once it sends or gets an object.
#pragma once

#include <binder/Binder.h>
#include <binder/BpBinder.h>
#include <binder/Parcel.h>
#include <systemd/sd-bus.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/src/bus_message.h"
#include "platform/linux/src/bus_poller.h"
#include "platform/linux/src/call_budget.h"
#include "platform/linux/src/caller.h"
#include "platform/linux/src/fair_queue.h"
#include "platform/linux/src/remote_target.h"
#include "utility/thread_annotations.h"

namespace orb_platform {

class Bus;

class BusTarget : public RemoteTarget {
 public:
  BusTarget(uint64_t connection, std::string peer, uint64_t id);
  android::status_t Transact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                             uint32_t flags) override;
  void Released(android::BpBinder* proxy) override;
  void PostObituary(const android::sp<android::BpBinder>& proxy) override;

  const uint64_t connection;
  const std::string peer;
  const uint64_t id;
  const std::string path;
};

// One entry of a parcel's object list (bus_parcel.cpp).
struct WireObject {
  uint32_t offset;
  uint8_t kind;
  std::string owner;
  uint64_t number;
};

struct WireObjects {
  std::vector<WireObject> wires;
  std::vector<int> fds;  // Borrowed from the message.
};

// One incoming call. The binding's functions take its message under the bus's mutex
// only; the message's body may be read without it.
struct Incoming {
  BusMessage message;
  Caller caller;
  android::sp<android::BBinder> target;
  bool oneway = false;
  uint32_t code = 0;
  uint32_t flags = 0;
  const void* data = nullptr;
  size_t bytes = 0;
  WireObjects objects;
  CallBudget::Cost cost;
};

// Thread-safe; lives until the process ends.
class Bus {
 public:
  static Bus& Get();

  // Connects unless connected. False when there is no bus, or no thread or descriptor
  // left for it.
  bool Connect() ORB_EXCLUDES(mutex_);
  android::status_t Transact(const BusTarget& target, uint32_t code, const android::Parcel& data,
                             android::Parcel* reply, uint32_t flags) ORB_EXCLUDES(mutex_);
  void ReleaseProxy(const BusTarget& target, const android::BpBinder* proxy) ORB_EXCLUDES(mutex_);

  // Null when nobody owns the name, this user may not call its owner, or the owner did not
  // answer in time. *why gets the status that orb_platform::LastLookUp() describes.
  android::sp<android::IBinder> FindService(const std::string& bus_name, android::status_t* why)
      ORB_EXCLUDES(mutex_);
  // Returns 0 or the code of an exception.
  int32_t AddService(const std::string& bus_name, const android::sp<android::BBinder>& service)
      ORB_EXCLUDES(mutex_);
  std::vector<std::string> ListNames() ORB_EXCLUDES(mutex_);
  Credentials CredentialsOf(const Caller& caller) ORB_EXCLUDES(mutex_);

  // Makes the reader thread call WorkerPool::Relieve(). Needs a connection, or one that was.
  void WakeReader() { poller_.Wake(); }

  // orb_platform/liveness.h.
  uint64_t CallsServed() const { return served_.load(); }
  bool PingOwnService() ORB_EXCLUDES(mutex_);

 private:
  using Clock = std::chrono::steady_clock;
  // An outgoing call that waits for its reply.
  struct Pending {
    bool done = false;
    BusMessage reply;  // None when the connection ended first.
    BusSlot slot;
    std::optional<Clock::time_point> deadline;
    orb::CondVar replied;
  };
  // A reply that its caller reads without the lock; it is freed under the lock.
  struct UnlockedReply {
    ~UnlockedReply() {
      orb::MutexLock lock(bus->mutex_);
      message = BusMessage();
    }
    Bus* const bus;
    BusMessage message;
  };
  struct Proxy {
    android::BpBinder* raw;  // ReleaseProxy removes it before it is destroyed.
    android::wp<android::BpBinder> weak;
    uint64_t received;  // Sends that the owner has counted.
  };
  struct Peer {
    Bus* bus;
    std::string name;
    BusSlot check;
    BusSlot watch;  // None while watches_all_ is set.
    std::optional<Credentials> credentials;
    std::map<uint64_t, Proxy> proxies;
  };
  struct OnewayQueue {
    std::deque<std::shared_ptr<Incoming>> calls;
    bool busy = false;
  };
  struct Export {
    android::sp<android::BBinder> binder;
    uint64_t names = 0;
    std::map<std::string, uint64_t> holders;  // Sends not given back, by peer.
    std::shared_ptr<OnewayQueue> oneway = std::make_shared<OnewayQueue>();
  };

  Bus();

  // bus.cpp: the connection, and waiting on it.
  bool ConnectLocked() ORB_REQUIRES(mutex_);
  void ReportConnect(const char* address, int result) ORB_REQUIRES(mutex_);
  bool StartReader() ORB_REQUIRES(mutex_);
  void Process() ORB_REQUIRES(mutex_);
  void Disconnected() ORB_REQUIRES(mutex_);
  void Rearm() ORB_REQUIRES(mutex_);
  void ReadForever() ORB_EXCLUDES(mutex_);
  BusMessage NewCall(const char* destination, const char* path, const char* interface,
                     const char* member) ORB_REQUIRES(mutex_);
  // Sends `call` and waits. None when the connection ended or the timeout passed; else a
  // reply or an error. While the receiver's queue at the bus is full the call is repeated.
  BusMessage CallAndWait(const BusMessage& call,
                         std::optional<std::chrono::milliseconds> timeout = {})
      ORB_REQUIRES(mutex_);
  BusMessage CallOnce(const BusMessage& call, std::optional<Clock::time_point> deadline)
      ORB_REQUIRES(mutex_);
  void Await(Pending* pending) ORB_REQUIRES(mutex_);
  void Finish(Pending* pending) ORB_REQUIRES(mutex_);
  bool Send(const BusMessage& message) ORB_REQUIRES(mutex_);
  static int OnReply(sd_bus_message* reply, void* pending, sd_bus_error*);

  // bus_objects.cpp: peers, exports, proxies.
  Peer* EnsurePeer(const std::string& name) ORB_REQUIRES(mutex_);
  void Watch(Peer* peer) ORB_REQUIRES(mutex_);
  void PeerDied(const std::string& name) ORB_REQUIRES(mutex_);
  // Marks the peer's proxies dead and has the deaths reported.
  void SendObituaries(Peer* peer) ORB_REQUIRES(mutex_);
  uint64_t ExportTo(const android::sp<android::BBinder>& binder, const std::string& holder)
      ORB_REQUIRES(mutex_);
  uint64_t ExportId(const android::sp<android::BBinder>& binder) ORB_REQUIRES(mutex_);
  void GiveBack(uint64_t id, const std::string& holder, uint64_t count) ORB_REQUIRES(mutex_);
  void DropIfUnused(uint64_t id) ORB_REQUIRES(mutex_);
  void DropReferences() ORB_EXCLUDES(mutex_);
  bool MayUse(const Export& exported, const std::string& peer) const ORB_REQUIRES(mutex_);
  android::sp<android::IBinder> AcquireProxy(uint64_t connection, const std::string& owner,
                                             uint64_t id) ORB_EXCLUDES(mutex_);
  android::sp<android::IBinder> OwnObject(uint64_t id, const std::string& peer)
      ORB_EXCLUDES(mutex_);
  static int OnOwnerChanged(sd_bus_message* message, void* bus, sd_bus_error*);
  static int OnPeerChecked(sd_bus_message* reply, void* peer, sd_bus_error*);
  static bool ReadCredentials(sd_bus_message* reply, Credentials* out);

  // bus_parcel.cpp: parcels inside messages.
  static std::vector<uint8_t> Scrub(const android::Parcel& parcel);
  bool AppendParcel(sd_bus_message* message, const android::Parcel& parcel,
                    const std::vector<uint8_t>& scrubbed, const std::string& peer)
      ORB_REQUIRES(mutex_);
  bool AppendObject(sd_bus_message* message, const android::Parcel& parcel, size_t index,
                    uint32_t* descriptors, const std::string& peer) ORB_REQUIRES(mutex_);
  // The objects of a parcel with `bytes` of data, bounded by what these can hold.
  static android::status_t ReadObjects(sd_bus_message* message, size_t bytes, WireObjects* out);
  android::status_t BuildParcel(const WireObjects& objects, const void* data, size_t bytes,
                                const Caller& sender, android::Parcel* out) ORB_EXCLUDES(mutex_);
  // The status and the parcel of a Transact's answer, which `owner` gave.
  android::status_t ReadReply(sd_bus_message* answer, const Caller& owner, android::Parcel* out)
      ORB_EXCLUDES(mutex_);

  // bus_incoming.cpp: calls in.
  static int OnMessage(sd_bus_message* message, void* bus, sd_bus_error*);
  int HandleCall(sd_bus_message* message) ORB_REQUIRES(mutex_);
  static bool ReadIncoming(sd_bus_message* message, Incoming* call);
  void QueueTransaction(sd_bus_message* message, const std::string& sender) ORB_REQUIRES(mutex_);
  void HandleLookup(sd_bus_message* message, const std::string& sender) ORB_REQUIRES(mutex_);
  std::string UserOf(const std::string& sender) const ORB_REQUIRES(mutex_);
  // Runs the next call that waits for a worker; users take turns.
  void RunNext() ORB_EXCLUDES(mutex_);
  void RunCall(const std::shared_ptr<Incoming>& call) ORB_EXCLUDES(mutex_);
  void Serve(Incoming* call) ORB_EXCLUDES(mutex_);
  // Queues the call for a worker. Throws std::bad_alloc; then the call is not queued.
  void Enqueue(const std::shared_ptr<Incoming>& call, const std::shared_ptr<OnewayQueue>& queue)
      ORB_REQUIRES(mutex_);
  // Frees the call's message and its share of the budget.
  void Finished(Incoming* call) ORB_REQUIRES(mutex_);
  void RunOneway(const std::shared_ptr<OnewayQueue>& queue) ORB_EXCLUDES(mutex_);
  void ReplyError(sd_bus_message* call, const char* error) ORB_REQUIRES(mutex_);

  mutable orb::Mutex mutex_;
  BusPoller poller_;
  std::atomic<uint64_t> served_{0};  // Incoming calls that a worker has run.
  sd_bus* bus_ ORB_GUARDED_BY(mutex_) = nullptr;
  uint64_t connection_ ORB_GUARDED_BY(mutex_) = 0;
  int connect_result_ ORB_GUARDED_BY(mutex_) = 0;  // The latest attempt's 0 or -errno.
  bool reader_started_ ORB_GUARDED_BY(mutex_) = false;
  std::vector<Pending*> pending_ ORB_GUARDED_BY(mutex_);
  std::map<std::string, std::unique_ptr<Peer>> peers_ ORB_GUARDED_BY(mutex_);
  bool watches_all_ ORB_GUARDED_BY(mutex_) = false;  // One rule reports every peer that leaves.
  // Peers that died inside a callback of the binding; Process() frees their slots later.
  std::multimap<std::string, std::unique_ptr<Peer>> dead_peers_ ORB_GUARDED_BY(mutex_);
  uint64_t last_id_ ORB_GUARDED_BY(mutex_) = 0;
  std::map<uint64_t, Export> exports_ ORB_GUARDED_BY(mutex_);
  std::map<const android::BBinder*, uint64_t> export_ids_ ORB_GUARDED_BY(mutex_);
  std::map<std::string, uint64_t> services_ ORB_GUARDED_BY(mutex_);  // Bus name to export.
  // A worker or a returning caller frees these unlocked: their destructors may make calls.
  std::vector<android::sp<android::BBinder>> dropped_ ORB_GUARDED_BY(mutex_);
  bool drop_posted_ ORB_GUARDED_BY(mutex_) = false;  // A task for that is queued.
  // Two-way calls that wait for a worker, by user.
  FairQueue<std::shared_ptr<Incoming>> calls_ ORB_GUARDED_BY(mutex_);
  CallBudget budget_ ORB_GUARDED_BY(mutex_);      // Incoming calls that wait or run.
  bool dropping_ ORB_GUARDED_BY(mutex_) = false;  // The latest call was refused; logged once.
};

}  // namespace orb_platform
