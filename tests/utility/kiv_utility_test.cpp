// Event records: hashes, truncation and bytes, read back from the event log by
// the full schema.
#include <android/log.h>
#include <gtest/gtest.h>
#include <pb_encode.h>

#include <algorithm>
#include <array>
#include <cstdlib>

#include "include/orb_event_log.h"
#include "proto/event_record.pb.h"
#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"
#include "tests/utility/event_dump.h"

namespace orb {
namespace {

constexpr char kTag[] = "ORBEventLogger";
const std::string kHi = "hi";

const uint8_t* Bytes(const std::string& text) {
  return reinterpret_cast<const uint8_t*>(text.data());
}

uint32_t Hash(const std::string& text) { return KIVCommonHashFn(Bytes(text), text.size()); }

// An event log of the test's own.
class EventLogTest : public testing::Test {
 protected:
  EventLogTest() { setenv("ORB_EVENT_LOG", path_.c_str(), 1); }
  ~EventLogTest() override { unsetenv("ORB_EVENT_LOG"); }

  // The bytes of the only entry, with the zeros that fill its last word.
  std::string OnlyEntry() {
    const std::vector<DumpEntry> entries = ParseDump(test::ReadFileOrEmpty(path_));
    EXPECT_EQ(entries.size(), 1u);
    return entries.empty() ? "" : entries[0].bytes;
  }
  // The only record; its last byte is not zero, unlike the fill behind it.
  orb_event::KivMessage OnlyRecord() {
    std::string bytes = OnlyEntry();
    EXPECT_EQ(bytes.size() % 4, 0u);
    const size_t end = bytes.find_last_not_of('\0') + 1;
    EXPECT_LT(bytes.size() - end, 4u);
    orb_event::KivMessage record;
    EXPECT_TRUE(record.ParseFromString(bytes.substr(0, end)));
    return record;
  }

  test::TempDir dir_;
  const std::string path_ = dir_.path() + "/events.bin";
  LogCapture log_;
};

TEST(HashTest, IsFnvCutTo30Bits) {
  const struct {
    std::string text;
    uint32_t want;
  } cases[] = {
      {"", 18652613},
      {"a", 0x240C292C},
      {"foobar", 0xBF9CF968 & 0x3FFFFFFF},
      {std::string("\xFF\x00", 2), ((0x811C9DC5u ^ 0xFF) * 16777619u * 16777619u) & 0x3FFFFFFF},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Hash(c.text), c.want) << c.text;
    isDebugBuild = true;
    EXPECT_EQ(Hash(c.text), c.want | 0x40000000) << c.text;
    isDebugBuild = false;
  }
  EXPECT_EQ(KIVCommonHashFn(nullptr, 0), 18652613u);
  EXPECT_STREQ(event_payload_file, "/data/vendor/orb/decoded_sessions/event_payload.dat");
}

TEST_F(EventLogTest, RecordHasHashesAndPayload) {
  ORBEventLog(7, "modem", "attach", Bytes("abc"), 3);
  EXPECT_TRUE(log_.Has(ANDROID_LOG_VERBOSE, kTag,
                       "Logging from Module modem, eventId attach, type 7, payloadSize 3"))
      << log_.Dump();
  const orb_event::KivMessage record = OnlyRecord();
  EXPECT_EQ(record.header().module_id(), Hash("modem"));
  EXPECT_EQ(record.header().event_id(), Hash("attach"));
  EXPECT_EQ(record.header().type(), 7u);
  EXPECT_EQ(record.header().payload_size(), 3u);
  EXPECT_EQ(record.payload().data(), "abc");
  EXPECT_EQ(log_.Lines().size(), 1u) << log_.Dump();
}

TEST_F(EventLogTest, NeedsAllThreePointers) {
  ORBEventLog(7, nullptr, "attach", Bytes("abc"), 3);
  ORBEventLog(7, "modem", nullptr, Bytes("abc"), 3);
  ORBEventLog(7, "modem", "attach", nullptr, 3);
  EXPECT_EQ(test::ReadFileOrEmpty(path_), "");
  EXPECT_TRUE(log_.Lines().empty()) << log_.Dump();
}

TEST_F(EventLogTest, PayloadIsCutAt32Bytes) {
  const std::string data = "0123456789abcdefghijklmnopqrstuvwxyz";
  for (const size_t size : {31u, 32u, 33u, 36u}) {
    SCOPED_TRACE(size);
    log_.Clear();
    std::remove(path_.c_str());
    kiv_event_log(1, 2, 3, Bytes(data), size);
    const size_t kept = std::min<size_t>(size, 32);
    const orb_event::KivMessage record = OnlyRecord();
    EXPECT_EQ(record.header().payload_size(), size);
    EXPECT_EQ(record.payload().data(), data.substr(0, kept));
    EXPECT_EQ(log_.Has(ANDROID_LOG_INFO, kTag,
                       "Payload size exceeds max limit. Truncating it to 32 bytes"),
              size > 32)
        << log_.Dump();
  }
}

TEST_F(EventLogTest, NullPayloadKeepsItsSize) {
  kiv_event_log(1, 2, 3, nullptr, 5);
  EXPECT_EQ(OnlyEntry(), std::string("\x0a\x08\x08\x02\x10\x03\x18\x01\x20\x05\0\0", 12));
}

TEST_F(EventLogTest, ThirteenBytesTakeFourWords) {
  log_buffer_as_int32(Bytes("0123456789abc"), 13);
  EXPECT_EQ(OnlyEntry(), std::string("0123456789abc\0\0\0", 16));
  log_buffer_as_int32(nullptr, 13);
  log_buffer_as_int32(Bytes("x"), 0);
  EXPECT_EQ(ParseDump(test::ReadFileOrEmpty(path_)).size(), 1u);
}

TEST_F(EventLogTest, EncodedBytesAreGolden) {
  KivMessage message = {};
  EXPECT_EQ(kiv_log_writeHeader(nullptr, 1, 2, 3, 4), 0);
  EXPECT_EQ(kiv_log_writeHeader(&message.header, 300, 0, 1, 2), 1);
  KivByteBuffer payload = {2, Bytes(kHi)};
  const std::string header("\x0a\x07\x08\xac\x02\x18\x01\x20\x02", 9);  // No zero fields.
  const struct {
    const char* name;
    KivCallback callback;
    uint64_t length;
    std::string want;
  } cases[] = {
      {"payload", {encode_payload_callback, &payload}, 2, header + "\x12\x04\x0a\x02hi"},
      {"empty payload", {encode_payload_callback, &payload}, 0, header + std::string("\x12\0", 2)},
      {"no argument", {encode_payload_callback, nullptr}, 2, header + std::string("\x12\0", 2)},
      {"no callback", {nullptr, nullptr}, 2, header},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    message.payload.data = c.callback;
    payload.length = c.length;
    std::array<uint8_t, 200> out{};
    size_t written = 0;
    EXPECT_TRUE(kiv_log_encode(&message, out.data(), out.size(), &written));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(out.data()), written), c.want);
    EXPECT_TRUE(log_.Lines().empty()) << log_.Dump();
  }
}

