// Names of status codes. libutils declares the function, but its Linux build lacks it.
// Tested by tests/platform/parcel_test.cpp.
#include <utils/Errors.h>

namespace android {

std::string statusToString(status_t status) {
#define ORB_STATUS(name) \
  case name:             \
    return #name
  switch (status) {
    ORB_STATUS(OK);
    ORB_STATUS(UNKNOWN_ERROR);
    ORB_STATUS(NO_MEMORY);
    ORB_STATUS(INVALID_OPERATION);
    ORB_STATUS(BAD_VALUE);
    ORB_STATUS(BAD_TYPE);
    ORB_STATUS(NAME_NOT_FOUND);
    ORB_STATUS(PERMISSION_DENIED);
    ORB_STATUS(NO_INIT);
    ORB_STATUS(ALREADY_EXISTS);
    ORB_STATUS(DEAD_OBJECT);
    ORB_STATUS(FAILED_TRANSACTION);
    ORB_STATUS(BAD_INDEX);
    ORB_STATUS(NOT_ENOUGH_DATA);
    ORB_STATUS(WOULD_BLOCK);
    ORB_STATUS(TIMED_OUT);
    ORB_STATUS(UNKNOWN_TRANSACTION);
    ORB_STATUS(FDS_NOT_ALLOWED);
    ORB_STATUS(UNEXPECTED_NULL);
    default:
      return "status " + std::to_string(status);
  }
#undef ORB_STATUS
}

}  // namespace android
