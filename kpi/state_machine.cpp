// Tested by tests/kpi/kpi_test.cpp.
#include "kpi/state_machine.h"

int StateMachine::Aggregate(unsigned int) { return 0; }

void StateMachine::ResetAggregates() {}

bool StateMachine::validCfg() { return true; }

int StateMachine::Serialize() { return 0; }

int StateMachine::AddStateTransistion(unsigned int, unsigned int) { return 0; }
