// Tells the thread sanitizer the order of releases. The reference counts live in a library
// that it does not see, so it would report every last release as a race with the releases
// before it. These functions replace the library's and call them. Only builds with the
// thread sanitizer have this file.
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
