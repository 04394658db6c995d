// The process-wide client with a manager of this process, and collectors that
// are not more than what they are registered for: custom sessions without any
// storage, so a session is the two callbacks.
#pragma once

#include <android/log.h>
#include <binder/Binder.h>
#include <gtest/gtest.h>
#include <orb_platform/local_service_manager.h>
#include <utils/String8.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "collector/kiv_collector.h"
#include "ipc/kiv_aidl_client.h"
#include "tests/ipc/fake_manager.h"
#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"

namespace orb::test {

// Services that may be dead by the time that somebody has found them.
class MortalServices : public orb_platform::LocalServiceManager {
 public:
  android::sp<android::IBinder> checkService(const android::String16& name) const override {
    if (all_dead) return new DeadBinder();
    if (on_check) on_check(android::String8(name).c_str());
    return LocalServiceManager::checkService(name);
  }
  std::atomic<bool> all_dead{false};
  std::function<void(const std::string& name)> on_check;  // Set while nothing is looked up.

 private:
  class DeadBinder : public android::BBinder {
    android::status_t linkToDeath(const android::sp<DeathRecipient>&, void*, uint32_t) override {
      return android::DEAD_OBJECT;
    }
  };
};

class ClientTest : public ::testing::Test {
 protected:
  static constexpr char kManagerService[] = "vendor_kivsdkservice";

  ClientTest() {
    Services();
    EXPECT_TRUE(client_->serviceManager().Await([] { return false; }));
    WriteFile(dir_ + "orb_sdk.conf", "register_max_retries = 30\nregister_retry_wait_sec = 1\n");
  }
  ~ClientTest() override {
    while (!collectors_.empty()) Deregister(collectors_.back());
    if (manager_ != nullptr) KillManager();
  }

  // Puts a new manager in place of the old one, if any.
  void StartManager() {
    manager_ = android::sp<FakeManager>(new FakeManager());
    Services()->addService(android::String16(kManagerService), manager_);
  }
  // The manager's process dies; returns when the client has dealt with it.
  void KillManager() {
    const size_t deaths = all_.Count("ORB Server has died");
    const bool linked = all_.Count("linkToDeath status: 0") > deaths;
    Services()->Kill(kManagerService);
    manager_ = nullptr;
    if (!linked) return;
    EXPECT_TRUE(all_.WaitFor("ORB Server has died", deaths + 1));
    // The notice is logged before the client's lock is taken.
    const size_t refused = all_.Count("Failed to get orb manager handle");
    while (all_.Count("Failed to get orb manager handle") == refused) {
      client_->deRegisterClient("nobody");
      std::this_thread::yield();
    }
  }

  // A collector that is not registered yet. The fixture destroys it, unless
  // Deregister did.
  kiv_collector* NewCollector(const std::string& name) {
    const kiv_cfg_s record = Record(name.c_str());
    return collectors_.emplace_back(new kiv_collector(&record));
  }
  // As a client program does it: waits for the manager. Null on failure. With
  // `files`, its sessions follow a campaign and store and upload files.
  kiv_collector* Register(const std::string& name, bool files = false) {
    kiv_cfg_s record = Record(name.c_str());
    record.hbt = record.custom_session_format = files ? 0 : 1;
    kiv_collector* const collector = kiv_register(&record);
    if (collector != nullptr) collectors_.push_back(collector);
    return collector;
  }
  // kiv_deregister, which waits for calls under way.
  int Deregister(kiv_collector* collector) {
    std::erase(collectors_, collector);
    return kiv_deregister(collector);
  }

  kiv_cfg_s Record(const char* name) const {
    kiv_cfg_s record = {};
    record.name = name;  // Borrowed.
    record.registration_arg1 = 2;
    record.registration_arg2 = 0x107;
    record.data_dir = dir_.c_str();
    record.hbt = 1;
    record.custom_session_format = 1;
    record.sync_register = 1;
    return record;
  }

  // "I text" of every line of the library since the last call or log_.Clear().
  std::vector<std::string> TakeLog() {
    std::vector<std::string> texts;
    for (const LogLine& line : log_.Lines()) {
      if (line.tag != "orb_sdk") continue;
      texts.push_back(std::string(1, "??VDIWEF"[line.priority]) + " " + line.text);
    }
    log_.Clear();
    return texts;
  }
  bool Logged(const std::string& error) const {
    return log_.Has(ANDROID_LOG_ERROR, "orb_sdk", error);
  }

  static android::sp<MortalServices> Services() {
    static const auto* const services = [] {
      auto* made = new android::sp<MortalServices>(new MortalServices());
      android::setDefaultServiceManager(*made);
      return made;
    }();
    return *services;
  }

  LogCapture log_;  // Tests clear it.
  TempDir temp_;
  const std::string dir_ = temp_.path() + "/";  // The clients' data directory.
  android::sp<FakeManager> manager_;
  const std::shared_ptr<kivAIDLClient> client_ = kivAIDLClient::getClientInstance();

 private:
  LogCapture all_;  // Never cleared.
  std::vector<kiv_collector*> collectors_;
};

}  // namespace orb::test
