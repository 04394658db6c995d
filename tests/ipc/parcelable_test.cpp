#include <binder/Parcel.h>
#include <gtest/gtest.h>
#include <utils/Errors.h>

#include "ipc/KIVCampConfig.h"
#include "ipc/KIVClientId.h"
#include "ipc/KIVClientInfo.h"
#include "tests/support/parcel_hex.h"

using android::Parcel;
using android::statusToString;
using orb::test::Compact;
using orb::test::Fill;
using orb::test::ToHex;

namespace {

LicInfo MakeLicInfo(int64_t licSN, int32_t s, int32_t p, const std::string& key) {
  LicInfo info;
  info.licSN = licSN;
  info.sKeyEncAlgo = s;
  info.pKeyEncAlgo = p;
  info.encryptionPKey.assign(key.begin(), key.end());
  return info;
}

template <typename T>
void ExpectGolden(const T& value, const std::string& hex) {
  SCOPED_TRACE(hex);
  Parcel parcel;
  ASSERT_EQ(value.writeToParcel(&parcel), android::OK);
  EXPECT_EQ(ToHex(parcel), Compact(hex));

  Parcel received;
  Fill(&received, hex);
  T read;
  ASSERT_EQ(read.readFromParcel(&received), android::OK);
  EXPECT_TRUE(read == value);
  EXPECT_EQ(received.dataAvail(), 0u);
}

TEST(ParcelableTest, GoldenBytes) {
  ExpectGolden(MakeLicInfo(0x0102030405060708, 2, 1, "PEM\n!"),
               "20000000 0807060504030201 02000000 01000000 05000000 50454d0a21000000");
  ExpectGolden(LicInfo(), "18000000 0000000000000000 00000000 00000000 00000000");

  KIVCampConfig config;
  ExpectGolden(config, "14000000 0000000000000000 00000000 00000000");
  config.campId = 77;
  config.campaignDef = {10, 11, 12};
  config.licInfo.push_back(MakeLicInfo(-1, 0, 0, ""));
  ExpectGolden(config,
               "34000000 4d00000000000000 03000000 0a0b0c00 01000000"
               "01000000 18000000 ffffffffffffffff 00000000 00000000 00000000");

  KIVClientId id;
  ExpectGolden(id, "10000000 00000000 00000000 00000000");
  id.token = "tok";
  id.clientId = 42;
  ExpectGolden(id, "14000000 03000000 74006f006b000000 2a000000");

  KIVClientInfo info;
  info.clientName = "\xc3\xa9\xf0\x9f\x98\x80";  // Two and four bytes of UTF-8.
  info.clientType = 2;
  info.clientOption = -1;
  ExpectGolden(info, "18000000 03000000 e9003dd800de0000 02000000 ffffffff");
}

// Bytes from a peer, and the status of reading them or what was read.
struct Received {
  const char* name;
  std::string hex;
  const char* want;
};

TEST(ParcelableTest, DamagedClientInfo) {
  const Received kCases[] = {
      {"nothing", "", "NOT_ENOUGH_DATA"},
      {"negative size", "ffffffff", "BAD_VALUE"},
      {"size below its own width", "03000000 00000000", "BAD_VALUE"},
      {"largest size", "ffffff7f 01000000 61000000 07000000", "NOT_ENOUGH_DATA"},
      {"name cut off", "18000000 03000000 6100", "NOT_ENOUGH_DATA"},
      {"type cut off", "18000000 01000000 61000000", "NOT_ENOUGH_DATA"},
      {"option cut off", "18000000 01000000 61000000 07000000", "NOT_ENOUGH_DATA"},
      {"no field", "04000000 01000000 61000000", " 0 0 at 4"},
      {"name only", "0c000000 01000000 61000000 07000000 05000000", "a 0 0 at 12"},
      {"fields of a newer peer", "1c000000 01000000 61000000 07000000 05000000 11111111 22222222",
       "a 7 5 at 28"},
  };
  for (const Received& c : kCases) {
    SCOPED_TRACE(c.name);
    Parcel parcel;
    Fill(&parcel, c.hex);
    KIVClientInfo info;
    const android::status_t status = info.readFromParcel(&parcel);
    const std::string read = info.clientName + " " + std::to_string(info.clientType) + " " +
                             std::to_string(info.clientOption) + " at " +
                             std::to_string(parcel.dataPosition());
    EXPECT_EQ(status == android::OK ? read : statusToString(status), c.want);
  }
  Parcel parcel;
  Fill(&parcel, "00000000 fcffff7f");
  parcel.setDataPosition(4);
  EXPECT_EQ(KIVClientInfo().readFromParcel(&parcel), android::BAD_VALUE)
      << "its end lies past the largest position";
}

TEST(ParcelableTest, DamagedLicInfoArray) {
  const Received kCases[] = {
      {"null array", "ffffffff", "UNEXPECTED_NULL"},
      {"more elements than bytes", "05000000 00000000", "BAD_VALUE"},
      {"huge count", "ffffff7f 01000000 18000000", "BAD_VALUE"},
      {"null element", "01000000 00000000", "UNEXPECTED_NULL"},
      {"unknown marker", "01000000 02000000 04000000", "UNEXPECTED_NULL"},
      {"size of an element", "01000000 01000000 03000000", "BAD_VALUE"},
      {"element cut off", "01000000 01000000 18000000 01000000", "NOT_ENOUGH_DATA"},
      {"element without fields", "01000000 01000000 04000000", "1"},
  };
  for (const Received& c : kCases) {
    SCOPED_TRACE(c.name);
    Parcel parcel;
    Fill(&parcel, "64000000 0100000000000000 00000000" + c.hex);
    KIVCampConfig config;
    const android::status_t status = config.readFromParcel(&parcel);
    EXPECT_EQ(
        status == android::OK ? std::to_string(config.licInfo.size()) : statusToString(status),
        c.want);
  }
}

// A size that lies about what follows must not take the reader with it.
TEST(ParcelableTest, SizeBeyondTheParcelLeavesNothingToRead) {
  Parcel parcel;
  Fill(&parcel, "00ffff7f 01000000 61000000 2a000000");
  KIVClientId id;
  ASSERT_EQ(id.readFromParcel(&parcel), android::OK);
  EXPECT_EQ(id.clientId, 42);
  EXPECT_EQ(parcel.dataAvail(), 0u);
}

}  // namespace
