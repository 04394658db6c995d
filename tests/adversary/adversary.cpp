// usage: orb_adversary ATTACK [VICTIM]
//
// A member of the clients' group that does what no client should, round after round
// until it is killed. Prints a line after each round. VICTIM: an honest client's name, or of an
// upload of its.
#include <aidl/vendor/nuv/orbsyshal_aidl/BnOrbFdCallback.h>
#include <aidl/vendor/nuv/orbsyshal_aidl/IOrbsyshal.h>
#include <android/binder_manager.h>
#include <android/binder_process.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <cutils/ashmem.h>
#include <fcntl.h>
#include <fmq/AidlMessageQueue.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "ipc/IKIVManager.h"
#include "tests/services/upload_bytes.h"
#include "tests/support/fake_client.h"
#include "tests/support/raw_peer.h"
#include "utility/unique_fd.h"

namespace {

using aidl::android::hardware::common::NativeHandle;
using aidl::android::hardware::common::fmq::SynchronizedReadWrite;
using aidl::vendor::nuv::orbsyshal_aidl::BnOrbFdCallback;
using aidl::vendor::nuv::orbsyshal_aidl::IOrbsyshal;
using aidl::vendor::nuv::orbsyshal_aidl::SetFdResult;
using orb::UniqueFd;
using orb::test::RawPeer;

using Queue = android::AidlMessageQueue<int8_t, SynchronizedReadWrite>;

constexpr char kManager[] = "vendor_kivsdkservice";
constexpr char kHal[] = "vendor.nuv.orbsyshal_aidl.IOrbsyshal/default";
constexpr const char* kBusNames[] = {
    "org.orb.service.vendor_5fkivsdkservice",
    "org.orb.service.vendor_2enuv_2eorbsyshal_5faidl_2eIOrbsyshal_2fdefault",
};
// Calls of a connection that the bus lets wait for their replies.
constexpr int kBusReplies = 128;
constexpr uint32_t kCodes = 12;  // More than either interface has.

std::unique_ptr<RawPeer> Connect(size_t service) {
  auto peer = std::make_unique<RawPeer>(getenv("ORB_BUS_ADDRESS"), kBusNames[service]);
  return peer->Connected() ? std::move(peer) : nullptr;
}

// A raw connection to each service, as long as the bus keeps it.
class RawPeers {
 public:
  // The connection, and the service's id in *id; null when there is none now.
  RawPeer* To(size_t service, uint64_t* id) {
    std::unique_ptr<RawPeer>& peer = peers_[service];
    if (peer == nullptr || !peer->Flush()) peer = Connect(service);
    *id = peer == nullptr ? 0 : peer->Lookup();
    return *id == 0 ? nullptr : peer.get();
  }

