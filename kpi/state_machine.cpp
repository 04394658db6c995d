// Tested by tests/kpi/kpi_test.cpp.
#include "kpi/state_machine.h"

#include "utility/checked.h"

int StateMachine::Aggregate(unsigned int) { return 0; }

void StateMachine::ResetAggregates() {}

bool StateMachine::validCfg() { return true; }

int StateMachine::Serialize() { return 0; }

orb::KpiSamples StateMachine::CountSamples() const {
  orb::KpiSamples samples;
  samples.logged = transitions;
  samples.lost[orb::LossCause::kNoRecord] = transitions;
  return samples;
}

int StateMachine::AddStateTransistion(unsigned int, unsigned int) {
  transitions = orb::CheckedAdd<uint64_t>(transitions, 1);
  return 0;
}
