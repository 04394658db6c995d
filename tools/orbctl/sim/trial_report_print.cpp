// Tested by tests/orbctl/sim_test.cpp.
#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "tools/orbctl/sim/trial_report.h"

namespace orb::orbctl {
namespace {

constexpr char kOwnerRow[] = "{:>10} {:>8} {:>9}  {:>8} {:>9} {:>9} {:>8}  {:>9} {:>8} {:>8}\n";

constexpr char kLossRow[] = "{:>10}  {:<12} {:>8} {:>8} {:>8}\n";

using Json = nlohmann::ordered_json;

double Seconds(std::chrono::nanoseconds time) { return static_cast<double>(time.count()) / 1e9; }

char Letter(int priority) { return priority == ANDROID_LOG_WARN ? 'W' : 'E'; }

// What was not found again; nothing when that cannot be told.
std::optional<uint64_t> Lost(const OwnerTally& owner, std::optional<uint64_t> made,
                             uint64_t found) {
  if (owner.sealed > 0 || !made) return std::nullopt;
  return *made > found ? *made - found : 0;
}

std::string Text(std::optional<uint64_t> number) { return number ? std::to_string(*number) : "-"; }

Json Value(std::optional<uint64_t> number) { return number ? Json(*number) : Json(); }

// What is lost of an owner's data, one row a cause.
std::string Losses(uint64_t lic_sn, const OwnerTally& owner) {
  std::string rows;
  owner.losses.ForEach([&](LossCause cause, const EventTally& lost) {
    if (lost.events == 0) return;
    rows += fmt::format(kLossRow, lic_sn, NameOf(cause), lost.events, lost.tally.records,
                        lost.tally.samples);
  });
  return rows;
}

Json ToJson(uint64_t lic_sn, const OwnerTally& owner) {
  Json kpis = Json::array();
  for (const auto& [id, stream] : owner.kpis) {
    kpis.push_back({{"kpi", id}, {"records", stream.records}, {"samples", stream.samples}});
  }
  Json losses = Json::array();
  owner.losses.ForEach([&](LossCause cause, const EventTally& lost) {
    if (lost.events == 0) return;
    losses.push_back({{"cause", NameOf(cause)},
                      {"times", lost.events},
                      {"records", lost.tally.records},
                      {"samples", lost.tally.samples}});
  });
  return {{"lic_sn", lic_sn},
          {"uploads", owner.uploads},
          {"bytes", owner.bytes},
          {"sealed", owner.sealed},
          {"damaged", owner.damaged},
          {"records",
           {{"made", Value(owner.handled)},
            {"unwritten", Value(owner.unwritten)},
            {"decoded", owner.records()},
            {"lost", Value(Lost(owner, owner.handled, owner.records()))}}},
          {"samples",
           {{"accepted", owner.accepted},
            {"decoded", owner.samples()},
            {"lost", Value(Lost(owner, owner.accepted, owner.samples()))}}},
          {"losses", losses},
          {"kpis", kpis}};
}

Json ToJson(const Overflow& overflow) {
  Json json = {{"kpis", overflow.kpis},
               {"at_s", nullptr},
               {"line", nullptr},
               {"value", nullptr},
               {"sample", nullptr}};
  if (const LoadItem* item = overflow.item) {
    json["at_s"] = Seconds(item->time);
    json["line"] = item->line;
    json["value"] = static_cast<int32_t>(item->a);
    json["sample"] = overflow.sample;
  }
  return json;
}

}  // namespace

std::string Overflow::ToText() const {
  std::string text = fmt::format("KPI {}", fmt::join(kpis, " or "));
  if (item == nullptr) return text + " when the session ends";
  return text + fmt::format(" at {:.3f} s: line {} of the load, value {}, sample {} of the KPI",
                            Seconds(item->time), item->line, static_cast<int32_t>(item->a), sample);
}

void TrialReport::PrintText(std::ostream& out) const {
  const CallTally all = AllCalls();
  out << fmt::format("campaign {} on {}: {:.3f} s of load in {:.2f} s\n", input_.campaign.camp_id(),
                     input_.client, LoadSeconds(), took_s);
  for (const FaultSpan& span : input_.faults) out << fmt::format("fault    {}\n", span.text);
  if (overflow_) out << fmt::format("overflow {}; the client ends there\n", overflow_->ToText());
  out << fmt::format("samples  {} logged, {} accepted, {} refused\n", all.logged, all.accepted,
                     all.refused);
  out << fmt::format("uploads  {} reached the HAL, {} stored\n", offered, stored);
  if (input_.slots == 0) out << fmt::format("queue    {} records at most\n", queue_max_);

  out << fmt::format("\n{:>10}  {:<9} {:>9} {:>9} {:>9}\n", "KPI", "kind", "logged", "accepted",
                     "refused");
  for (const auto& [kpi, tally] : calls_) {
    out << fmt::format("{:>10}  {:<9} {:>9} {:>9} {:>9}\n", kpi, KindName(kpi), tally.logged,
                       tally.accepted, tally.refused);
  }
  out << fmt::format("\n{:>29}  {:-^37}  {:-^27}\n", "", " records ", " samples ");
  out << fmt::format(kOwnerRow, "owner", "uploads", "bytes", "made", "unwritten", "decoded", "lost",
                     "accepted", "decoded", "lost");
  for (const auto& [lic_sn, owner] : owners_) {
    const bool open = owner.sealed == 0;
    out << fmt::format(kOwnerRow, lic_sn, owner.uploads, owner.bytes, Text(owner.handled),
                       Text(owner.unwritten), open ? std::to_string(owner.records()) : "sealed",
                       Text(Lost(owner, owner.handled, owner.records())), owner.accepted,
                       open ? std::to_string(owner.samples()) : "sealed",
                       Text(Lost(owner, owner.accepted, owner.samples())));
  }
  std::string losses;
  for (const auto& [lic_sn, owner] : owners_) losses += Losses(lic_sn, owner);
  if (!losses.empty()) {
    out << "\nlosses, as the library counts them\n";
    out << fmt::format(kLossRow, "owner", "cause", "times", "records", "samples") << losses;
  }
  if (!problems_.empty()) out << "\nwarnings and errors in the log\n";
  for (const LibraryLog::Message& message : problems_) {
    out << fmt::format("{:>10.3f} s {:>6}x {} {}: {}\n", Seconds(message.first), message.count,
                       Letter(message.priority), message.tag, message.text);
  }
  out << fmt::format("\n{0}/spool holds the uploads, {0}/library.log the log\n", directory);
  if (overflow_) {
    out << fmt::format("{}/data holds what was not sent yet; the next start of a client sends it\n",
                       directory);
  }
}

void TrialReport::PrintJson(std::ostream& out) const {
  const CallTally all = AllCalls();
  Json report = {
      {"client", input_.client},
      {"campaign", input_.campaign.camp_id()},
      {"load_s", LoadSeconds()},
      {"took_s", took_s},
      {"samples", {{"logged", all.logged}, {"accepted", all.accepted}, {"refused", all.refused}}},
      {"uploads", {{"offered", offered}, {"stored", stored}}}};
  report["overflow"] = overflow_ ? ToJson(*overflow_) : Json();
  report["queue_max"] = input_.slots == 0 ? Json(queue_max_) : Json();
  report["faults"] = Json::array();
  for (const FaultSpan& span : input_.faults) {
    report["faults"].push_back({{"fault", span.text},
                                {"from_s", Seconds(span.from)},
                                {"to_s", span.to ? Json(Seconds(*span.to)) : Json()}});
  }
  report["kpis"] = Json::array();
  for (const auto& [kpi, tally] : calls_) {
    report["kpis"].push_back({{"kpi", kpi},
                              {"kind", KindName(kpi)},
                              {"logged", tally.logged},
                              {"accepted", tally.accepted},
                              {"refused", tally.refused}});
  }
  report["owners"] = Json::array();
  for (const auto& [lic_sn, owner] : owners_) report["owners"].push_back(ToJson(lic_sn, owner));
  report["log"] = Json::array();
  for (const LibraryLog::Message& message : problems_) {
    report["log"].push_back({{"priority", std::string(1, Letter(message.priority))},
                             {"tag", message.tag},
                             {"message", message.text},
                             {"count", message.count},
                             {"first_s", Seconds(message.first)}});
  }
  out << report.dump(-1, ' ', false, Json::error_handler_t::replace) << '\n';
}

}  // namespace orb::orbctl
