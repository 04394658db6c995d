// How long an object's interface is promised to stay: names that generated code uses
// when the build defines BINDER_STABILITY_SUPPORT, which no header does.
//
// A process here counts as a vendor's with the system's library: its objects have the
// system's level until they are marked. A call on another process's object wants that
// object to have the vendor's level when it carries FLAG_PRIVATE_LOCAL, else the
// system's, and ends with STATUS_BAD_TYPE where the object has less.
#pragma once

#include <android/binder_ibinder.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

enum {
  FLAG_PRIVATE_VENDOR = 0x10000000,
};

enum {
  FLAG_PRIVATE_LOCAL = FLAG_PRIVATE_VENDOR,
};

// Both take a local object that no other process has got yet.
void AIBinder_markVendorStability(AIBinder* binder);
// For an interface that vendor and system share; it has both levels.
void AIBinder_markVintfStability(AIBinder* binder);

static inline void AIBinder_markCompilationUnitStability(AIBinder* binder) {
  AIBinder_markVendorStability(binder);
}

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
