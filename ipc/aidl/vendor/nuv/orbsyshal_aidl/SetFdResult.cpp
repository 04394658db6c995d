// body := size:int32 result:int32 fdToken:int32      size counts itself
// Tested by tests/platform_ndk/parcel_test.cpp.
#include <aidl/vendor/nuv/orbsyshal_aidl/SetFdResult.h>

#include <climits>
#include <initializer_list>

namespace aidl::vendor::nuv::orbsyshal_aidl {

namespace {

constexpr int32_t kBodyBytes = 3 * sizeof(int32_t);

}  // namespace

const char* SetFdResult::descriptor = "vendor.nuv.orbsyshal_aidl.SetFdResult";

binder_status_t SetFdResult::readFromParcel(const AParcel* parcel) {
  const int32_t start = AParcel_getDataPosition(parcel);
  int32_t size = 0;
  binder_status_t status = AParcel_readInt32(parcel, &size);
  if (status != STATUS_OK) return status;
  if (size < static_cast<int32_t>(sizeof(int32_t)) || start > INT32_MAX - size) {
    return STATUS_BAD_VALUE;
  }
  // A shorter body leaves the remaining fields as they are, a longer one is skipped.
  for (int32_t* field : {&result, &fdToken}) {
    if (AParcel_getDataPosition(parcel) - start >= size) break;
    status = AParcel_readInt32(parcel, field);
    if (status != STATUS_OK) return status;
  }
  return AParcel_setDataPosition(parcel, start + size);
}

binder_status_t SetFdResult::writeToParcel(AParcel* parcel) const {
  for (const int32_t word : {kBodyBytes, result, fdToken}) {
    const binder_status_t status = AParcel_writeInt32(parcel, word);
    if (status != STATUS_OK) return status;
  }
  return STATUS_OK;
}

}  // namespace aidl::vendor::nuv::orbsyshal_aidl
