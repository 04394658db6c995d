// The numbers in the records of each kind of KPI, for those who show records.
#pragma once

#include <cstdint>
#include <tuple>

#include "proto/kpi_data.pb.h"

namespace orb {

// A number in a record.
template <typename Record, typename Value>
struct Statistic {
  const char* name;
  bool (Record::*has)() const;  // Null: every record has it.
  Value (Record::*get)() const;
};

// The numbers that a record may have, in the order in which they are shown. The counts of a
// histogram and the bytes of a blob are no numbers: those who print records know them.
template <typename Record>
struct StatisticsOf;

template <>
struct StatisticsOf<orbtr::Counter> {
  static constexpr std::tuple kAll = {
      Statistic<orbtr::Counter, uint64_t>{"count", nullptr, &orbtr::Counter::count}};
};
template <>
struct StatisticsOf<orbtr::Gauge> {
  using Gauge = orbtr::Gauge;
  static constexpr std::tuple kAll = {
      Statistic<Gauge, int32_t>{"min", &Gauge::has_min, &Gauge::min},
      Statistic<Gauge, int32_t>{"max", &Gauge::has_max, &Gauge::max},
      Statistic<Gauge, float>{"mean", &Gauge::has_mean, &Gauge::mean},
      Statistic<Gauge, float>{"stdev", &Gauge::has_stdev, &Gauge::stdev},
      Statistic<Gauge, float>{"variance", &Gauge::has_variance, &Gauge::variance},
      Statistic<Gauge, float>{"slope", &Gauge::has_slope, &Gauge::slope},
      Statistic<Gauge, float>{"offset", &Gauge::has_offset, &Gauge::offset},
  };
};
template <>
struct StatisticsOf<orbtr::Histogram> {
  static constexpr std::tuple<> kAll{};
};
template <>
struct StatisticsOf<orbtr::Blob> {
  static constexpr std::tuple<> kAll{};
};

// Calls visit(name, value) for each number that the record has.
template <typename Record, typename Visit>
void ForEachStatistic(const Record& record, Visit visit) {
  const auto show = [&](const auto& statistic) {
    if (statistic.has != nullptr && !(record.*statistic.has)()) return;
    visit(statistic.name, (record.*statistic.get)());
  };
  std::apply([&show](const auto&... all) { (show(all), ...); }, StatisticsOf<Record>::kAll);
}

}  // namespace orb
