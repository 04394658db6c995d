#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "include/orb_event_log.h"

namespace orb {
namespace {

// Six bytes of every entry as hex, entries apart by a blank.
template <size_t kCount>
std::string Numbers(const kiv_field_s (&table)[kCount]) {
  std::string out;
  for (const kiv_field_s& field : table) {
    uint8_t bytes[sizeof field];
    std::memcpy(bytes, &field, sizeof field);
    if (!out.empty()) out += ' ';
    for (int i = 0; i < 6; ++i) {
      out += "0123456789abcdef"[bytes[i] >> 4];
      out += "0123456789abcdef"[bytes[i] & 15];
    }
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
  const struct {
    const kiv_field_s* table;
    std::vector<const void*> want;
  } cases[] = {
      {KivMessage_fields, {KivHeader_fields, KivPayload_fields, nullptr}},
      {KivHeader_fields, {nullptr, nullptr, nullptr, nullptr, nullptr}},
      {KivPayload_fields, {nullptr, nullptr}},
      {orbtr_Counter_fields, {orbtr_MetaData_fields, nullptr, nullptr}},
      {orbtr_Gauge_fields, {orbtr_MetaData_fields, nullptr, nullptr, nullptr, nullptr}},
      {orbtr_Histogram_fields, {orbtr_MetaData_fields, nullptr, nullptr}},
      {orbtr_Blob_fields, {orbtr_MetaData_fields, nullptr, nullptr}},
      {orbtr_KPIData_fields,
       {nullptr, orbtr_Counter_fields, orbtr_Gauge_fields, orbtr_Histogram_fields,
        orbtr_Blob_fields, nullptr}},
  };
  for (const auto& c : cases) {
    for (size_t i = 0; i < c.want.size(); ++i) {
      const void* const ptr = c.table[i].ptr;  // Packed: compared by value.
      EXPECT_EQ(ptr, c.want[i]) << i;
    }
  }
}

}  // namespace
}  // namespace orb
