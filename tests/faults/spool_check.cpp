#include "tests/faults/spool_check.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "tests/support/child_process.h"

namespace orb::test {
namespace {

// Bytes of "6162" as text.
std::string FromHex(const std::string& hex) {
  std::string out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    out.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  return out;
}

class Checker {
 public:
  explicit Checker(const Remains& remains)
      : remains_(remains), rules_(remains.scenario), counts_(remains.counts) {}

  void Numbers();
  void Record(const nlohmann::json& json);
  void Sums();
  void Books();
  SpoolReport report;

 private:
  void Fail(const std::string& what) {
    // The first ones tell enough.
    if (report.failures.size() < 20) report.failures.push_back(what);
  }
  // Its folders are /up/ID/NAME.SUFFIX.
  bool IsOurs(const std::string& file) const {
    return file.find('/' + remains_.client + '.') != std::string::npos;
  }
  bool Owns(uint64_t owner, const LoadKpi& kpi) const {
    return owner == kFirstOwner || (kpi.second_owner && !rules_.Is(kSlots));
  }
  void Blob(const nlohmann::json& json, uint64_t owner, const std::string& file);

  void Expect(bool holds, const std::string& what) {
    if (!holds) Fail(what);
  }
  bool ExpectLogged(uint64_t owner, uint64_t samples);

