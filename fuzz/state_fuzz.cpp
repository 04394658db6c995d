// The manager starts on a state directory whose one file holds anything: the
// client is there or its file is put aside, and either way the store works on.
//
// input := file:u8 content
// file  := even: content is the whole file | odd: its body, with a good start put before it
#include <unistd.h>
#include <zlib.h>

#include <map>
#include <memory>

#include "fuzz/fuzz_input.h"
#include "services/manager/campaign_state.h"
#include "services/manager/control/campaign.h"
#include "services/manager/state_store.h"
#include "tests/support/child_process.h"
#include "utility/byte_order.h"

namespace {

using orb::fuzz::Input;
using namespace orb::manager;

std::unique_ptr<StateStore> Open(const std::string& directory) {
  auto store = StateStore::Open(directory);
  FUZZ_CHECK(store.ok());
  return *std::move(store);
}

std::string FileOf(Input* input) {
  const bool is_body = input->Take<uint8_t>() % 2 == 1;
  const std::string content = input->TakeText(input->left());
  if (!is_body) return content;
  uint8_t crc[sizeof(uint32_t)];
  const auto* body = reinterpret_cast<const uint8_t*>(content.data());
  orb::StoreBigEndian<uint32_t>(
      crc, static_cast<uint32_t>(crc32(0, body, static_cast<uInt>(content.size()))));
  return "ORBSTAT1" + std::string(crc, crc + sizeof crc) + content;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input input(data, size);
  const orb::test::TempDir dir;
  orb::test::WriteFile(dir.path() + "/7.client", FileOf(&input));

  std::map<std::string, ClientState> clients = Open(dir.path())->Clients();
  const bool aside = access((dir.path() + "/7.client.damaged").c_str(), F_OK) == 0;
  FUZZ_CHECK(clients.size() == (aside ? 0 : 1));
  for (const auto& [name, state] : clients) {
    FUZZ_CHECK(name == state.name() && state.client_id() == 7);
    const SavedCampaign& saved = state.campaign();
    FUZZ_CHECK(ToConfig(saved).licInfo.size() == static_cast<size_t>(saved.lic_keys_size()));
    FUZZ_CHECK(RecordOf(state, nullptr).lic_sns_size() == saved.lic_keys_size());
  }

  // A new client gets an id of its own, and the store keeps its campaign.
  const std::string newcomer = clients.empty() ? "radio" : clients.begin()->first + "-2";
  SavedCampaign campaign;
  campaign.set_camp_id(12);
  {
    const std::unique_ptr<StateStore> store = Open(dir.path());
    FUZZ_CHECK(*store->ClientId(newcomer, 1000) == 8);
    FUZZ_CHECK(store->SetCampaign(newcomer, campaign));
  }
  const std::unique_ptr<StateStore> store = Open(dir.path());
  FUZZ_CHECK(store->Clients().size() == clients.size() + 1);
  FUZZ_CHECK(store->GetCampaign(newcomer, &campaign) && campaign.camp_id() == 12);
  return 0;
}