 private:
  std::unique_ptr<RawPeer> peers_[2];
};

void Oversize(const std::string&) {
  static RawPeers peers;
  for (size_t service = 0; service < 2; service++) {
    for (const size_t bytes : {size_t{31} << 20, size_t{2} << 20, size_t{1} << 19}) {
      uint64_t id = 0;
      RawPeer* const peer = peers.To(service, &id);
      if (peer == nullptr) continue;
      const auto call = peer->Transaction(id, 2, bytes);
      RawPeer::AppendObjects(call, 0, 0, "");
      peer->Ask(call);
    }
  }
}

void Malformed(const std::string&) {
  static RawPeers peers;
  static std::mt19937 random(1);
  for (uint32_t i = 0; i < 400; i++) {
    uint64_t id = 0;
    RawPeer* const peer = peers.To(i % 2, &id);
    if (peer == nullptr) continue;
    std::vector<uint8_t> data(random() % 512);
    for (uint8_t& byte : data) byte = static_cast<uint8_t>(random());
    // What looks like lengths: small, large and negative.
    for (size_t at = 0; at + 4 <= data.size(); at += 4) {
      if (random() % 2 == 0)
        data[at + 1] = data[at + 2] = data[at + 3] = random() % 3 == 0 ? 0xFF : 0;
    }
    const auto call = peer->Transaction(id, 1 + random() % kCodes, data);
    RawPeer::AppendObjects(call, random() % 4, static_cast<uint8_t>(random() % 6),
                           random() % 2 == 0 ? "" : ":1.1", random() % 3, STDIN_FILENO);
    peer->Ask(call);
    const auto retain = peer->Call(orb_platform::kRootPath, "Retain");
    sd_bus_message_append(retain.get(), "ts", id, i % 4 < 2 ? "x'" : ":1.99999999");
    peer->SendOneway(retain);  // One that is granted has no answer.
  }
}

void FloodOneway(const std::string&) {
  static RawPeers peers;
  for (size_t i = 0; i < 16; i++) {
    uint64_t id = 0;
    RawPeer* const peer = peers.To(i % 2, &id);
    if (peer == nullptr) continue;
    for (size_t k = 0; k < 250; k++) {
      const auto call = peer->Transaction(id, 2, k % 4 == 0 ? size_t{100000} : size_t{0});
      RawPeer::AppendObjects(call, 0, 0, "", k % 2 == 0 ? 15 : 0, STDIN_FILENO);
      peer->SendOneway(call);
      if (k % 16 == 0) peer->Flush();
    }
  }
}

// Asks, and never reads an answer.
void UnreadReplies(const std::string&) {
  static std::vector<std::unique_ptr<RawPeer>> peers;
  for (size_t service = 0; service < 2; service++) {
    std::unique_ptr<RawPeer> peer = Connect(service);
    const uint64_t id = peer == nullptr ? 0 : peer->Lookup();
    if (id == 0) continue;
    for (int i = 0; i < kBusReplies; i++) {
      const auto call = peer->Transaction(id, 1, size_t{200});
      RawPeer::AppendObjects(call, 0, 0, "");
      peer->Send(call);
    }
    peer->Flush();
    peers.push_back(std::move(peer));
  }
  if (peers.size() > 20) peers.clear();
}

void Reconnect(const std::string&) {
  std::vector<std::unique_ptr<RawPeer>> peers;
  for (size_t i = 0; i < 100; i++) {
    std::unique_ptr<RawPeer> peer = Connect(i % 2);
    if (peer != nullptr && peer->Lookup() != 0) peers.push_back(std::move(peer));
  }
}

// Holds as many connections as the bus gives a user.
void HoldConnections(const std::string&) {
  static std::vector<std::unique_ptr<RawPeer>> held;
  while (held.size() < 1024) {
    std::unique_ptr<RawPeer> peer = Connect(held.size() % 2);
    if (peer == nullptr || peer->Lookup() == 0) break;
    held.push_back(std::move(peer));
  }
  printf("holds %zu\n", held.size());
}

android::sp<IKIVManager> Manager() {
  return android::interface_cast<IKIVManager>(
      android::defaultServiceManager()->checkService(android::String16(kManager)));
}

// Never answers.
class SilentClient : public orb::test::FakeClient {
  android::binder::Status StopSession(const std::string&, int64_t) override {
    while (true) pause();
  }
};

bool Register(const std::string& name,
              const android::sp<orb::test::FakeClient>& client = new SilentClient()) {
  static android::sp<IKIVManager> manager = Manager();
  KIVClientInfo info;
  info.clientName = name;
  KIVClientId id;
  if (manager == nullptr) return false;
  return manager->registerKIVClient(info, client, &id).isOk();
}

void StealName(const std::string& victim) {
  if (Register(victim)) printf("has the name %s\n", victim.c_str());
}

void TakeNames(const std::string&) {
  static int next = 0;
  static const android::sp<orb::test::FakeClient> client(new orb::test::FakeClient());
  for (int i = 0; i < 500; i++) Register("squatter-" + std::to_string(next++), client);
}

// Each takes the place of one that answers nothing.
void RegisterAgain(const std::string&) {
  for (int i = 0; i < 200; i++) Register("again");
}

std::shared_ptr<IOrbsyshal> Hal() {
  static const std::shared_ptr<IOrbsyshal> hal =
      IOrbsyshal::fromBinder(ndk::SpAIBinder(AServiceManager_checkService(kHal)));
  if (hal == nullptr) abort();
  return hal;
}

bool Upload(const std::string& name, size_t bytes) {
  const std::vector<uint8_t> upload = orb::hal::Upload(1, 1, bytes);
  Queue queue(upload.size());
  bool done = false;
  if (!queue.isValid() || !Hal()->configure_fmq(queue.dupeDesc(), &done).isOk() || !done) {
    return false;
  }
  queue.write(reinterpret_cast<const int8_t*>(upload.data()), upload.size());
  done = false;
  return Hal()->request_read(name, static_cast<int32_t>(upload.size()), &done).isOk() && done;
}

void LargeUploads(const std::string&) { Upload("/adversary/large", size_t{60} << 20); }

void ForgeUploads(const std::string& victim) {
  if (Upload(victim, 100)) printf("has stored as %s\n", victim.c_str());
  Upload("/../../.." + victim, 100);
}

// Configures a queue that it never has read.
void IdleQueue(const std::string&) {
  static const Queue queue(4096);
  bool done = false;
  static_cast<void>(Hal()->configure_fmq(queue.dupeDesc(), &done).isOk());
}

class SilentCallback : public BnOrbFdCallback {
 public:
  ndk::ScopedAStatus fd_write_done(int32_t, int32_t, int32_t, int32_t) override {
    while (true) pause();
  }
};

NativeHandle Region(int fd, int32_t bytes) {
  NativeHandle region;
  region.fds.emplace_back(fcntl(fd, F_DUPFD_CLOEXEC, 0));
  region.ints = {0, bytes};
  return region;
}

// Announces slots, and takes note of none.
void SilentSlots(const std::string&) {
  constexpr int32_t kBytes = 65536;
  static const auto callback = ndk::SharedRefBase::make<SilentCallback>();
  const UniqueFd fd(ashmem_create_region("slots", kBytes));
  const std::vector<uint8_t> header = orb::hal::Upload(1, 1, 0);
  SetFdResult set;
  if (!Hal()->set_fd(Region(fd.get(), kBytes), callback, &set).isOk() || set.fdToken == 0) return;
  for (int32_t i = 0; i < 8; i++) {
    int32_t result = 0;
    static_cast<void>(Hal()
                          ->fd_write_to_system_dropbox("/adversary/slots", header, set.fdToken,
                                                       i * 64, 64, 0, &result)
                          .isOk());
  }
}

void OddDescriptors(const std::string&) {
  static const auto callback = ndk::SharedRefBase::make<SilentCallback>();
  const std::vector<uint8_t> header = orb::hal::Upload(1, 1, 0);
  int pipe_ends[2] = {-1, -1};
  int sockets[2] = {-1, -1};
  if (pipe(pipe_ends) != 0 || socketpair(AF_UNIX, SOCK_STREAM, 0, sockets) != 0) abort();
  const UniqueFd fds[] = {UniqueFd(pipe_ends[0]),
                          UniqueFd(pipe_ends[1]),
                          UniqueFd(sockets[0]),
                          UniqueFd(sockets[1]),
                          UniqueFd(open("/dev/zero", O_RDWR | O_CLOEXEC)),
                          UniqueFd(open("/proc/self/mem", O_RDONLY | O_CLOEXEC)),
                          UniqueFd(open("/", O_RDONLY | O_CLOEXEC)),
                          UniqueFd(open("/proc/self/exe", O_RDONLY | O_CLOEXEC))};
  for (const UniqueFd& fd : fds) {
    SetFdResult set;
    if (!Hal()->set_fd(Region(fd.get(), 4096), callback, &set).isOk() || set.fdToken == 0) continue;
    int32_t result = -1;
    static_cast<void>(
        Hal()
            ->fd_write_to_system_dropbox("/adversary/odd", header, set.fdToken, 0, 64, 0, &result)
            .isOk());
    printf("a descriptor of another kind is taken: %d\n", result);
  }
}

}  // namespace

