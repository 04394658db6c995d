// Tested by tests/orbctl/campaign_lint_test.cpp.
#include "tools/orbctl/campaign_lint.h"

#include <fmt/format.h>

#include <map>
#include <set>

#include "tools/orbctl/campaign_lint_kpi.h"
#include "tools/orbctl/campaign_owners.h"

namespace orb::orbctl {
namespace {

using enum Severity;

constexpr size_t kTransactionBytesMax = size_t{1024} * 1024;

class Linter {
 public:
  explicit Linter(const LintInput& input)
      : campaign_(input.campaign), conf_(input.conf), input_(input) {}

  std::vector<LintFinding> Run() {
    LintSizes();
    for (int i = 0; i < campaign_.kpi_cfgs_size(); ++i) LintKpiEntry(i);
    for (int i = 0; i < campaign_.lic_sn_kpi_maps_size(); ++i) LintMap(i);
    LintOwners();
    LintLics();
    LintLimits();
    return std::move(findings_);
  }

 private:
  void Add(Severity severity, std::string entry, std::string rule, std::string message) {
    findings_.push_back({severity, std::move(entry), std::move(rule), std::move(message)});
  }

  void LintSizes() {
    const uint32_t size = campaign_.threshold_size();
    const auto min = static_cast<uint32_t>(conf_.size_threshold_min_bytes);
    const auto max = static_cast<uint32_t>(conf_.size_threshold_max_bytes);
    if (size < min) {
      Add(kRefused, "threshold_size", "size_threshold_min_bytes",
          fmt::format("{} bytes are below {}", size, min));
    }
    if (size > max) {
      Add(kRefused, "threshold_size", "size_threshold_max_bytes",
          fmt::format("{} bytes are above {}", size, max));
    }
    if (campaign_.kpi_cfgs_size() > conf_.nof_kpis_max) {
      Add(kRefused, "kpi_cfgs", "nof_kpis_max",
          fmt::format("{} KPIs, the limit is {}", campaign_.kpi_cfgs_size(), conf_.nof_kpis_max));
    }
    // A negative limit is none.
    const size_t info_bytes = campaign_.campaign_info().size();
    if (conf_.cfg_payload_max_bytes >= 0 &&
        info_bytes > static_cast<size_t>(conf_.cfg_payload_max_bytes)) {
      Add(kRefused, "campaign_info", "cfg_payload_max_bytes",
          fmt::format("{} bytes, the limit is {}", info_bytes, conf_.cfg_payload_max_bytes));
    }
    if (campaign_.ByteSizeLong() >= kTransactionBytesMax) {
      Add(kWarning, "campaign", "transaction_size",
          fmt::format("{} bytes do not fit into a transaction of {} and cannot be delivered",
                      campaign_.ByteSizeLong(), kTransactionBytesMax));
    }
    if (campaign_.kpi_cfgs().empty()) {
      Add(kWarning, "kpi_cfgs", "no_kpis", "the campaign collects nothing");
    }
  }

  void LintKpiEntry(int index) {
    const KPICfg& cfg = campaign_.kpi_cfgs(index);
    const std::string entry = fmt::format("kpi_cfgs[{}] (kpi_id {})", index, cfg.kpi_id());
    const auto limit = input_.values.find(cfg.kpi_id());
    LintKpi(cfg, conf_, limit == input_.values.end() ? nullptr : &limit->second,
            [&](Severity severity, const std::string& rule, const std::string& message) {
              Add(severity, entry, rule, message);
            });
    const auto [first, added] = kpi_entries_.emplace(cfg.kpi_id(), index);
    if (!added) {
      Add(kWarning, entry, "duplicate_kpi_id",
          fmt::format("replaces kpi_cfgs[{}], which has the same id", first->second));
      first->second = index;
    }
  }

