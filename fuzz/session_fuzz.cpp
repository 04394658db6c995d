// A campaign and its owners as they come from the manager: a session starts, or
// is refused, logs a little to every KPI, changes its owners, and stops.
//
// input := how:u8 owner* campaign
// how   := bit 0 shared-memory slots, bits 1 and 2 the number of owners
// owner := lic_sn:u8 key:u8 symmetric:i8 asymmetric:i8
//
// Kept out, because they end the process on purpose: sums of gauges that leave
// 64 bits (the values logged are small), and a slot size and number whose
// product leaves 32 bits (they are the client's own numbers, and fixed here).
#include "fuzz/fuzz_input.h"
#include "fuzz/fuzz_key.h"
#include "ipc/KIVCampConfig.h"
#include "proto/ltc_campaign.pb.h"
#include "tests/support/bench_session.h"

namespace {

using orb::fuzz::Input;

constexpr int kKpisMax = 16;

orb::bench::Session::Options Slots() {
  orb::bench::Session::Options options;
  options.slots = true;
  options.slot_bytes = 256;
  options.slots_count = 4;
  options.start = false;
  return options;
}

kiv_collector* Collector(bool slots) {
  static orb::bench::Session with_files({}, {false, 0, 0, false});
  static orb::bench::Session with_slots({}, Slots());
  return (slots ? with_slots : with_files).get();
}

LicInfo Owner(Input* input) {
  LicInfo owner;
  owner.licSN = input->Take<uint8_t>();
  const auto key = input->Take<uint8_t>();
  const std::string pem = key == 0 ? "" : key == 1 ? orb::fuzz::kPublicPem : "no key";
  owner.encryptionPKey.assign(pem.begin(), pem.end());
  owner.sKeyEncAlgo = input->Take<int8_t>();
  owner.pKeyEncAlgo = input->Take<int8_t>();
  return owner;
}

void LogTo(kiv_collector* collector, uint32_t kpi) {
  static constexpr uint32_t kValues[] = {0, 1, 7, 15, 1000};
  static constexpr uint8_t kBytes[128] = {1, 2, 3};
  collector->IsKPIEnabled(kpi);
  for (const uint32_t value : kValues) {
    collector->Log(kpi, value);
    collector->LogEvent(kpi, value);
    collector->LogState(kpi, value % 2, 1);
  }
  for (const uint32_t bytes : {0u, 8u, 128u}) collector->Log(kpi, kBytes, bytes);
  kiv_blob_segment_t segments[2] = {};
  segments[1].buf = kBytes;
  segments[1].len = 32;
  collector->Log(kpi, segments, 2);
}

void Use(kiv_collector* collector, const LTCCampaignDef& campaign) {
  for (int i = 0; i < campaign.kpi_cfgs_size() && i < kKpisMax; ++i) {
    LogTo(collector, campaign.kpi_cfgs(i).kpi_id());
  }
  if (campaign.lic_sn_kpi_maps_size() > 0) {
    const uint64_t lic_sn = campaign.lic_sn_kpi_maps(0).lic_sn();
    collector->StopSessionForLicSN(lic_sn);
    collector->StartSessionForLicSN(lic_sn);
    collector->StartSessionForLicSN(lic_sn);
  }
  collector->Flush();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input input(data, size);
  const auto how = input.Take<uint8_t>();
  KIVCampConfig config;
  for (int owners = (how >> 1) & 3; owners > 0; --owners) {
    config.licInfo.push_back(Owner(&input));
  }
  config.campaignDef = input.Rest();
  kiv_collector* const collector = Collector((how & 1) != 0);
  if (collector->StartSession(config) == 0) {
    LTCCampaignDef campaign;
    FUZZ_CHECK(campaign.ParseFromArray(config.campaignDef.data(),
                                       static_cast<int>(config.campaignDef.size())));
    Use(collector, campaign);
    FUZZ_CHECK(collector->StopSession() == 0);
  }
  FUZZ_CHECK(collector->StopSession() != 0);  // A refused one left nothing behind.
  return 0;
}