  const Remains& remains_;
  const Scenario& rules_;
  const LoadCounts& counts_;
  std::map<uint64_t, uint64_t> decoded_;  // Samples by owner.
  // Of a counter its sum, of a histogram its samples, of blobs their number; by phase, owner, KPI.
  std::map<std::tuple<uint64_t, uint64_t, uint32_t>, uint64_t> totals_;
  std::map<std::pair<uint64_t, std::string>, std::set<std::string>> blobs_;  // Files by text.
};

void Checker::Numbers() {
  std::set<uint64_t> stored;
  for (const std::string& name : ListFiles(remains_.spool)) {
    if (!name.ends_with(".orb") || !IsOurs(name)) continue;
    ++report.files;
    const std::string stem = name.substr(name.rfind('/') + 1);
    if (!stored.insert(std::stoull(stem)).second && !rules_.Is(kNumbersMayRepeat)) {
      Fail("upload number " + stem + " is there twice");
    }
  }
  const uint64_t next = stored.empty() ? 0 : *stored.rbegin() + 1;
  Expect(next <= remains_.next_seqno, "the sequence file lags behind the uploads");
  report.missing_numbers = remains_.next_seqno - stored.size();
}

void Checker::Blob(const nlohmann::json& json, uint64_t owner, const std::string& file) {
  const std::string text = FromHex(json.value("data_hex", ""));
  uint64_t number[4] = {};
  if (sscanf(text.c_str(), "%lu-%lu-%lu-%lu", &number[0], &number[1], &number[2], &number[3]) !=
      4) {
    return Fail(file + ": a blob that nobody logged: " + text);
  }
  std::set<std::string>& files = blobs_[{owner, text}];
  if (!files.insert(file).second) Fail(file + ": blob " + text + " is there twice");
  if (files.size() > 1 && !rules_.Is(kClientDies)) {
    Fail(file + ": blob " + text + " is also in " + *files.begin());
  }
}

void Checker::Record(const nlohmann::json& json) {
  const std::string file = json.value("file", "");
  if (!IsOurs(file)) return;
  ++report.records;
  const uint64_t owner = json.value("lic_sn", uint64_t{0});
  const uint64_t phase = json.value("campaign_id", uint64_t{0}) - kFirstCampaign;
  decoded_[owner] += json.value("kind", "") == "blob" ? 1 : json.value("num_samples", uint64_t{0});
  // What stands behind half a record can look like anything.
  if (phase == 0 && rules_.Is(kTorn)) return;
  const auto id = json.value("kpi_id", 0u);
  const auto* kpi = std::find_if(std::begin(kLoadKpis), std::end(kLoadKpis),
                                 [&](const LoadKpi& k) { return k.id == id; });
  if (kpi == std::end(kLoadKpis) || phase >= kLoadPhases ||
      (owner != kFirstOwner && (owner != kSecondOwner || !kpi->second_owner))) {
    return Fail(file + ": a record of a KPI, campaign or owner that there is not: " + json.dump());
  }
  if (json.value("ts_end", int64_t{0}) < json.value("ts_start", int64_t{0})) {
    Fail(file + ": a record that ends before it begins: " + json.dump());
  }
  uint64_t& total = totals_[{phase, owner, id}];
  switch (kpi->kind) {
    case LoadKind::kCounter:
      total += json.value("count", uint64_t{0});
      break;
    case LoadKind::kHistogram:
      for (const auto& count : json["bucket_counts"]) total += count.get<uint64_t>();
      break;
    case LoadKind::kGauge:
      if (json.value("min", 0) < 1 || json.value("max", 0) > static_cast<int>(kLoadValueMax)) {
        Fail(file + ": a gauge beyond what was logged: " + json.dump());
      }
      break;
    case LoadKind::kBlob:
      Blob(json, owner, file);
      ++total;
      break;
  }
}

void Checker::Sums() {
  for (uint64_t phase = rules_.Is(kLossless) ? 0 : 1; phase < kLoadPhases; ++phase) {
    for (size_t i = 0; i < kLoadKpiCount; ++i) {
      const LoadKpi& kpi = kLoadKpis[i];
      // A gauge's windows overlap: its records cannot be added up.
      if (kpi.kind == LoadKind::kGauge) continue;
      const LoadCount& count = counts_.kpis[phase][i];
      const uint64_t logged = kpi.kind == LoadKind::kCounter ? count.sum.load() : count.accepted();
      for (const uint64_t owner : {kFirstOwner, kSecondOwner}) {
        const uint64_t decoded = totals_[{phase, owner, kpi.id}];
        if (Owns(owner, kpi) && decoded != logged) {
          Fail("KPI " + std::to_string(kpi.id) + " of " + std::to_string(owner) + ", phase " +
               std::to_string(phase) + ": logged " + std::to_string(logged) + ", decoded " +
               std::to_string(decoded));
        }
      }
    }
  }
}

// What the client has counted is what it was told to log, since it registered. False when it
// had logged before, too.
bool Checker::ExpectLogged(uint64_t owner, uint64_t samples) {
  uint64_t least = 0;
  uint64_t kept = 0;
  uint64_t earlier = 0;
  for (size_t i = 0; i < kLoadKpiCount; ++i) {
    if (!Owns(owner, kLoadKpis[i])) continue;
    uint64_t refused = 0;
    for (const auto& phase : counts_.kpis) {
      least += phase[i].accepted();
      refused += phase[i].refused;
    }
    least -= counts_.earlier[i].accepted();
    refused -= counts_.earlier[i].refused;
    // A slot that could not be announced refuses the blob behind it, and keeps it.
    if (rules_.Is(kSlots) && kLoadKpis[i].kind == LoadKind::kBlob) kept += refused;
    earlier += counts_.earlier[i].offered;
  }
  Expect(least <= samples && samples <= least + kept,
         "the books of " + std::to_string(owner) + " have " + std::to_string(samples) +
             " samples, logged were " + std::to_string(least) + " and at most " +
             std::to_string(kept) + " more");
  return earlier == 0;
}

// Samples logged = samples decoded + samples lost.
void Checker::Books() {
  const DumpLines& books = remains_.books;
  uint64_t lost_uploads = 0;  // With a number.
  bool only_life = true;
  for (const uint64_t owner : {kFirstOwner, kSecondOwner}) {
    if (owner == kSecondOwner && rules_.Is(kSlots)) continue;
    const std::string key = "owner." + std::to_string(owner);
    const auto samples = [&](const char* of) { return books.Number(key + of, "samples"); };
    // Only one KPI is a gauge, and it has one owner.
    const uint64_t repeated = owner == kFirstOwner ? books.Number("samples", "repeated") : 0;
    lost_uploads += books.Number(key + ".lost.hal", "events");
    lost_uploads += books.Number(key + ".lost.slot_refused", "events");
    lost_uploads += books.Number(key + ".lost.unconfirmed", "events");
    only_life = ExpectLogged(owner, samples("") - repeated);
    Expect(samples("") == samples(".sent") + samples(".lost"),
           "the books of " + key + " do not add up");
    Expect(!rules_.Is(kLossless) || samples(".lost") == samples(".lost.no_record"),
           "the books of " + key + " have losses");
    const uint64_t decoded = decoded_[owner];
    const bool gone = rules_.Is(kHalLies) || remains_.evicted > 0;
    const uint64_t least = gone ? 0 : samples(".sent");
    uint64_t most = samples(".sent");
    if (rules_.Is(kHalUnheard)) {
      for (const char* cause : {".lost.hal", ".lost.slot_refused", ".lost.unconfirmed"}) {
        most += samples(cause);
      }
    }
    if (rules_.Is(kTorn)) most += samples(".lost.short_write") + samples(".lost.torn");
    Expect(least <= decoded && (decoded <= most || !only_life),
           "of " + key + " " + std::to_string(decoded) + " samples were decoded, the books say " +
               std::to_string(least) + " to " + std::to_string(most));
    if (owner == kFirstOwner) report.decoded = decoded;
  }
  if (report.missing_numbers < remains_.evicted) return Fail("what was evicted is still there");
  const uint64_t missing = report.missing_numbers - remains_.evicted;
  // Each death of a client costs one number at most.
  const uint64_t most = lost_uploads + (rules_.Is(kClientDies) ? remains_.faults : 0);
  const bool unheard = rules_.Is(kHalUnheard);
  Expect((missing <= most || rules_.Is(kHalLies) || (unheard && !only_life)) &&
             (missing >= lost_uploads || unheard),
         std::to_string(missing) + " uploads are missing, the books say " +
             std::to_string(lost_uploads));
}

}  // namespace

SpoolReport CheckSpool(const Remains& remains) {
  Checker checker(remains);
  checker.Numbers();
  std::istringstream lines(remains.records);
  for (std::string line; std::getline(lines, line);) {
    const nlohmann::json json = nlohmann::json::parse(line, nullptr, false);
    if (json.is_object()) checker.Record(json);
  }
  checker.Sums();
  checker.Books();
  return checker.report;
}

}  // namespace orb::test
