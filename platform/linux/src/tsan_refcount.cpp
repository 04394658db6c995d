// The reference counts live in a library that the thread sanitizer does not
// see, so it would take every last release for a race with the releases before
// it. These stand in front of the library's functions and tell it the order.
// Built into sanitized libraries only.
#include <dlfcn.h>
#include <sanitizer/tsan_interface.h>
#include <utils/RefBase.h>

namespace android {

namespace {

template <typename Function>
Function Next(const char* symbol) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, symbol));
}

}  // namespace

void RefBase::decStrong(const void* id) const {
  static const auto next =
      Next<void (*)(const RefBase*, const void*)>("_ZNK7android7RefBase9decStrongEPKv");
  __tsan_release(const_cast<RefBase*>(this));
  next(this, id);
}

void RefBase::weakref_type::decWeak(const void* id) {
  static const auto next =
      Next<void (*)(weakref_type*, const void*)>("_ZN7android7RefBase12weakref_type7decWeakEPKv");
  __tsan_release(refBase());
  next(this, id);
}

void RefBase::onLastStrongRef(const void*) { __tsan_acquire(this); }
void RefBase::onLastWeakRef(const void*) { __tsan_acquire(this); }

}  // namespace android
