#include <binder/Parcel.h>
#include <gtest/gtest.h>
#include <utils/Errors.h>

#include "ipc/KIVCampConfig.h"
#include "ipc/KIVClientInfo.h"
#include "tests/support/parcel_hex.h"

using android::Parcel;
using android::statusToString;
using orb::test::Fill;

namespace {

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
      {"name cut off", "18000000 03000000 6100", "UNEXPECTED_NULL"},
      {"option cut off", "18000000 01000000 61000000 07000000", "NOT_ENOUGH_DATA"},
      {"name only", "0c000000 01000000 61000000 07000000 05000000", "a 0 0, 8 left"},
      {"fields of a newer peer", "1c000000 01000000 61000000 07000000 05000000 11111111 22222222",
       "a 7 5, 0 left"},
      {"size beyond the parcel", "ffffff7f 01000000 61000000 07000000 05000000", "a 7 5, 0 left"},
  };
  for (const Received& c : kCases) {
    SCOPED_TRACE(c.name);
    Parcel parcel;
    Fill(&parcel, c.hex);
    KIVClientInfo info;
    const android::status_t status = info.readFromParcel(&parcel);
    const std::string read = info.clientName + " " + std::to_string(info.clientType) + " " +
                             std::to_string(info.clientOption) + ", " +
                             std::to_string(parcel.dataAvail()) + " left";
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
      {"huge count", "ffffff7f 01000000 18000000", "BAD_VALUE"},
      {"null element", "01000000 00000000", "UNEXPECTED_NULL"},
      {"unknown marker", "01000000 02000000 04000000", "UNEXPECTED_NULL"},
  };
  for (const Received& c : kCases) {
    SCOPED_TRACE(c.name);
    Parcel parcel;
    Fill(&parcel, "64000000 0100000000000000 00000000" + c.hex);
    KIVCampConfig config;
    EXPECT_EQ(statusToString(config.readFromParcel(&parcel)), c.want);
  }
}

}  // namespace
