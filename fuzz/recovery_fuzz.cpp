// Starts a session on a data directory with files that an earlier run left, or that
// somebody put there.
//
// input := entry*
// entry := kind:u8 name (length:u16 byte* | size:u32)     name := length:u8 byte*
// kind  := a file of these bytes | a sparse file | a directory | a link | a pipe
//
// Kept out: files beyond 4 GiB, whose length does not fit an upload and ends
// the process on purpose.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "fuzz/fuzz_input.h"
#include "fuzz/fuzz_key.h"
#include "ipc/KIVCampConfig.h"
#include "proto/ltc_campaign.pb.h"
#include "tests/support/bench_session.h"
#include "tests/support/child_process.h"

namespace {

using orb::fuzz::Input;

constexpr int kEntriesMax = 8;
constexpr uint32_t kSparseBytesMax = 1 << 20;

// "bench" is the client's name, so that most are taken for its own.
std::string Path(const std::string& dir, Input* input) {
  std::string name = input->TakeText(input->Take<uint8_t>());
  std::replace(name.begin(), name.end(), '/', '_');
  std::replace(name.begin(), name.end(), '\0', '_');
  return dir + "bench" + name + ".tmp";
}

void PutEntry(const std::string& dir, Input* input) {
  const int kind = input->Take<uint8_t>() % 5;
  const std::string path = Path(dir, input);
  std::error_code ignored;
  if (std::filesystem::exists(std::filesystem::symlink_status(path, ignored))) return;
  if (kind == 0) {
    orb::test::WriteFile(path, input->TakeText(input->Take<uint16_t>()));
  } else if (kind == 1) {
    orb::test::WriteFile(path, "");
    std::filesystem::resize_file(path, input->Take<uint32_t>() % kSparseBytesMax, ignored);
  } else if (kind == 2) {
    for (const char* entry : {"/a", "/b", "/c", "/d"}) {
      std::filesystem::create_directories(path + entry, ignored);
    }
  } else if (kind == 3) {
    std::filesystem::create_symlink(dir, path, ignored);
  } else {
    static_cast<void>(mkfifo(path.c_str(), 0600));
  }
}

KIVCampConfig Campaign() {
  LTCCampaignDef def;
  def.set_threshold_size(4096);
  def.set_threshold_time(60);
  KIVCampConfig config;
  for (const int64_t lic_sn : {42, 77}) {
    LicenseSNKPIMap* map = def.add_lic_sn_kpi_maps();
    map->set_lic_sn(static_cast<uint64_t>(lic_sn));
    map->set_encrypt(lic_sn == 42);
    LicInfo owner;
    owner.licSN = lic_sn;
    if (lic_sn == 42) {
      const std::string pem = orb::fuzz::kPublicPem;
      owner.encryptionPKey.assign(pem.begin(), pem.end());
      owner.sKeyEncAlgo = 2;
      owner.pKeyEncAlgo = 1;
    }
    config.licInfo.push_back(owner);
  }
  const std::string bytes = def.SerializeAsString();
  config.campaignDef.assign(bytes.begin(), bytes.end());
  return config;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static orb::bench::Session session({}, {false, 0, 0, false});
  static const KIVCampConfig campaign = Campaign();
  Input input(data, size);
  for (int entry = 0; entry < kEntriesMax && input.left() > 0; ++entry) {
    PutEntry(session.dir(), &input);
  }
  FUZZ_CHECK(session.get()->StartSession(campaign) == 0);
  FUZZ_CHECK(session.get()->StopSession() == 0);
  for (const auto& entry : std::filesystem::directory_iterator(session.dir())) {
    std::error_code ignored;
    std::filesystem::remove_all(entry.path(), ignored);
  }
  return 0;
}
