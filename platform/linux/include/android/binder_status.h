// Results of the NDK binder interface: statuses of the transport, exceptions of the called
// method, and AStatus, which holds either.
#pragma once

#include <errno.h>
#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

enum {
  STATUS_OK = 0,

  STATUS_UNKNOWN_ERROR = (-2147483647 - 1),  // Any other value becomes this.
  STATUS_NO_MEMORY = -ENOMEM,
  STATUS_INVALID_OPERATION = -ENOSYS,
  STATUS_BAD_VALUE = -EINVAL,
  STATUS_BAD_TYPE = (STATUS_UNKNOWN_ERROR + 1),
  STATUS_NAME_NOT_FOUND = -ENOENT,
  STATUS_PERMISSION_DENIED = -EPERM,
  STATUS_NO_INIT = -ENODEV,
  STATUS_ALREADY_EXISTS = -EEXIST,
  STATUS_DEAD_OBJECT = -EPIPE,
  STATUS_FAILED_TRANSACTION = (STATUS_UNKNOWN_ERROR + 2),
  STATUS_BAD_INDEX = -EOVERFLOW,
  STATUS_NOT_ENOUGH_DATA = -ENODATA,
  STATUS_WOULD_BLOCK = -EWOULDBLOCK,
  STATUS_TIMED_OUT = -ETIMEDOUT,
  STATUS_UNKNOWN_TRANSACTION = -EBADMSG,
  STATUS_FDS_NOT_ALLOWED = (STATUS_UNKNOWN_ERROR + 7),
  STATUS_UNEXPECTED_NULL = (STATUS_UNKNOWN_ERROR + 8),
};
typedef int32_t binder_status_t;

enum {
  EX_NONE = 0,
  EX_SECURITY = -1,
  EX_BAD_PARCELABLE = -2,
  EX_ILLEGAL_ARGUMENT = -3,
  EX_NULL_POINTER = -4,
  EX_ILLEGAL_STATE = -5,
  EX_NETWORK_MAIN_THREAD = -6,
  EX_UNSUPPORTED_OPERATION = -7,
  EX_SERVICE_SPECIFIC = -8,
  EX_PARCELABLE = -9,
  EX_TRANSACTION_FAILED = -129,  // AStatus_getStatus has the transport error.
};
typedef int32_t binder_exception_t;

typedef struct AStatus AStatus;

// Each returns a new status, deleted by the caller with AStatus_delete.
__attribute__((warn_unused_result)) AStatus* AStatus_newOk(void);
__attribute__((warn_unused_result)) AStatus* AStatus_fromExceptionCode(binder_exception_t);
__attribute__((warn_unused_result)) AStatus* AStatus_fromExceptionCodeWithMessage(
    binder_exception_t, const char* message);
__attribute__((warn_unused_result)) AStatus* AStatus_fromServiceSpecificError(int32_t error);
__attribute__((warn_unused_result)) AStatus* AStatus_fromServiceSpecificErrorWithMessage(
    int32_t error, const char* message);
// STATUS_OK gives an ok status.
__attribute__((warn_unused_result)) AStatus* AStatus_fromStatus(binder_status_t);

bool AStatus_isOk(const AStatus*);
binder_exception_t AStatus_getExceptionCode(const AStatus*);
// The service's own number, 0 unless the exception is EX_SERVICE_SPECIFIC.
int32_t AStatus_getServiceSpecificError(const AStatus*);
// STATUS_OK unless the exception is EX_TRANSACTION_FAILED.
binder_status_t AStatus_getStatus(const AStatus*);
// "" without a message; valid as long as the status.
const char* AStatus_getMessage(const AStatus*);
// A text for people. The caller frees it with AStatus_deleteDescription.
__attribute__((warn_unused_result)) const char* AStatus_getDescription(const AStatus*);
void AStatus_deleteDescription(const char*);
void AStatus_delete(AStatus*);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
