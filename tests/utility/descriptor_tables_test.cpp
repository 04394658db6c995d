#include <gtest/gtest.h>

#include <map>
#include <string>

#include "include/orb_event_log.h"
#include "tests/support/hex.h"

namespace orb {
namespace {

const std::map<const void*, std::string> kTableNames = {{nullptr, ""},
                                                        {KivHeader_fields, "=KivHeader"},
                                                        {KivPayload_fields, "=KivPayload"},
                                                        {orbtr_MetaData_fields, "=MetaData"},
                                                        {orbtr_Counter_fields, "=Counter"},
                                                        {orbtr_Gauge_fields, "=Gauge"},
                                                        {orbtr_Histogram_fields, "=Histogram"},
                                                        {orbtr_Blob_fields, "=Blob"}};

// Six bytes of every entry as hex and the table of its sub-message, entries apart by a blank.
template <size_t kCount>
std::string Text(const kiv_field_s (&table)[kCount]) {
  std::string out;
  for (const kiv_field_s& field : table) {
    const void* const sub_table = field.ptr;  // Packed: by value.
    out += out.empty() ? "" : " ";
    out += test::ToHex({reinterpret_cast<const char*>(&field), 6}) + kTableNames.at(sub_table);
  }
  return out;
}

TEST(DescriptorTablesTest, EveryByteIsAsPublished) {
  ASSERT_EQ(sizeof(kiv_field_s), 14u);
  ASSERT_EQ(offsetof(kiv_field_s, ptr), 6u);
  EXPECT_EQ(Text(KivHeader_fields),
            "011100000400 021100000400 031100000400 041100000400 000000000000");
  EXPECT_EQ(Text(KivPayload_fields), "015500001000 000000000000");
  EXPECT_EQ(Text(KivMessage_fields), "011700001000=KivHeader 021700001000=KivPayload 000000000000");
  EXPECT_EQ(Text(orbtr_MetaData_fields),
            "011100000400 021104000800 031100000800 041100000800 051100000400 066104001000 "
            "000000000000");
  EXPECT_EQ(Text(orbtr_Counter_fields), "011700003800=MetaData 021100000800 000000000000");
  EXPECT_EQ(Text(orbtr_Gauge_fields),
            "011700003800=MetaData 023104fc0400 033104fc0400 043304fc0400 000000000000");
  EXPECT_EQ(Text(orbtr_Histogram_fields), "011700003800=MetaData 026100001000 000000000000");
  EXPECT_EQ(Text(orbtr_Blob_fields), "011700003800=MetaData 025500001000 000000000000");
  EXPECT_EQ(Text(orbtr_KPIData_fields),
            "011100000400 026704001000=Counter 036700001000=Gauge 046700001000=Histogram "
            "056700001000=Blob 000000000000");
}

}  // namespace
}  // namespace orb
