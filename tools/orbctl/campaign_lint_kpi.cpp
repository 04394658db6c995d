// Tested by tests/orbctl/campaign_lint_test.cpp.
#include "tools/orbctl/campaign_lint_kpi.h"

#include <fmt/format.h>

#include <limits>
#include <optional>

#include "proto/kpi_kinds.h"
#include "reader/histogram_layout.h"
#include "tools/orbctl/safe_values.h"

namespace orb::orbctl {
namespace {

using enum Severity;

constexpr uint32_t kSignedMax = std::numeric_limits<int32_t>::max();

// 0 without a window: that and a window of 0 are the same.
uint32_t WindowOf(const KPICfg& cfg) {
  if (cfg.agg_window_oneof_case() == KPICfg::kSampleWindow) return cfg.sample_window();
  return cfg.time_window();
}

// For kinds that aggregate; `one_sample` says what becomes of single samples.
void LintWindow(const KPICfg& cfg, const char* one_sample, const LintReport& report) {
  if (WindowOf(cfg) == 0) {
    report(kWarning, "window_missing",
           fmt::format("no window: every sample closes one, so {}", one_sample));
  } else if (cfg.agg_window_oneof_case() == KPICfg::kSampleWindow && cfg.sample_window() == 1) {
    report(kWarning, "window_of_one", fmt::format("a window of one sample: {}", one_sample));
  }
}

// A section that its kind never reads was meant for another kind.
void LintSection(const KPICfg& cfg, KPICfg::CfgOneofCase want, const LintReport& report) {
  if (cfg.cfg_oneof_case() == want || cfg.cfg_oneof_case() == KPICfg::CFG_ONEOF_NOT_SET) return;
  const auto* field = KPICfg::descriptor()->FindFieldByNumber(cfg.cfg_oneof_case());
  report(kWarning, "section_unused",
         fmt::format("{} is not read: the KPI is of another kind", field->name()));
}

void LintGauge(const KPICfg& cfg, const LintReport& report) {
  LintSection(cfg, KPICfg::kGCfg, report);
  LintWindow(cfg, "the gauge never has the two samples that a record needs", report);
  if (WindowOf(cfg) > kSignedMax) {
    report(kWarning, "window_too_large",
           fmt::format("a gauge reads windows as signed: {} counts as negative", WindowOf(cfg)));
  }
  const GaugeConfig& selected = cfg.g_cfg();
  if (!selected.report_min() && !selected.report_max() && !selected.report_mean() &&
      !selected.report_stdev() && !selected.report_variance() && !selected.report_slope() &&
      !selected.report_offset()) {
    report(kWarning, "statistics_missing",
           "no statistic is selected: records hold only times and a count");
  }
}

void LintBounds(const HistogramConfig& config, const LintReport& report) {
  for (int i = 1; i < config.bucket_bounds_size(); ++i) {
    if (config.bucket_bounds(i) > config.bucket_bounds(i - 1)) continue;
    report(kWarning, "bounds_order",
           fmt::format("bucket_bounds[{}] = {} does not exceed the bound before it, {}: bounds "
                       "must ascend",
                       i, config.bucket_bounds(i), config.bucket_bounds(i - 1)));
    return;
  }
}

void LintHistogram(const KPICfg& cfg, const Conf& conf, const LintReport& report) {
  LintSection(cfg, KPICfg::kHCfg, report);
  LintWindow(cfg, "every record holds one sample", report);
  const HistogramConfig& config = cfg.h_cfg();
  if (config.bucket_bounds_size() > conf.hist_nof_buckets_max) {
    report(kRefused, "hist_nof_buckets_max",
           fmt::format("{} bucket bounds, the limit is {}", config.bucket_bounds_size(),
                       conf.hist_nof_buckets_max));
  }
  LintBounds(config, report);
  const reader::HistogramLayout layout = reader::LayoutOf(config);
  if (layout.fallback) {
    report(kWarning, "bucket_count",
           fmt::format("the layout makes {} buckets, 1 to {} are possible: all values count in a "
                       "single one",
                       reader::ConfiguredBuckets(config), reader::kBucketsMax));
  } else if (layout.clamps()) {
    const int bounds = config.bucket_bounds_size();
    report(kWarning, "values_outside",
           fmt::format(
               "values {}{}{} count in the last bucket, {}: set {}",
               layout.clamps_below ? fmt::format("up to {}", config.bucket_bounds(0)) : "",
               layout.clamps_below && layout.clamps_above ? " and " : "",
               layout.clamps_above ? fmt::format("above {}", config.bucket_bounds(bounds - 1)) : "",
               layout.labels.back(),
               !layout.clamps_above   ? "underflow_bucket"
               : !layout.clamps_below ? "overflow_bucket"
                                      : "underflow_bucket and overflow_bucket"));
  }
}

// The library compares as unsigned: a negative limit is a huge one.
void LintBlob(const KPICfg& cfg, const Conf& conf, const LintReport& report) {
  LintSection(cfg, KPICfg::kBCfg, report);
  const uint32_t size_bytes = cfg.b_cfg().single_sample_size_threshold_bytes();
  const auto min_bytes = static_cast<uint32_t>(conf.blob_size_min_bytes);
  const auto max_bytes = static_cast<uint32_t>(conf.blob_size_max_bytes);
  const auto rate_max = static_cast<uint32_t>(conf.blob_sample_rate_max);
  if (size_bytes < min_bytes) {
    report(kRefused, "blob_size_min_bytes",
           fmt::format("single_sample_size_threshold_bytes {} is below {}", size_bytes, min_bytes));
  }
  if (size_bytes > max_bytes) {
    report(kRefused, "blob_size_max_bytes",
           fmt::format("single_sample_size_threshold_bytes {} is above {}", size_bytes, max_bytes));
  }
  if (cfg.b_cfg().sample_rate() > rate_max) {
    report(kRefused, "blob_sample_rate_max",
           fmt::format("sample_rate {} is above {}", cfg.b_cfg().sample_rate(), rate_max));
  }
}

std::string Milliseconds(std::chrono::nanoseconds time) {
  return fmt::format("{:g} ms", static_cast<double>(time.count()) / 1e6);
}

// Counters and histograms bear every value that a client can log, unless their
// windows are of a size that nobody means; then this says so, too.
void LintValues(const KPICfg& cfg, const ValueLimit* limit, const LintReport& report) {
  const bool known = limit != nullptr && limit->interval.count() > 0;
  const std::chrono::nanoseconds usual = cfg.agg_window_oneof_case() == KPICfg::kTimeWindow
                                             ? kIntervalOfTimeWindows
                                             : kIntervalOfSampleWindows;
  const std::chrono::nanoseconds interval = known ? limit->interval : usual;
  const SafeValues safe = SafeValuesOf(cfg, interval);
  if (safe.any) return;
  const std::string window = fmt::format("{} samples, one each {}{}", safe.samples,
                                         Milliseconds(interval), known ? "" : " (assumed)");
  if (safe.largest == SafeValues::kNone) {
    report(limit != nullptr ? kFatal : kWarning, "value_overflow",
           fmt::format("a window of {} ends the client whatever the values: {} does not fit",
                       window, safe.limit));
  } else if (limit == nullptr) {
    report(kWarning, "value_limit",
           fmt::format("values beyond {} end the client with a window of {}: {} does not fit; say "
                       "what it logs with --max-value {}=N@INTERVAL",
                       safe.largest, window, safe.limit, cfg.kpi_id()));
  } else if (limit->value > safe.largest) {
    report(kFatal, "value_overflow",
           fmt::format("values up to {} end the client with a window of {}: {} does not fit; the "
                       "largest safe value is {}",
                       limit->value, window, safe.limit, safe.largest));
  }
}

void LintUnknown(const KPICfg& cfg, const LintReport& report) {
  if (cfg.type() == KPI_NUMERIC) {
    return report(kRefused, "unknown_subtype",
                  fmt::format("sub_type {} is none of COUNTER, GAUGE and HISTOGRAM",
                              static_cast<int>(cfg.sub_type())));
  }
  if (cfg.type() == KPI_EVENT) {
    return report(kRefused, "event_kpi", "no session starts with an event KPI");
  }
  report(kRefused, "unknown_type",
         fmt::format("type {} is none of KPI_NUMERIC, KPI_STATE and KPI_BLOB",
                     static_cast<int>(cfg.type())));
}

}  // namespace

void LintKpi(const KPICfg& cfg, const Conf& conf, const ValueLimit* limit,
             const LintReport& report) {
  const std::optional<KpiKind> kind = KindOf(cfg);
  if (!kind) return LintUnknown(cfg, report);
  switch (*kind) {
    case KpiKind::kCounter:
      LintSection(cfg, KPICfg::kCCfg, report);
      LintWindow(cfg, "every record holds one sample", report);
      return LintValues(cfg, limit, report);
    case KpiKind::kGauge:
      LintGauge(cfg, report);
      return LintValues(cfg, limit, report);
    case KpiKind::kHistogram:
      LintHistogram(cfg, conf, report);
      return LintValues(cfg, limit, report);
    case KpiKind::kBlob:
      return LintBlob(cfg, conf, report);
    case KpiKind::kState:
      return report(kWarning, "state_kpi", "state KPIs are accepted but write no records");
  }
}

}  // namespace orb::orbctl
