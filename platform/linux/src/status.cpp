// status := EX_NONE:i32
//         | code:i32 message:String16 trace_bytes:i32=0
//           [error:i32 when EX_SERVICE_SPECIFIC] [0:i32 when EX_PARCELABLE]
//         | EX_HAS_REPLY_HEADER:i32 header_bytes:i32 header        means EX_NONE
// header_bytes counts itself. Tested by tests/platform/parcel_test.cpp.
#include <binder/Status.h>

#include <limits>

namespace android::binder {

Status::Status(int32_t exception, int32_t error) : exception_(exception), error_(error) {}
Status::Status(int32_t exception, int32_t error, const String8& message)
    : exception_(exception), error_(error), message_(message) {}

Status Status::ok() { return Status(); }

Status Status::fromExceptionCode(int32_t exceptionCode) {
  if (exceptionCode == EX_TRANSACTION_FAILED) return Status(exceptionCode, FAILED_TRANSACTION);
  return Status(exceptionCode, OK);
}

Status Status::fromExceptionCode(int32_t exceptionCode, const String8& message) {
  if (exceptionCode == EX_TRANSACTION_FAILED) {
    return Status(exceptionCode, FAILED_TRANSACTION, message);
  }
  return Status(exceptionCode, OK, message);
}

Status Status::fromExceptionCode(int32_t exceptionCode, const char* message) {
  return fromExceptionCode(exceptionCode, String8(message));
}

Status Status::fromServiceSpecificError(int32_t serviceSpecificErrorCode) {
  return Status(EX_SERVICE_SPECIFIC, serviceSpecificErrorCode);
}

Status Status::fromServiceSpecificError(int32_t serviceSpecificErrorCode, const String8& message) {
  return Status(EX_SERVICE_SPECIFIC, serviceSpecificErrorCode, message);
}

Status Status::fromServiceSpecificError(int32_t serviceSpecificErrorCode, const char* message) {
  return fromServiceSpecificError(serviceSpecificErrorCode, String8(message));
}

Status Status::fromStatusT(status_t status) {
  Status out;
  out.setFromStatusT(status);
  return out;
}

const char* Status::exceptionToString(int32_t exceptionCode) {
  switch (exceptionCode) {
    case EX_NONE:
      return "EX_NONE";
    case EX_SECURITY:
      return "EX_SECURITY";
    case EX_BAD_PARCELABLE:
      return "EX_BAD_PARCELABLE";
    case EX_ILLEGAL_ARGUMENT:
      return "EX_ILLEGAL_ARGUMENT";
    case EX_NULL_POINTER:
      return "EX_NULL_POINTER";
    case EX_ILLEGAL_STATE:
      return "EX_ILLEGAL_STATE";
    case EX_NETWORK_MAIN_THREAD:
      return "EX_NETWORK_MAIN_THREAD";
    case EX_UNSUPPORTED_OPERATION:
      return "EX_UNSUPPORTED_OPERATION";
    case EX_SERVICE_SPECIFIC:
      return "EX_SERVICE_SPECIFIC";
    case EX_PARCELABLE:
      return "EX_PARCELABLE";
    case EX_HAS_REPLY_HEADER:
      return "EX_HAS_REPLY_HEADER";
    case EX_TRANSACTION_FAILED:
      return "EX_TRANSACTION_FAILED";
    default:
      return "UNKNOWN";
  }
}

status_t Status::readFromParcel(const Parcel& parcel) {
  const status_t status = readException(parcel);
  if (status != OK) setFromStatusT(status);
  return status;
}

status_t Status::readException(const Parcel& parcel) {
  *this = Status();
  int32_t exception = EX_NONE;
  status_t status = parcel.readInt32(&exception);
  if (status != OK) return status;

  if (exception == EX_HAS_REPLY_HEADER) {
    const size_t start = parcel.dataPosition();
    const size_t avail = parcel.dataAvail();
    int32_t header_bytes = 0;
    status = parcel.readInt32(&header_bytes);
    if (status != OK) return status;
    if (header_bytes < 0 || static_cast<size_t>(header_bytes) > avail) return UNKNOWN_ERROR;
    parcel.setDataPosition(start + static_cast<size_t>(header_bytes));
    return OK;
  }
  if (exception == EX_NONE) return OK;

  String16 message;
  status = parcel.readString16(&message);
  if (status != OK) return status;
  const size_t trace_start = parcel.dataPosition();
  const size_t trace_avail = parcel.dataAvail();
  int32_t trace_bytes = 0;
  status = parcel.readInt32(&trace_bytes);
  if (status != OK) return status;
  if (trace_bytes < 0 || static_cast<size_t>(trace_bytes) > trace_avail) return UNKNOWN_ERROR;
  // A trace counts its own size word. Zero means that there is none.
  if (trace_bytes != 0) parcel.setDataPosition(trace_start + static_cast<size_t>(trace_bytes));

  int32_t error = 0;
  if (exception == EX_SERVICE_SPECIFIC) {
    status = parcel.readInt32(&error);
  } else if (exception == EX_PARCELABLE) {
    const size_t start = parcel.dataPosition();
    const size_t avail = parcel.dataAvail();
    int32_t bytes = 0;
    status = parcel.readInt32(&bytes);
    if (status == OK && (bytes < 0 || static_cast<size_t>(bytes) > avail)) return UNKNOWN_ERROR;
    if (status == OK && bytes != 0) parcel.setDataPosition(start + static_cast<size_t>(bytes));
  }
  if (status != OK) return status;
  *this = Status(exception, error, String8(message));
  return OK;
}

status_t Status::writeToParcel(Parcel* parcel) const {
  if (exception_ == EX_TRANSACTION_FAILED) return error_;
  status_t status = parcel->writeInt32(exception_);
  if (status != OK || exception_ == EX_NONE) return status;
  status = parcel->writeString16(String16(message_));
  if (status != OK) return status;
  status = parcel->writeInt32(0);  // No remote stack trace.
  if (status != OK) return status;
  if (exception_ == EX_SERVICE_SPECIFIC) return parcel->writeInt32(error_);
  if (exception_ == EX_PARCELABLE) return parcel->writeInt32(0);
  return OK;
}

status_t Status::writeOverParcel(Parcel* parcel) const {
  parcel->setDataSize(0);
  parcel->setDataPosition(0);
  return writeToParcel(parcel);
}

void Status::setFromStatusT(status_t status) {
  *this = status == OK ? Status() : Status(EX_TRANSACTION_FAILED, status);
}

String8 Status::toString8() const {
  if (exception_ == EX_NONE) return String8("No error");
  String8 out = String8::format("Status(%d, %s): '", exception_, exceptionToString(exception_));
  if (exception_ == EX_SERVICE_SPECIFIC) out.appendFormat("%d: ", error_);
  if (exception_ == EX_TRANSACTION_FAILED) {
    out.appendFormat("%s: ", statusToString(error_).c_str());
  }
  out.append(message_);
  out.append("'");
  return out;
}

}  // namespace android::binder
