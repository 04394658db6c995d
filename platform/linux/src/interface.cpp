// The untyped part of typed interfaces, and stability marks.
// Tested by tests/platform/contract_test.cpp.
#include <binder/BpBinder.h>
#include <binder/IInterface.h>
#include <binder/Stability.h>

namespace android {

IInterface::IInterface() = default;
IInterface::~IInterface() = default;

sp<IBinder> IInterface::asBinder(const IInterface* iface) {
  if (iface == nullptr) return nullptr;
  return sp<IBinder>(const_cast<IInterface*>(iface)->onAsBinder());
}

sp<IBinder> IInterface::asBinder(const sp<IInterface>& iface) {
  return asBinder(static_cast<const IInterface*>(iface.get()));
}

namespace internal {

void Stability::markCompilationUnit(IBinder* binder) {
  if (BBinder* local = binder->localBinder()) local->setStability(SYSTEM);
}

void Stability::markVndk(IBinder* binder) {
  if (BBinder* local = binder->localBinder()) local->setStability(VENDOR);
}

void Stability::markVintf(IBinder* binder) {
  if (BBinder* local = binder->localBinder()) local->setStability(VINTF);
}

void Stability::tryMarkCompilationUnit(IBinder* binder) {
  BBinder* local = binder->localBinder();
  if (local != nullptr && local->stability() == UNDECLARED) local->setStability(SYSTEM);
}

int32_t Stability::getLevel(IBinder* binder) {
  if (binder == nullptr) return UNDECLARED;
  tryMarkCompilationUnit(binder);
  if (BBinder* local = binder->localBinder()) return local->stability();
  const int32_t level = binder->remoteBinder()->stability();
  return level != UNDECLARED ? level : static_cast<int32_t>(SYSTEM);
}

}  // namespace internal
}  // namespace android
