// Tested by tests/integration/campaign_test.cpp.
#include "services/manager/control/IOrbControl.h"

#include "services/manager/control/BpOrbControl.h"

// NOLINTNEXTLINE(performance-unnecessary-value-param): the platform fixes the signature.
DO_NOT_DIRECTLY_USE_ME_IMPLEMENT_META_INTERFACE(OrbControl, "orb.manager.IOrbControl")
