// Which side of the vendor boundary an object may cross. There is no such
// boundary here: the marks are accepted and have no effect.
#pragma once

#include <android/binder_ibinder.h>

#define BINDER_STABILITY_SUPPORT

static inline void AIBinder_markCompilationUnitStability(AIBinder* binder) { (void)binder; }
static inline void AIBinder_markVintfStability(AIBinder* binder) { (void)binder; }
