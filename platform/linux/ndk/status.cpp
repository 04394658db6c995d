// AStatus, and which status codes and exceptions the NDK interface may return.
// Tested by tests/platform_ndk/parcel_test.cpp.
#include <cstdlib>
#include <cstring>

#include "platform/linux/ndk/internal.h"

using android::binder::Status;

namespace orb_platform {

binder_status_t Prune(android::status_t status) {
  switch (status) {
    case STATUS_OK:
    case STATUS_NO_MEMORY:
    case STATUS_INVALID_OPERATION:
    case STATUS_BAD_VALUE:
    case STATUS_BAD_TYPE:
    case STATUS_NAME_NOT_FOUND:
    case STATUS_PERMISSION_DENIED:
    case STATUS_NO_INIT:
    case STATUS_ALREADY_EXISTS:
    case STATUS_DEAD_OBJECT:
    case STATUS_FAILED_TRANSACTION:
    case STATUS_BAD_INDEX:
    case STATUS_NOT_ENOUGH_DATA:
    case STATUS_WOULD_BLOCK:
    case STATUS_TIMED_OUT:
    case STATUS_UNKNOWN_TRANSACTION:
    case STATUS_FDS_NOT_ALLOWED:
    case STATUS_UNEXPECTED_NULL:
      return status;
    default:
      return STATUS_UNKNOWN_ERROR;
  }
}

binder_exception_t PruneException(int32_t exception) {
  const bool known =
      (exception <= EX_NONE && exception >= EX_PARCELABLE) || exception == EX_TRANSACTION_FAILED;
  return known ? exception : EX_TRANSACTION_FAILED;
}

}  // namespace orb_platform

AStatus* AStatus_newOk() { return new AStatus(); }

AStatus* AStatus_fromExceptionCode(binder_exception_t exception) {
  return new AStatus{Status::fromExceptionCode(orb_platform::PruneException(exception))};
}

AStatus* AStatus_fromExceptionCodeWithMessage(binder_exception_t exception, const char* message) {
  return new AStatus{Status::fromExceptionCode(orb_platform::PruneException(exception), message)};
}

AStatus* AStatus_fromServiceSpecificError(int32_t error) {
  return new AStatus{Status::fromServiceSpecificError(error)};
}

AStatus* AStatus_fromServiceSpecificErrorWithMessage(int32_t error, const char* message) {
  return new AStatus{Status::fromServiceSpecificError(error, message)};
}

AStatus* AStatus_fromStatus(binder_status_t status) {
  return new AStatus{Status::fromStatusT(orb_platform::Prune(status))};
}

bool AStatus_isOk(const AStatus* status) { return status->status.isOk(); }

binder_exception_t AStatus_getExceptionCode(const AStatus* status) {
  return orb_platform::PruneException(status->status.exceptionCode());
}

int32_t AStatus_getServiceSpecificError(const AStatus* status) {
  return status->status.serviceSpecificErrorCode();
}

binder_status_t AStatus_getStatus(const AStatus* status) {
  return orb_platform::Prune(status->status.transactionError());
}

const char* AStatus_getMessage(const AStatus* status) {
  return status->status.exceptionMessage().c_str();
}

const char* AStatus_getDescription(const AStatus* status) {
  return strdup(status->status.toString8().c_str());
}

void AStatus_deleteDescription(const char* description) { free(const_cast<char*>(description)); }

void AStatus_delete(AStatus* status) { delete status; }
