// Tested by tests/platform/contract_test.cpp and bus_test.cpp.
#include "platform/linux/src/service_managers.h"

#include <binder/Status.h>
#include <orb_platform/look_up.h>
#include <orb_platform/no_service_manager.h>
#include <unistd.h>
#include <utils/String8.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "platform/linux/src/bus.h"
#define ORB_LOG_TAG "orb_platform"
#include "utility/log.h"
#include "utility/thread_annotations.h"

namespace orb_platform {

namespace {

using android::IBinder;
using android::IServiceManager;
using android::sp;
using android::String16;
using android::String8;

constexpr char kPrefix[] = "org.orb.service.";
constexpr size_t kMaxBusNameBytes = 255;
constexpr size_t kMaxServiceNameBytes = 127;
constexpr size_t kHashBytes = 18;  // "_-" and 16 digits; no plain name contains "_-".
constexpr int kPollMs = 50;

bool IsLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }

thread_local android::status_t last_look_up = android::NO_INIT;

uint64_t Fnv1a(const std::string& text) {
  uint64_t hash = 0xcbf29ce484222325u;
  for (const char c : text) hash = (hash ^ static_cast<uint8_t>(c)) * 0x100000001b3u;
  return hash;
}

class BusServiceManager : public IServiceManager {
 public:
  sp<IBinder> getService(const String16& name) const override {
    return PollForService(*this, name, 5000);
  }
  sp<IBinder> checkService(const String16& name) const override {
    const std::string service(String8(name).c_str());
    last_look_up = android::NAME_NOT_FOUND;
    if (!IsServiceName(service)) return nullptr;
    sp<IBinder> found = Bus::Get().FindService(BusNameOf(service), &last_look_up);
    if (last_look_up == android::PERMISSION_DENIED) {
      LOGE(
          "the bus does not let user %u call %s - add the user to the group orb-client, then "
          "restart the process",
          static_cast<unsigned>(geteuid()), service.c_str());
    }
    return found;
  }
  android::status_t addService(const String16& name, const sp<IBinder>& service, bool,
                               int) override {
    if (service == nullptr) return android::binder::Status::EX_NULL_POINTER;
    const std::string text(String8(name).c_str());
    if (!IsServiceName(text) || service->localBinder() == nullptr) {
      return android::binder::Status::EX_ILLEGAL_ARGUMENT;
    }
    return Bus::Get().AddService(BusNameOf(text), sp<android::BBinder>(service->localBinder()));
  }
  android::Vector<String16> listServices(int) override {
    android::Vector<String16> out;
    for (const std::string& name : Bus::Get().ListNames()) {
      const std::string service = ServiceOf(name);
      if (!service.empty()) out.add(String16(service.c_str()));
    }
    return out;
  }
  sp<IBinder> waitForService(const String16& name) override {
    return PollForService(*this, name, -1);
  }
  bool isDeclared(const String16& name) override { return checkService(name) != nullptr; }
};

struct Managers {
  orb::Mutex mutex;
  orb::CondVar present;
  bool absent ORB_GUARDED_BY(mutex) = false;
  sp<IServiceManager> chosen ORB_GUARDED_BY(mutex);
  const sp<IServiceManager> bus{new BusServiceManager()};
};

Managers& TheManagers() {
  static Managers* const managers = new Managers();
  return *managers;
}

}  // namespace

android::status_t LastLookUp() { return last_look_up; }

bool HasExplicitServiceManager() {
  Managers& managers = TheManagers();
  orb::MutexLock lock(managers.mutex);
  return managers.chosen != nullptr;
}

NoServiceManager::NoServiceManager() {
  orb::MutexLock lock(TheManagers().mutex);
  TheManagers().absent = true;
}

NoServiceManager::~NoServiceManager() {
  orb::MutexLock lock(TheManagers().mutex);
  TheManagers().absent = false;
  TheManagers().present.NotifyAll();
}

bool IsServiceName(const std::string& name) {
  if (name.empty() || name.size() > kMaxServiceNameBytes) return false;
  for (const char c : name) {
    if (!IsLetter(c) && !IsDigit(c) && strchr("_-./", c) == nullptr) return false;
  }
  return true;
}

std::string BusNameOf(const std::string& service) {
  std::string out = kPrefix;
  for (size_t i = 0; i < service.size(); i++) {
    const char c = service[i];
    if (IsLetter(c) || (IsDigit(c) && i > 0)) {
      out += c;
    } else {
      char escaped[4];
      static_cast<void>(snprintf(escaped, sizeof escaped, "_%02x",
                                 static_cast<unsigned>(static_cast<uint8_t>(c))));
      out += escaped;
    }
  }
  if (out.size() <= kMaxBusNameBytes) return out;
  char hash[kHashBytes + 1];
  static_cast<void>(
      snprintf(hash, sizeof hash, "_-%016llx", static_cast<unsigned long long>(Fnv1a(service))));
  return out.substr(0, kMaxBusNameBytes - kHashBytes) + hash;
}

std::string ServiceOf(const std::string& bus_name) {
  constexpr size_t kPrefixBytes = sizeof kPrefix - 1;
  if (bus_name.compare(0, kPrefixBytes, kPrefix) != 0) return {};
  std::string out;
  for (size_t i = kPrefixBytes; i < bus_name.size(); i++) {
    if (bus_name[i] != '_') {
      out += bus_name[i];
      continue;
    }
    const std::string digits = bus_name.substr(i + 1, 2);
    char* end = nullptr;
    const unsigned long code = strtoul(digits.c_str(), &end, 16);
    if (end == digits.c_str()) return {};
    out += static_cast<char>(code);
    i += 2;
  }
  return BusNameOf(out) == bus_name ? out : std::string();
}

sp<IBinder> PollForService(const IServiceManager& manager, const String16& name, int timeout_ms) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    const sp<IBinder> binder = manager.checkService(name);
    if (binder != nullptr) return binder;
    if (timeout_ms >= 0 && std::chrono::steady_clock::now() >= deadline) return nullptr;
    std::this_thread::sleep_for(std::chrono::milliseconds(kPollMs));
  }
}

}  // namespace orb_platform

namespace android {

sp<IServiceManager> defaultServiceManager() {
  orb_platform::Managers& managers = orb_platform::TheManagers();
  orb::MutexLock lock(managers.mutex);
  while (managers.absent) managers.present.Wait(managers.mutex);
  return managers.chosen != nullptr ? managers.chosen : managers.bus;
}

void setDefaultServiceManager(const sp<IServiceManager>& sm) {
  orb_platform::Managers& managers = orb_platform::TheManagers();
  sp<IServiceManager> before = sm;
  {
    orb::MutexLock lock(managers.mutex);
    std::swap(before, managers.chosen);
  }
}

}  // namespace android
