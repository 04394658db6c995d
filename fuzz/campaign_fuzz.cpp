// A campaign on disk, in whichever format its name or content suggests, and
// what the lint makes of it.
#include "fuzz/fuzz_input.h"
#include "reader/record_printer.h"
#include "tests/support/child_process.h"
#include "tools/orbctl/campaign_file.h"
#include "tools/orbctl/campaign_lint.h"

using namespace orb::orbctl;

namespace {

void Lint(const LTCCampaignDef& campaign) {
  const Conf conf;
  for (const bool shared_memory : {false, true}) {
    LintCampaign({campaign, conf, {}, false, shared_memory});
    std::vector<LicOption> lics(1);
    if (campaign.lic_sn_kpi_maps_size() > 0) lics[0].lic_sn = campaign.lic_sn_kpi_maps(0).lic_sn();
    LintCampaign({campaign, conf, lics, false, shared_memory});
  }
  const orb::reader::CampaignIndex index(campaign);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const orb::test::TempDir dir;
  const std::string content(reinterpret_cast<const char*>(data), size);
  for (const char* name : {"/campaign", "/campaign.pb", "/campaign.txtpb"}) {
    const std::string path = dir.path() + name;
    FUZZ_CHECK(orb::test::WriteFile(path, content));
    LTCCampaignDef campaign;
    std::string error;
    if (ReadCampaignFile(path, &campaign, &error)) {
      Lint(campaign);
    } else {
      FUZZ_CHECK(!error.empty());
    }
  }
  return 0;
}
