#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "include/orb_event_log.h"
#include "tests/support/hex.h"

namespace orb {
namespace {

// Six bytes of every entry as hex, entries apart by a blank.
template <size_t kCount>
std::string Numbers(const kiv_field_s (&table)[kCount]) {
  std::string out;
  for (const kiv_field_s& field : table) {
    if (!out.empty()) out += ' ';
    out += test::ToHex({reinterpret_cast<const char*>(&field), 6});
  }
  return out;
}

TEST(DescriptorTablesTest, EveryByteIsAsPublished) {
  ASSERT_EQ(sizeof(kiv_field_s), 14u);
  ASSERT_EQ(offsetof(kiv_field_s, ptr), 6u);
  constexpr char kEnd[] = " 000000000000";
  EXPECT_EQ(Numbers(KivHeader_fields),
            std::string("011100000400 021100000400 031100000400 041100000400") + kEnd);
  EXPECT_EQ(Numbers(KivPayload_fields), std::string("015500001000") + kEnd);
  EXPECT_EQ(Numbers(KivMessage_fields), std::string("011700001000 021700001000") + kEnd);
  EXPECT_EQ(Numbers(orbtr_MetaData_fields),
            std::string("011100000400 021104000800 031100000800 041100000800 051100000400 "
                        "066104001000") +
                kEnd);
  EXPECT_EQ(Numbers(orbtr_Counter_fields), std::string("011700003800 021100000800") + kEnd);
  EXPECT_EQ(Numbers(orbtr_Gauge_fields),
            std::string("011700003800 023104fc0400 033104fc0400 043304fc0400") + kEnd);
  EXPECT_EQ(Numbers(orbtr_Histogram_fields), std::string("011700003800 026100001000") + kEnd);
  EXPECT_EQ(Numbers(orbtr_Blob_fields), std::string("011700003800 025500001000") + kEnd);
  EXPECT_EQ(Numbers(orbtr_KPIData_fields),
            std::string("011100000400 026704001000 036700001000 046700001000 056700001000") + kEnd);
}

TEST(DescriptorTablesTest, SubMessagesPointToTheirTables) {
  const std::vector<std::pair<kiv_field_s, const void*>> cases = {
      {KivMessage_fields[0], KivHeader_fields},
      {KivMessage_fields[1], KivPayload_fields},
      {KivHeader_fields[0], nullptr},
      {KivPayload_fields[0], nullptr},
      {orbtr_Counter_fields[0], orbtr_MetaData_fields},
      {orbtr_Gauge_fields[0], orbtr_MetaData_fields},
      {orbtr_Histogram_fields[0], orbtr_MetaData_fields},
      {orbtr_Blob_fields[0], orbtr_MetaData_fields},
      {orbtr_KPIData_fields[1], orbtr_Counter_fields},
      {orbtr_KPIData_fields[2], orbtr_Gauge_fields},
      {orbtr_KPIData_fields[3], orbtr_Histogram_fields},
      {orbtr_KPIData_fields[4], orbtr_Blob_fields},
  };
  for (const auto& [field, want] : cases) {
    const void* const ptr = field.ptr;  // Packed: compared by value.
    EXPECT_EQ(ptr, want);
  }
}

}  // namespace
}  // namespace orb
