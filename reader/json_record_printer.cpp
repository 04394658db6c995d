// JSON Lines: one object a record, and one with "salvage" behind those of a damaged upload.
// Integers are written in full, so 64-bit values are exact for readers that keep integers; floats
// that JSON has no number for are the strings "NaN", "Infinity" and "-Infinity". Tested by
// tests/reader/record_printer_test.cpp.
#include <cmath>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>

#include "reader/hex.h"
#include "reader/record_formats.h"

namespace orb::reader {
namespace {

using Json = nlohmann::ordered_json;

template <typename Value>
Json Number(Value value) {
  return value;
}
Json Number(float value) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value > 0 ? "Infinity" : "-Infinity";
  // By way of its shortest text, 0.1f is 0.1 and not 0.10000000149011612.
  return std::strtod(NumberText(value).c_str(), nullptr);
}

void AddHistogram(const orbtr::Histogram& histogram, const HistogramLayout* layout, Json* object) {
  (*object)["bucket_counts"] = histogram.bucket_counts();
  if (layout == nullptr) return;
  (*object)["bucket_ranges"] = layout->labels;
  if (layout->clamps()) (*object)["clamped_bucket"] = layout->labels.size() - 1;
}

void AddMeta(const orbtr::MetaData& meta, Json* object) {
  (*object)["kpi_id"] = meta.kpi_id();
  (*object)["ts_start"] = meta.ts_start();
  (*object)["ts_end"] = meta.ts_end();
  (*object)["num_samples"] = meta.num_samples();
  if (meta.meta_param_5() != 0) (*object)["meta_param_5"] = meta.meta_param_5();
  if (meta.meta_values_6_size() != 0) (*object)["meta_values_6"] = meta.meta_values_6();
}

class JsonPrinter : public RecordPrinter {
 public:
  JsonPrinter(std::ostream* out, const CampaignIndex* campaign) : out_(*out), campaign_(campaign) {}

  void BeginSource(const RecordSource& source) override {
    source_ = Json::object();
    source_["file"] = source.file;
    if (!source.client.empty()) source_["client"] = source.client;
    source_["campaign_id"] = source.campaign_id;
    source_["lic_sn"] = source.lic_sn;
    source_["seqno"] = source.seqno;
  }

  void Print(const PayloadRecord& record) override {
    Json object = source_;
    object["kind"] = NameOf(record.kind);
    AddMeta(record.meta(), &object);
    record.VisitElement([&object](const auto&, const auto& element) {
      ForEachStatistic(element,
                       [&object](const char* name, auto value) { object[name] = Number(value); });
    });
    if (record.kind == KpiKind::kHistogram) {
      AddHistogram(record.data.histograms(0), LayoutFor(record, campaign_), &object);
    }
    if (record.kind == KpiKind::kBlob) {
      object["data_bytes"] = record.data.blobs(0).data().size();
      object["data_hex"] = Hex(record.data.blobs(0).data());
    }
    const std::string note = NoteFor(record, campaign_);
    if (!note.empty()) object["note"] = note;
    // A file name need not be UTF-8, and may hold what drives a terminal.
    out_ << object.dump(-1, ' ', true, Json::error_handler_t::replace) << '\n';
  }

  void PrintSalvage(const SalvageReport& report) override {
    Json salvage = {{"records", report.records},
                    {"skipped_file_bytes", report.SkippedBytes(Skipped::Of::kFile)},
                    {"skipped_data_bytes", report.SkippedBytes(Skipped::Of::kData)},
                    {"unchecked", report.unchecked},
                    {"skipped", Json::array()}};
    for (const Skipped& part : report.skipped) {
      salvage["skipped"].push_back({{"of", part.of == Skipped::Of::kFile ? "file" : "data"},
                                    {"offset", part.offset},
                                    {"bytes", part.bytes},
                                    {"reason", part.reason}});
    }
    Json object = source_;
    object["salvage"] = std::move(salvage);
    out_ << object.dump(-1, ' ', true, Json::error_handler_t::replace) << '\n';
  }

 private:
  std::ostream& out_;
  const CampaignIndex* const campaign_;
  Json source_ = Json::object();
};

}  // namespace

std::unique_ptr<RecordPrinter> MakeJsonPrinter(std::ostream* out, const CampaignIndex* campaign) {
  return std::make_unique<JsonPrinter>(out, campaign);
}

}  // namespace orb::reader
