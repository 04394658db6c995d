// Typed interfaces over binders, and the macros that tie one to its name.
#pragma once

#include <binder/Binder.h>

namespace android {

class IInterface : public virtual RefBase {
 public:
  IInterface();
  static sp<IBinder> asBinder(const IInterface* iface);
  static sp<IBinder> asBinder(const sp<IInterface>& iface);

 protected:
  ~IInterface() override;
  virtual IBinder* onAsBinder() = 0;
};

// Null stays null; a local object of that interface is returned itself.
template <typename INTERFACE>
inline sp<INTERFACE> interface_cast(const sp<IBinder>& obj) {
  return INTERFACE::asInterface(obj);
}

// Like interface_cast, but null when the binder has another descriptor. Blocks for a proxy
// whose descriptor is not known yet.
template <typename INTERFACE>
inline sp<INTERFACE> checked_interface_cast(const sp<IBinder>& obj) {
  if (obj == nullptr || obj->getInterfaceDescriptor() != INTERFACE::descriptor) return nullptr;
  return interface_cast<INTERFACE>(obj);
}

template <typename INTERFACE>
class BnInterface : public INTERFACE, public BBinder {
 public:
  sp<IInterface> queryLocalInterface(const String16& descriptor) override {
    if (descriptor == INTERFACE::descriptor) return sp<IInterface>(this);
    return nullptr;
  }
  const String16& getInterfaceDescriptor() const override {
    return INTERFACE::getInterfaceDescriptor();
  }

 protected:
  typedef INTERFACE BaseInterface;
  IBinder* onAsBinder() override { return this; }
};

template <typename INTERFACE>
class BpInterface : public INTERFACE, public BpRefBase {
 public:
  explicit BpInterface(const sp<IBinder>& remote) : BpRefBase(remote) {}

 protected:
  typedef INTERFACE BaseInterface;
  IBinder* onAsBinder() override { return remote(); }
};

}  // namespace android

// NAME is the interface's name without its leading I. setDefaultImpl works once: a second
// call, or a call with null, returns false and changes nothing. Descriptor and default are
// never destroyed, because pool threads use them while exit() runs.
#define DECLARE_META_INTERFACE(NAME)                                                     \
 public:                                                                                 \
  static const ::android::String16& descriptor;                                          \
  static ::android::sp<I##NAME> asInterface(const ::android::sp<::android::IBinder>& o); \
  virtual const ::android::String16& getInterfaceDescriptor() const;                     \
  I##NAME();                                                                             \
  virtual ~I##NAME();                                                                    \
  static bool setDefaultImpl(::android::sp<I##NAME> impl);                               \
  static const ::android::sp<I##NAME>& getDefaultImpl();                                 \
                                                                                         \
 private:                                                                                \
  static ::android::sp<I##NAME>& default_impl;                                           \
                                                                                         \
 public:

#define DO_NOT_DIRECTLY_USE_ME_IMPLEMENT_META_INTERFACE(NAME, TEXT)                         \
  const ::android::String16& I##NAME::descriptor = *new ::android::String16(TEXT);          \
  const ::android::String16& I##NAME::getInterfaceDescriptor() const {                      \
    return I##NAME::descriptor;                                                             \
  }                                                                                         \
  ::android::sp<I##NAME> I##NAME::asInterface(const ::android::sp<::android::IBinder>& o) { \
    if (o == nullptr) return nullptr;                                                       \
    ::android::sp<I##NAME> local(                                                           \
        static_cast<I##NAME*>(o->queryLocalInterface(I##NAME::descriptor).get()));          \
    if (local != nullptr) return local;                                                     \
    return ::android::sp<I##NAME>(new Bp##NAME(o));                                         \
  }                                                                                         \
  ::android::sp<I##NAME>& I##NAME::default_impl = *new ::android::sp<I##NAME>();            \
  bool I##NAME::setDefaultImpl(::android::sp<I##NAME> impl) {                               \
    if (impl == nullptr || default_impl != nullptr) return false;                           \
    default_impl = impl;                                                                    \
    return true;                                                                            \
  }                                                                                         \
  const ::android::sp<I##NAME>& I##NAME::getDefaultImpl() { return default_impl; }          \
  I##NAME::I##NAME() {}                                                                     \
  I##NAME::~I##NAME() {}

#define IMPLEMENT_META_INTERFACE(NAME, TEXT) \
  DO_NOT_DIRECTLY_USE_ME_IMPLEMENT_META_INTERFACE(NAME, TEXT)
