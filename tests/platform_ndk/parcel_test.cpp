// AParcel and AStatus: bytes on the wire, and parcels that lie.
#include <android/binder_parcel_utils.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <aidl/android/hardware/common/NativeHandle.h>
#include <aidl/vendor/nuv/orbsyshal_aidl/SetFdResult.h>

#include <string>
#include <vector>

namespace {

using aidl::android::hardware::common::NativeHandle;
using ndk::AParcel_readData;
using ndk::AParcel_writeData;
using ndk::ScopedAParcel;
using ndk::ScopedAStatus;

class NdkParcelTest : public testing::Test {
 protected:
  void Rewind() { ASSERT_EQ(AParcel_setDataPosition(parcel_.get(), 0), STATUS_OK); }
  std::vector<int32_t> Words() {
    Rewind();
    std::vector<int32_t> words(static_cast<size_t>(AParcel_getDataSize(parcel_.get())) / 4);
    for (int32_t& word : words) EXPECT_EQ(AParcel_readInt32(parcel_.get(), &word), STATUS_OK);
    return words;
  }

  template <typename T>
  void Write(const T& value) {
    ASSERT_EQ(AParcel_writeData(parcel_.get(), value), STATUS_OK);
  }
  template <typename T>
  T Read(T value = T()) {
    EXPECT_EQ(AParcel_readData(parcel_.get(), &value), STATUS_OK);
    return value;
  }

  ScopedAParcel parcel_{AParcel_create()};
};

template <typename T>
binder_status_t ReadFrom(const AParcel* parcel) {
  T value;
  return AParcel_readData(parcel, &value);
}

TEST_F(NdkParcelTest, WritesTheBytesOfThePlatform) {
  Write(std::string("abc"));
  Write(std::string());
  ASSERT_EQ(AParcel_writeString(parcel_.get(), nullptr, -1), STATUS_OK);
  Write(std::vector<uint8_t>{1, 2, 3, 4, 5});
  Write(std::vector<uint8_t>());
  Write(int8_t{-1});
  Write(true);
  Write(std::vector<int32_t>{7, -8});
  aidl::vendor::nuv::orbsyshal_aidl::SetFdResult record;
  record.result = -3;
  record.fdToken = 9;
  Write(record);
  EXPECT_THAT(Words(), testing::ElementsAre(3, 0x620061, 0x63, 0, 0, -1, 5, 0x04030201, 5, 0, -1, 1,
                                            2, 7, -8, 1, 12, -3, 9));
}

TEST_F(NdkParcelTest, LengthsThatLieAreRefusedBeforeAnythingIsAllocated) {
  const auto bytes = ReadFrom<std::vector<uint8_t>>;
  const auto numbers = ReadFrom<std::vector<int32_t>>;
  const auto string = ReadFrom<std::string>;
  const auto handle = ReadFrom<NativeHandle>;
  const struct {
    const char* name;
    std::vector<int32_t> words;
    binder_status_t (*read)(const AParcel*);
    binder_status_t want;
  } kCases[] = {
      {"bytes: null", {-1}, bytes, STATUS_UNEXPECTED_NULL},
      {"bytes: negative", {-2}, bytes, STATUS_BAD_VALUE},
      {"bytes: too many", {INT32_MAX, 0}, bytes, STATUS_NO_MEMORY},
      {"numbers: null", {-1}, numbers, STATUS_UNEXPECTED_NULL},
      {"numbers: too many", {3, 1, 2}, numbers, STATUS_NO_MEMORY},
      {"string: null", {-1}, string, STATUS_UNEXPECTED_NULL},
      {"string: cut off", {9, 0x620061}, string, STATUS_UNEXPECTED_NULL},
      {"parcelable: null", {0}, handle, STATUS_UNEXPECTED_NULL},
      {"parcelable: small size", {1, 3}, handle, STATUS_BAD_VALUE},
      {"parcelable: overflowing size", {1, INT32_MAX}, handle, STATUS_BAD_VALUE},
      {"descriptors: too many", {1, 12, 1 << 28, 0}, handle, STATUS_NOT_ENOUGH_DATA},
      {"descriptors: null", {1, 16, 1, 0}, handle, STATUS_UNEXPECTED_NULL},
      {"no object", {1, 48, 1, 1, 0, 0x66642a85, 0, 0, 0, 0, 0}, handle, STATUS_BAD_TYPE},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    AParcel_reset(parcel_.get());
    for (const int32_t word : c.words) Write(word);
    Rewind();
    EXPECT_EQ(c.read(parcel_.get()), c.want);
  }
}

TEST_F(NdkParcelTest, ParcelablesOfOtherVersionsAreRead) {
  // The first has one field fewer, whose value stays. The second has one more, which is
  // skipped.
  for (const int32_t word : {1, 8, 0, 1, 16, 0, 0, 77, 5}) Write(word);
  Rewind();
  NativeHandle older;
  older.ints = {9};
  EXPECT_THAT(Read(std::move(older)).ints, testing::ElementsAre(9));
  Read<NativeHandle>();
  EXPECT_EQ(Read<int32_t>(), 5);
}

TEST_F(NdkParcelTest, StatusesCrossWithTheirMessage) {
  const struct {
    ScopedAStatus status;
    binder_exception_t exception;
    int32_t specific;
    binder_status_t transport;
  } kCases[] = {
      {ScopedAStatus::ok(), EX_NONE, 0, STATUS_OK},
      {ScopedAStatus::fromExceptionCode(EX_SECURITY), EX_SECURITY, 0, STATUS_OK},
      {ScopedAStatus::fromServiceSpecificErrorWithMessage(42, "\xc3\xbcml\xe4\xb8\xad"),
       EX_SERVICE_SPECIFIC, 42, STATUS_OK},
      {ScopedAStatus::fromStatus(STATUS_DEAD_OBJECT), EX_TRANSACTION_FAILED, 0, STATUS_DEAD_OBJECT},
      {ScopedAStatus::fromStatus(-12345), EX_TRANSACTION_FAILED, 0, STATUS_UNKNOWN_ERROR},
      {ScopedAStatus(), EX_TRANSACTION_FAILED, 0, STATUS_UNEXPECTED_NULL},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.status.getDescription());
    EXPECT_EQ(c.status.getExceptionCode(), c.exception);
    EXPECT_EQ(c.status.getServiceSpecificError(), c.specific);
    EXPECT_EQ(c.status.getStatus(), c.transport);
    if (c.exception == EX_TRANSACTION_FAILED) continue;
    const ScopedAParcel parcel(AParcel_create());
    ScopedAStatus read;
    AParcel_writeStatusHeader(parcel.get(), c.status.get());
    AParcel_setDataPosition(parcel.get(), 0);
    ASSERT_EQ(AParcel_readStatusHeader(parcel.get(), read.getR()), STATUS_OK);
    EXPECT_EQ(read.getDescription(), c.status.getDescription());
  }
}

}  // namespace
