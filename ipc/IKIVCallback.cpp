// Tested by tests/ipc/transaction_test.cpp.
#include "ipc/IKIVCallback.h"

#include "ipc/BpKIVCallback.h"

// NOLINTNEXTLINE(performance-unnecessary-value-param): the platform fixes the signature.
DO_NOT_DIRECTLY_USE_ME_IMPLEMENT_META_INTERFACE(KIVCallback, "IKIVCallback")