  void LintMap(int index) {
    const LicenseSNKPIMap& map = campaign_.lic_sn_kpi_maps(index);
    const std::string entry = fmt::format("lic_sn_kpi_maps[{}] (lic_sn {})", index, map.lic_sn());
    const auto [first, added] = map_encrypt_.emplace(map.lic_sn(), map.encrypt());
    if (!added && first->second != map.encrypt()) {
      Add(kWarning, entry, "encrypt_contradiction",
          fmt::format("an earlier map of this LicSN says encrypt {}, which holds",
                      first->second ? "true" : "false"));
    }
    for (const uint32_t kpi_id : map.kpi_ids()) {
      owned_kpis_.insert(kpi_id);
      if (kpi_entries_.count(kpi_id) == 0) {
        Add(kWarning, entry, "unknown_kpi_id",
            fmt::format("names kpi_id {}, which the campaign does not have", kpi_id));
      }
      if (!pairs_.emplace(map.lic_sn(), kpi_id).second) {
        Add(kWarning, entry, "kpi_listed_twice",
            fmt::format("names kpi_id {} again: its records are stored twice", kpi_id));
      }
    }
  }

  // A KPI without an owner belongs to all of them.
  void LintOwners() {
    for (const auto& [kpi_id, index] : kpi_entries_) {
      if (owned_kpis_.count(kpi_id) != 0) continue;
      Add(kWarning, fmt::format("kpi_cfgs[{}] (kpi_id {})", index, kpi_id), "kpi_without_lic_sn",
          "is in no lic_sn_kpi_maps entry: its records go to every owner");
    }
  }

  void LintLics() {
    const std::string fault = OwnerFault(campaign_, input_.lics, input_.allow_plain);
    if (!fault.empty()) Add(kRefused, "--lic", "owner", fault);
    std::set<uint64_t> owners;
    for (const LicOption& owner : OwnersOf(campaign_, input_.lics)) {
      if (!owners.insert(owner.lic_sn).second) {
        Add(kWarning, LicEntry(owner.lic_sn), "duplicate_lic",
            "the first record of this LicSN holds");
      } else if (map_encrypt_.count(owner.lic_sn) == 0) {
        Add(kWarning, LicEntry(owner.lic_sn), "record_without_map",
            "is in no lic_sn_kpi_maps entry: it gets only KPIs without an owner, unencrypted");
      } else if (IsSealed(campaign_, owner.lic_sn)) {
        LintKey(owner);
      }
    }
    if (input_.shared_memory && owners.size() > 1) {
      Add(kRefused, "--lic", "one_lic_sn",
          fmt::format("{} LicSNs, but a client with shared memory takes one", owners.size()));
    }
  }

  void LintLimits() {
    for (const auto& [kpi_id, limit] : input_.values) {
      if (kpi_entries_.count(kpi_id) != 0) continue;
      Add(kWarning, fmt::format("max-value {}", kpi_id), "unknown_kpi_id",
          "names a kpi_id that the campaign does not have");
    }
  }

  // Of a LicSN whose data is to be encrypted: what cannot be is dropped.
  void LintKey(const LicOption& lic) {
    if (lic.key_pem.empty()) {
      Add(kWarning, MapEntry(lic.lic_sn), "encrypt_without_key",
          "is marked encrypt but its record has no key: its data is dropped");
      return;
    }
    if (!CanSealFor(lic)) {
      Add(kWarning, LicEntry(lic.lic_sn), "key_unusable",
          "its key is no P-256 public key in PEM: its data cannot be encrypted and is dropped");
    }
  }

  static std::string MapEntry(uint64_t lic_sn) {
    return fmt::format("lic_sn_kpi_maps (lic_sn {})", lic_sn);
  }
  static std::string LicEntry(uint64_t lic_sn) { return fmt::format("--lic {}", lic_sn); }

  const LTCCampaignDef& campaign_;
  const Conf& conf_;
  const LintInput& input_;
  std::map<uint32_t, int> kpi_entries_;            // KPI id to the entry that holds.
  std::map<uint64_t, bool> map_encrypt_;           // LicSN to its flag.
  std::set<uint32_t> owned_kpis_;                  // Named by a map.
  std::set<std::pair<uint64_t, uint32_t>> pairs_;  // LicSN and KPI id.
  std::vector<LintFinding> findings_;
};

}  // namespace

std::vector<LintFinding> LintCampaign(const LintInput& input) { return Linter(input).Run(); }

}  // namespace orb::orbctl