TEST_F(EventLogTest, ShortBufferFails) {
  KivByteBuffer payload = {2, Bytes(kHi)};
  KivMessage message = {{300, 0, 1, 2}, {{encode_payload_callback, &payload}}};
  uint8_t out[12];
  size_t written = 99;
  EXPECT_FALSE(kiv_log_encode(&message, out, sizeof out, &written));
  EXPECT_EQ(written, 11u);  // Header, and the payload's tag and length.
  EXPECT_FALSE(kiv_log_encode(nullptr, out, sizeof out, &written));
  EXPECT_EQ(written, 0u);
}

TEST_F(EventLogTest, CallbackRefusesExtensionsAndFullStreams) {
  KivByteBuffer payload = {2, Bytes(kHi)};
  void* const arg = &payload;
  uint8_t out[16];
  const struct {
    pb_type_t type;
    size_t room;
    const char* error;
  } cases[] = {{PB_LTYPE_BYTES, 16, "(none)"},
               {PB_LTYPE_UVARINT, 16, "(none)"},
               {PB_LTYPE_EXTENSION, 16, "invalid field type"},
               {PB_LTYPE_BYTES, 3, "stream full"}};
  for (const auto& c : cases) {
    log_.Clear();
    pb_ostream_t stream = pb_ostream_from_buffer(out, c.room);
    pb_field_iter_t field = {};
    field.tag = 1;
    field.type = c.type;
    const bool accepted = c.error[0] == '(';
    EXPECT_EQ(encode_payload_callback(&stream, &field, &arg), accepted);
    EXPECT_STREQ(PB_GET_ERROR(&stream), c.error);
    EXPECT_EQ(log_.Has(ANDROID_LOG_INFO, kTag, "Encoding the payload callback : Failed"),
              !accepted);
  }
}

TEST(ConvertTest, LastWordIsFilledWithZeros) {
  const std::string bytes = "abcdef";
  int32_t words[3] = {-1, -1, -1};
  EXPECT_EQ(convertBytestoInt32Array(Bytes(bytes), bytes.size(), words), 2u);
  EXPECT_EQ(std::memcmp(words, "abcdef\0\0\xff", 9), 0);
  EXPECT_EQ(convertBytestoInt32Array(nullptr, 4, words), 0u);
  EXPECT_EQ(convertBytestoInt32Array(Bytes(bytes), 0, words), 0u);
  EXPECT_EQ(convertBytestoInt32Array(Bytes(bytes), 4, nullptr), 0u);
}

}  // namespace
}  // namespace orb
