// The campaign that the load client logs for, as text.
#pragma once

#include <sstream>
#include <string>

#include "tests/faults/load.h"

namespace orb::test {

// With `torn`, files of several pages, so that they can end within a record.
inline std::string LoadCampaign(bool two_owners, bool torn) {
  static constexpr const char* kKinds[] = {
      "type: KPI_NUMERIC sub_type: COUNTER",
      "type: KPI_NUMERIC sub_type: HISTOGRAM h_cfg { bucket_bounds: 2 bucket_bounds: 5 "
      "overflow_bucket: true underflow_bucket: true }",
      "type: KPI_NUMERIC sub_type: GAUGE g_cfg { report_min: true report_max: true "
      "report_mean: true report_slope: true }",
      "type: KPI_BLOB b_cfg { single_sample_size_threshold_bytes: 4096 }"};
  std::ostringstream text;
  std::ostringstream first;
  std::ostringstream second;
  text << "threshold_size: " << (torn ? 16384 : 1024) << "\nthreshold_time: 60\n";
  for (const LoadKpi& kpi : kLoadKpis) {
    text << "kpi_cfgs { kpi_id: " << kpi.id << ' ' << kKinds[static_cast<int>(kpi.kind)] << ' '
         << kpi.window << " }\n";
    first << " kpi_ids: " << kpi.id;
    if (kpi.second_owner) second << " kpi_ids: " << kpi.id;
  }
  text << "lic_sn_kpi_maps { lic_sn: " << kFirstOwner << first.str() << " }\n";
  if (two_owners) text << "lic_sn_kpi_maps { lic_sn: " << kSecondOwner << second.str() << " }\n";
  return text.str();
}

}  // namespace orb::test
