// The bytes of parcels and statuses, and how readers refuse broken ones.
#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <binder/Status.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "tests/support/parcel_hex.h"

namespace {

using android::BBinder;
using android::IBinder;
using android::Parcel;
using android::sp;
using android::String16;
using android::binder::Status;
using orb::test::Compact;
using orb::test::Fill;
using orb::test::ToHex;

TEST(ParcelTest, WritesTheBytesOfThePlatform) {
  Parcel p;
  p.writeBool(true);
  p.writeByte(-2);
  p.writeInt64(0x0102030405060708);
  p.writeUtf8AsUtf16(std::string());
  p.writeString16(String16("tok"));
  p.writeUtf8AsUtf16(std::string("\xf0\x9f\x98\x80"));
  p.writeUtf8AsUtf16(std::optional<std::string>());
  p.writeByteVector(std::vector<uint8_t>{1, 2, 3, 4, 5});
  p.writeByteVector(std::vector<uint8_t>());
  p.write(nullptr, 0);
  p.writeStrongBinder(sp<IBinder>());
  Status::ok().writeToParcel(&p);
  Status::fromExceptionCode(Status::EX_SECURITY, "n").writeToParcel(&p);
  Status::fromServiceSpecificError(7, "n").writeToParcel(&p);
  EXPECT_EQ(ToHex(p), Compact("01000000 feffffff 0807060504030201 00000000 00000000"
                              "03000000 74006f00 6b000000"
                              "02000000 3dd800de 00000000"
                              "ffffffff"
                              "05000000 01020304 05000000"
                              "00000000"
                              "852a6273 13000000 00000000 00000000 00000000 00000000 00000000"
                              "00000000"
                              "ffffffff 01000000 6e000000 00000000"
                              "f8ffffff 01000000 6e000000 00000000 07000000"));
}

TEST(ParcelTest, ReadersRefuseBrokenData) {
  const auto string = [](const Parcel& p) {
    std::string out;
    return p.readUtf8FromUtf16(&out);
  };
  const auto bytes = [](const Parcel& p) {
    std::vector<uint8_t> out;
    return p.readByteVector(&out);
  };
  const auto binder = [](const Parcel& p) {
    sp<IBinder> out;
    return p.readStrongBinder(&out);
  };
  const auto number = [](const Parcel& p) {
    int64_t out;
    return p.readInt64(&out);
  };
  const auto status = [](const Parcel& p) { return Status().readFromParcel(p); };
  const std::string null_binder = "852a6273 13000000 00000000 00000000 00000000 00000000 00000000";
  const struct {
    const char* name;
    std::string hex;
    std::function<android::status_t(const Parcel&)> read;
    const char* want;
  } kCases[] = {
      {"short number", "01000000", number, "NOT_ENOUGH_DATA"},
      {"huge string", "ffffff7f 61006200", string, "UNEXPECTED_NULL"},
      {"string without end", "01000000 61006200", string, "UNEXPECTED_NULL"},
      {"null string", "ffffffff", string, "UNEXPECTED_NULL"},
      {"null bytes", "ffffffff", bytes, "UNEXPECTED_NULL"},
      {"too many bytes", "05000000 01020304", bytes, "BAD_VALUE"},
      {"null binder", null_binder, binder, "UNEXPECTED_NULL"},
      {"forged binder", "852a6273 13010000 11111111 00000000 22222222 00000000 0c000000", binder,
       "BAD_TYPE"},
      {"half a binder", "852a6273 13010000", binder, "BAD_TYPE"},
      {"status of nothing", "", status, "NOT_ENOUGH_DATA"},
      {"trace past the end", "ffffffff 00000000 00000000 40000000", status, "UNKNOWN_ERROR"},
      {"header past the end", "80ffffff 40000000", status, "UNKNOWN_ERROR"},
      {"header then fine", "80ffffff 08000000 00000000", status, "OK"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Parcel parcel;
    Fill(&parcel, c.hex);
    EXPECT_THAT(android::statusToString(c.read(parcel)), testing::StartsWith(c.want));
  }
}

TEST(ParcelTest, ObjectsAreNeitherReadAsDataNorKeptWhenOverwritten) {
  const sp<IBinder> object(new BBinder());
  Parcel parcel;
  parcel.writeStrongBinder(object);
  EXPECT_EQ(object->getStrongCount(), 2);
  parcel.setDataPosition(0);
  int32_t value = 0;
  EXPECT_EQ(parcel.readInt32(&value), android::PERMISSION_DENIED);
  parcel.setDataPosition(8);
  EXPECT_EQ(parcel.readInt32(&value), android::PERMISSION_DENIED);
  parcel.setDataPosition(4);
  parcel.writeInt32(1);
  EXPECT_EQ(object->getStrongCount(), 1);
  EXPECT_EQ(parcel.objectsCount(), 0u);
}

TEST(StatusTest, TransportErrorIsNoException) {
  const Status dead = Status::fromStatusT(android::DEAD_OBJECT);
  EXPECT_EQ(dead.exceptionCode(), Status::EX_TRANSACTION_FAILED);
  EXPECT_EQ(dead.transactionError(), android::DEAD_OBJECT);
  EXPECT_STREQ(dead.toString8().c_str(), "Status(-129, EX_TRANSACTION_FAILED): 'DEAD_OBJECT: '");
  Parcel parcel;
  EXPECT_EQ(dead.writeToParcel(&parcel), android::DEAD_OBJECT);
  EXPECT_EQ(parcel.dataSize(), 0u);
}

}  // namespace
