// The outcome of a call: success, an exception that the callee raised, or a transport
// error. Not thread-safe; threads take copies.
#pragma once

#include <binder/Parcel.h>
#include <utils/Errors.h>
#include <utils/String8.h>

#include <cstdint>

namespace android::binder {

class Status final {
 public:
  enum Exception : int32_t {
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
    EX_HAS_REPLY_HEADER = -128,
    EX_TRANSACTION_FAILED = -129,
  };

  static Status ok();
  static Status fromExceptionCode(int32_t exceptionCode);
  static Status fromExceptionCode(int32_t exceptionCode, const String8& message);
  static Status fromExceptionCode(int32_t exceptionCode, const char* message);
  static Status fromServiceSpecificError(int32_t serviceSpecificErrorCode);
  static Status fromServiceSpecificError(int32_t serviceSpecificErrorCode, const String8& message);
  static Status fromServiceSpecificError(int32_t serviceSpecificErrorCode, const char* message);
  // OK gives ok(); any other status gives EX_TRANSACTION_FAILED with that error.
  static Status fromStatusT(status_t status);
  static const char* exceptionToString(int32_t exceptionCode);

  Status() = default;

  // When reading fails, this status gets the transport error, too.
  status_t readFromParcel(const Parcel& parcel);
  // For a transport error, writes nothing and returns that error.
  status_t writeToParcel(Parcel* parcel) const;
  // Like writeToParcel, but replaces all that the parcel holds.
  status_t writeOverParcel(Parcel* parcel) const;

  void setFromStatusT(status_t status);

  int32_t exceptionCode() const { return exception_; }
  const String8& exceptionMessage() const { return message_; }
  status_t transactionError() const { return exception_ == EX_TRANSACTION_FAILED ? error_ : OK; }
  int32_t serviceSpecificErrorCode() const {
    return exception_ == EX_SERVICE_SPECIFIC ? error_ : 0;
  }
  bool isOk() const { return exception_ == EX_NONE; }
  String8 toString8() const;

 private:
  Status(int32_t exception, int32_t error);
  Status(int32_t exception, int32_t error, const String8& message);
  status_t readException(const Parcel& parcel);

  int32_t exception_ = EX_NONE;
  // With EX_SERVICE_SPECIFIC the service's code, with EX_TRANSACTION_FAILED a status_t.
  int32_t error_ = 0;
  String8 message_;
};

}  // namespace android::binder
