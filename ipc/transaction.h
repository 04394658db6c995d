// One binder transaction, from the proxy's and from the stub's side, for the
// interfaces of this folder.
//
// request := interface_token argument*     reply := status result*
//
// Results follow only a status that is OK; a one-way call has no reply.
// Tested by tests/ipc/transaction_test.cpp.
#pragma once

#include <binder/Binder.h>
#include <binder/IBinder.h>
#include <binder/Parcel.h>
#include <binder/Status.h>
#include <binder/Trace.h>

#include <cstdint>

#include "utility/contained.h"

namespace orb::ipc {

struct Method {
  uint32_t code;
  const char* trace;  // Name of the trace section, a literal.
  uint32_t flags = 0;
};

// For methods that answer with a status alone.
inline constexpr auto kNoResult = [](const auto&...) -> android::status_t { return android::OK; };

// Calls a method of `remote`. write(Parcel*) puts the arguments, read(const
// Parcel&) takes the results, both return a status_t. A peer that does not know
// the method is answered for by forward(Interface&), with the process's default
// implementation, when there is one.
template <typename Interface, typename Write, typename Forward, typename Read>
android::binder::Status Call(const android::sp<android::IBinder>& remote, const Method& method,
                             Write write, Forward forward, Read read) {
  using android::binder::Status;
  android::Parcel data;
  data.markForBinder(remote);
  android::Parcel reply;
  android::binder::ScopedTrace trace(ATRACE_TAG_AIDL, method.trace);
  android::status_t status = data.writeInterfaceToken(Interface::descriptor);
  if (status == android::OK) status = write(&data);
  if (status != android::OK) return Status::fromStatusT(status);
  status = remote->transact(method.code, data, &reply, method.flags);
  if (status == android::UNKNOWN_TRANSACTION && Interface::getDefaultImpl() != nullptr) {
    return forward(*Interface::getDefaultImpl());
  }
  if (status != android::OK) return Status::fromStatusT(status);
  if ((method.flags & android::IBinder::FLAG_ONEWAY) != 0) return Status();
  Status answer;
  status = answer.readFromParcel(reply);
  if (status != android::OK) return Status::fromStatusT(status);
  if (!answer.isOk()) return answer;
  return Status::fromStatusT(read(reply));
}

// Serves one request of `stub`. read() takes the arguments from `data` and
// write() puts the results into `reply`, both return a status_t; invoke() is
// the method itself. When arguments are null or followed by bytes that read() leaves,
// the method is not called and the caller gets an exception.
template <typename Stub, typename Read, typename Invoke, typename Write>
android::status_t ServeThrowing(Stub* stub, const android::Parcel& data, android::Parcel* reply,
                                const Method& method, Read read, Invoke invoke, Write write) {
  using android::binder::Status;
  android::binder::ScopedTrace trace(ATRACE_TAG_AIDL, method.trace);
  if (!data.checkInterface(stub)) return android::BAD_TYPE;
  android::status_t status = read();
  if (status == android::OK) {
    const Status rest = data.enforceNoDataAvail();
    if (!rest.isOk()) return rest.writeOverParcel(reply);
    const Status answer = invoke();
    if ((method.flags & android::IBinder::FLAG_ONEWAY) != 0) return android::OK;
    status = answer.writeToParcel(reply);
    if (status == android::OK && answer.isOk()) status = write();
  }
  if (status == android::UNEXPECTED_NULL) {
    status = Status::fromExceptionCode(Status::EX_NULL_POINTER).writeOverParcel(reply);
  }
  return status;
}

// Like ServeThrowing, for the platform's threads: a C++ exception becomes NO_MEMORY.
template <typename Stub, typename Read, typename Invoke, typename Write>
android::status_t Serve(Stub* stub, const android::Parcel& data, android::Parcel* reply,
                        const Method& method, Read read, Invoke invoke, Write write) {
  return Contained(method.trace, static_cast<android::status_t>(android::NO_MEMORY),
                   [&] { return ServeThrowing(stub, data, reply, method, read, invoke, write); });
}

}  // namespace orb::ipc
