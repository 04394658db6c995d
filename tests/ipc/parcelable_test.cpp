#include <binder/Parcel.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "ipc/KIVCampConfig.h"
#include "ipc/KIVClientId.h"
#include "ipc/KIVClientInfo.h"
#include "ipc/LicInfo.h"
#include "tests/support/parcel_hex.h"

using android::BAD_VALUE;
using android::NOT_ENOUGH_DATA;
using android::OK;
using android::Parcel;
using android::status_t;
using android::UNEXPECTED_NULL;
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
  Parcel parcel;
  ASSERT_EQ(value.writeToParcel(&parcel), OK);
  EXPECT_EQ(ToHex(parcel), Compact(hex));

  Parcel received;
  Fill(&received, hex);
  T read;
  ASSERT_EQ(read.readFromParcel(&received), OK);
  EXPECT_TRUE(read == value);
  EXPECT_EQ(received.dataAvail(), 0u);
}

TEST(ParcelableTest, GoldenBytes) {
  {
    SCOPED_TRACE("LicInfo");
    ExpectGolden(MakeLicInfo(0x0102030405060708, 2, 1, "PEM\n!"),
                 "20000000 0807060504030201 02000000 01000000 05000000 50454d0a21000000");
    ExpectGolden(LicInfo(), "18000000 0000000000000000 00000000 00000000 00000000");
  }
  {
    SCOPED_TRACE("KIVCampConfig");
    KIVCampConfig config;
    ExpectGolden(config, "14000000 0000000000000000 00000000 00000000");
    config.campId = 77;
    config.campaignDef = {10, 11, 12};
    config.licInfo.push_back(MakeLicInfo(-1, 0, 0, ""));
    ExpectGolden(config,
                 "34000000 4d00000000000000 03000000 0a0b0c00 01000000"
                 "01000000 18000000 ffffffffffffffff 00000000 00000000 00000000");
  }
  {
    SCOPED_TRACE("KIVClientId");
    KIVClientId id;
    id.token = "tok";
    id.clientId = 42;
    ExpectGolden(id, "14000000 03000000 74006f006b000000 2a000000");
    ExpectGolden(KIVClientId(), "10000000 00000000 00000000 00000000");
  }
  {
    SCOPED_TRACE("KIVClientInfo");
    KIVClientInfo info;
    info.clientName = "\xc3\xa9\xf0\x9f\x98\x80";  // Two and four bytes of UTF-8.
    info.clientType = 2;
    info.clientOption = -1;
    ExpectGolden(info, "18000000 03000000 e9003dd800de0000 02000000 ffffffff");
  }
}

// A parcelable in a parcel of hex bytes, read from byte `start`.
struct Damaged {
  const char* name;
  const char* hex;
  size_t start;
  status_t want;
  size_t want_position;  // After OK.
};

const Damaged kClientInfos[] = {
    {"nothing", "", 0, NOT_ENOUGH_DATA, 0},
    {"negative size", "ffffffff", 0, BAD_VALUE, 0},
    {"size below its own width", "03000000 00000000", 0, BAD_VALUE, 0},
    {"end past the largest position", "00000000 fcffff7f", 4, BAD_VALUE, 0},
    {"largest size", "ffffff7f 01000000 61000000 07000000", 0, NOT_ENOUGH_DATA, 0},
    {"name cut off", "18000000 03000000 6100", 0, NOT_ENOUGH_DATA, 0},
    {"type cut off", "18000000 01000000 61000000", 0, NOT_ENOUGH_DATA, 0},
    {"option cut off", "18000000 01000000 61000000 07000000", 0, NOT_ENOUGH_DATA, 0},
    {"no field", "04000000 01000000 61000000", 0, OK, 4},
    {"name only", "0c000000 01000000 61000000 07000000 05000000", 0, OK, 12},
    {"fields of a newer peer", "1c000000 01000000 61000000 07000000 05000000 11111111 22222222", 0,
     OK, 28},
};

TEST(ParcelableTest, DamagedClientInfo) {
  for (const Damaged& c : kClientInfos) {
    SCOPED_TRACE(c.name);
    Parcel parcel;
    Fill(&parcel, c.hex);
    parcel.setDataPosition(c.start);
    KIVClientInfo info;
    ASSERT_EQ(info.readFromParcel(&parcel), c.want);
    if (c.want != OK) continue;
    EXPECT_EQ(parcel.dataPosition(), c.want_position);
    const bool has_name = c.want_position > 4;
    const bool has_rest = c.want_position > 12;
    EXPECT_EQ(info.clientName, has_name ? "a" : "");
    EXPECT_EQ(info.clientType, has_rest ? 7 : 0);
    EXPECT_EQ(info.clientOption, has_rest ? 5 : 0);
  }
}

// What follows campId and campaignDef in a config.
const Damaged kLicInfoArrays[] = {
    {"null array", "ffffffff", 0, UNEXPECTED_NULL, 0},
    {"more elements than bytes", "05000000 00000000", 0, BAD_VALUE, 0},
    {"huge count", "ffffff7f 01000000 18000000", 0, BAD_VALUE, 0},
    {"null element", "01000000 00000000", 0, UNEXPECTED_NULL, 0},
    {"unknown marker", "01000000 02000000 04000000", 0, UNEXPECTED_NULL, 0},
    {"size of an element", "01000000 01000000 03000000", 0, BAD_VALUE, 0},
    {"element cut off", "01000000 01000000 18000000 01000000", 0, NOT_ENOUGH_DATA, 0},
    {"element without fields", "01000000 01000000 04000000", 0, OK, 0},
};

TEST(ParcelableTest, DamagedLicInfoArray) {
  for (const Damaged& c : kLicInfoArrays) {
    SCOPED_TRACE(c.name);
    Parcel parcel;
    Fill(&parcel, std::string("64000000 0100000000000000 00000000") + c.hex);
    KIVCampConfig config;
    EXPECT_EQ(config.readFromParcel(&parcel), c.want);
    EXPECT_EQ(config.licInfo.size(), c.want == OK ? 1u : config.licInfo.size());
  }
}

// A size that lies about what follows must not take the reader with it.
TEST(ParcelableTest, SizeBeyondTheParcelLeavesNothingToRead) {
  Parcel parcel;
  Fill(&parcel, "00ffff7f 01000000 61000000 2a000000");
  KIVClientId id;
  ASSERT_EQ(id.readFromParcel(&parcel), OK);
  EXPECT_EQ(id.clientId, 42);
  int32_t more = 0;
  EXPECT_EQ(parcel.readInt32(&more), NOT_ENOUGH_DATA);
  EXPECT_EQ(parcel.dataAvail(), 0u);
}

}  // namespace