int main(int argc, char** argv) {
  static constexpr struct {
    const char* name;
    void (*round)(const std::string& victim);
  } kAttacks[] = {
      {"oversize", Oversize},
      {"malformed", Malformed},
      {"flood-oneway", FloodOneway},
      {"unread-replies", UnreadReplies},
      {"reconnect", Reconnect},
      {"hold-connections", HoldConnections},
      {"steal-name", StealName},
      {"take-names", TakeNames},
      {"register-again", RegisterAgain},
      {"large-uploads", LargeUploads},
      {"forge-uploads", ForgeUploads},
      {"idle-queue", IdleQueue},
      {"silent-slots", SilentSlots},
      {"odd-descriptors", OddDescriptors},
  };
  const std::string wanted = argc > 1 ? argv[1] : "";
  const std::string victim = argc > 2 ? argv[2] : "";
  setvbuf(stdout, nullptr, _IOLBF, 0);
  for (const auto& attack : kAttacks) {
    if (wanted != attack.name) continue;
    if (android::ProcessState::self() == nullptr) return 3;
    ABinderProcess_startThreadPool();
    while (true) {
      attack.round(victim);
      puts("round");
      usleep(1000);
    }
  }
  fputs("usage: orb_adversary ATTACK [VICTIM]\n", stderr);
  return 2;
}
