// A KPI of states. It counts samples and writes nothing.
#pragma once

#include "kpi/kpi.h"

class StateMachine : public KPI {
 public:
  using KPI::KPI;

  int Aggregate(unsigned int value) override;
  void ResetAggregates() override;
  bool validCfg() override;
  int Serialize() override;
  // Counts all samples as lost, because no record contains states.
  orb::KpiSamples CountSamples() const override;

  // Counts the transition and does nothing else. Always 0.
  int AddStateTransistion(unsigned int from, unsigned int to);

 private:
  uint64_t transitions = 0;
};
