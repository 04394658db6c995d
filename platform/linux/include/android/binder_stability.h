// Stability levels say how long an object's interface is promised to stay. Generated code
// uses these names when the build defines BINDER_STABILITY_SUPPORT, which no header does.
//
// Objects of a process have the system's level until they are marked. A call on another
// process's object needs the vendor's level when it has FLAG_PRIVATE_LOCAL, else the
// system's, and fails with STATUS_BAD_TYPE on an object without that level.
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

// Both take a local object that was not sent to another process yet.
void AIBinder_markVendorStability(AIBinder* binder);
// Gives both levels, for an interface that vendor and system share.
void AIBinder_markVintfStability(AIBinder* binder);

static inline void AIBinder_markCompilationUnitStability(AIBinder* binder) {
  AIBinder_markVendorStability(binder);
}

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
