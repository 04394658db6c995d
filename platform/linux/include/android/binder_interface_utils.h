// Base classes of C++ interfaces over the NDK binder interface: of the interface itself,
// of its local objects (Bn...) and of its proxies (Bp...).
#pragma once

#include <android/binder_auto_utils.h>
#include <android/binder_ibinder.h>

#include <cstdlib>
#include <memory>
#include <mutex>
#include <type_traits>

namespace ndk {

// An object that can give shared ownership of itself. Made with make() only.
class SharedRefBase {
 public:
  SharedRefBase() = default;
  // Aborts when ref() was never called: then make() has not made the object.
  virtual ~SharedRefBase() {
    bool taken = true;
    std::call_once(once_, [&] { taken = false; });
    if (!taken) std::abort();
  }

  std::shared_ptr<SharedRefBase> ref() {
    std::shared_ptr<SharedRefBase> self = self_.lock();
    std::call_once(once_, [&] { self_ = self = std::shared_ptr<SharedRefBase>(this); });
    return self;
  }
  template <typename CHILD>
  std::shared_ptr<CHILD> ref() {
    return std::static_pointer_cast<CHILD>(ref());
  }

  template <typename T, typename... Args>
  static std::shared_ptr<T> make(Args&&... args) {
    T* object = new T(std::forward<Args>(args)...);
    return object->template ref<T>();
  }

  // NOLINTNEXTLINE(cert-dcl54-cpp): its operator new is below, for make() only.
  static void operator delete(void* memory) { std::free(memory); }

 private:
  static void* operator new(size_t bytes) {
    void* memory = std::malloc(bytes);
    if (memory == nullptr) std::abort();
    return memory;
  }

  std::once_flag once_;
  std::weak_ptr<SharedRefBase> self_;
};

class ICInterface : public SharedRefBase {
 public:
  virtual SpAIBinder asBinder() = 0;
  virtual bool isRemote() = 0;

  // The object of a local binder whose class is from defineClass; null for a remote one.
  // Do not call it for local binders of other classes.
  static std::shared_ptr<ICInterface> asInterface(AIBinder* binder);
  static AIBinder_Class* defineClass(const char* interfaceDescriptor,
                                     AIBinder_Class_onTransact onTransact);

 private:
  // User data of a local binder: the binder keeps its object alive.
  struct Data {
    std::shared_ptr<ICInterface> interface;
  };
};

inline std::shared_ptr<ICInterface> ICInterface::asInterface(AIBinder* binder) {
  auto* data = static_cast<Data*>(AIBinder_getUserData(binder));
  return data == nullptr ? nullptr : data->interface;
}

inline AIBinder_Class* ICInterface::defineClass(const char* interfaceDescriptor,
                                                AIBinder_Class_onTransact onTransact) {
  const auto on_create = [](void* args) -> void* {
    return new Data{static_cast<ICInterface*>(args)->ref<ICInterface>()};
  };
  const auto on_destroy = [](void* data) { delete static_cast<Data*>(data); };
  return AIBinder_Class_define(interfaceDescriptor, on_create, on_destroy, onTransact);
}

// The local side. It holds its binder weakly, because the binder holds the object.
template <typename INTERFACE>
class BnCInterface : public INTERFACE {
 public:
  SpAIBinder asBinder() final {
    std::lock_guard<std::mutex> lock(mutex_);
    SpAIBinder binder(weak_.get() == nullptr ? nullptr : AIBinder_Weak_promote(weak_.get()));
    if (binder.get() == nullptr) {
      binder = createBinder();
      weak_.set(AIBinder_Weak_new(binder.get()));
    }
    return binder;
  }
  bool isRemote() final { return false; }

 protected:
  // AIBinder_new with the interface's class, and this object as ICInterface*.
  virtual SpAIBinder createBinder() = 0;

 private:
  std::mutex mutex_;
  ScopedAIBinder_Weak weak_;
};

// The proxy side.
template <typename INTERFACE>
class BpCInterface : public INTERFACE {
 public:
  explicit BpCInterface(const SpAIBinder& binder) : binder_(binder) {}

  SpAIBinder asBinder() final { return binder_; }
  bool isRemote() final { return AIBinder_isRemote(binder_.get()); }

 private:
  const SpAIBinder binder_;
};

}  // namespace ndk
