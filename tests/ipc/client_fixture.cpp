#include "tests/ipc/client_fixture.h"

#include <android/log.h>
#include <binder/IServiceManager.h>
#include <stdlib.h>
#include <utils/String8.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <thread>

using android::sp;
using android::String16;
using orb_platform::LocalServiceManager;

namespace orb::test {

namespace {

constexpr char kManagerService[] = "vendor_kivsdkservice";

class Nobody : public android::IBinder::DeathRecipient {
  void binderDied(const android::wp<android::IBinder>&) override {}
};

}  // namespace

std::function<int(kiv_collector*)> ClientTest::on_start;

ClientTest::ClientTest() {
  Services();
  std::string pattern = (std::filesystem::temp_directory_path() / "orb-ipc-XXXXXX").string();
  dir_ = std::string(mkdtemp(pattern.data())) + "/";
  std::ofstream(dir_ + "orb_sdk.conf")
      << "register_max_retries = 30\nregister_retry_wait_sec = 1\n";
}

ClientTest::~ClientTest() {
  while (!collectors_.empty()) Deregister(collectors_.back());
  on_start = nullptr;
  if (manager_ != nullptr) KillManager();
  std::filesystem::remove_all(dir_);
}

sp<android::IBinder> MortalServices::checkService(const String16& name) const {
  const sp<android::IBinder> found = LocalServiceManager::checkService(name);
  if (found != nullptr && lookups_left_ > 0 && --lookups_left_ == 0) {
    const_cast<MortalServices*>(this)->Kill(android::String8(name).c_str());
    // Until its death has been reported, a link is still taken.
    const sp<Nobody> nobody(new Nobody);
    while (found->linkToDeath(nobody) == android::OK) std::this_thread::yield();
  }
  return found;
}

sp<MortalServices> ClientTest::Services() {
  static const auto* const services = [] {
    auto* made = new sp<MortalServices>(new MortalServices());
    android::setDefaultServiceManager(*made);
    return made;
  }();
  return *services;
}

void ClientTest::StartManager() {
  manager_ = sp<FakeManager>(new FakeManager());
  Services()->addService(String16(kManagerService), manager_);
}

void ClientTest::KillManager() {
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

kiv_cfg_s ClientTest::Record(const std::string& name, bool hbt) const {
  kiv_cfg_s record = {};
  record.name = name.c_str();
  record.registration_arg1 = 2;
  record.registration_arg2 = 0x107;
  record.data_dir = dir_.c_str();
  record.start_session_cb = [](kiv_collector* c, const uint8_t*, uint32_t) {
    return on_start ? on_start(c) : 0;
  };
  record.hbt = hbt ? 1 : 0;
  record.custom_session_format = 1;
  record.sync_register = 1;
  return record;
}

kiv_collector* ClientTest::NewCollector(const std::string& name, bool hbt) {
  const kiv_cfg_s record = Record(name, hbt);
  collectors_.push_back(new kiv_collector(&record));
  return collectors_.back();
}

kiv_collector* ClientTest::Register(const std::string& name) {
  kiv_cfg_s record = Record(name, true);
  kiv_collector* const collector = kiv_register(&record);
  if (collector != nullptr) collectors_.push_back(collector);
  return collector;
}

int ClientTest::Deregister(kiv_collector* collector) {
  std::erase(collectors_, collector);
  return kiv_deregister(collector);
}

std::vector<std::string> ClientTest::TakeLog() {
  std::vector<std::string> texts;
  for (const LogLine& line : log_.Lines()) {
    if (line.tag != "orb_sdk") continue;
    const char* const letter = line.priority == ANDROID_LOG_DEBUG   ? "D "
                               : line.priority == ANDROID_LOG_INFO  ? "I "
                               : line.priority == ANDROID_LOG_ERROR ? "E "
                                                                    : "? ";
    texts.push_back(letter + line.text);
  }
  log_.Clear();
  return texts;
}

}  // namespace orb::test
