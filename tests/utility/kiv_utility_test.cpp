// Event records: hashes, truncation and bytes, read back from the event log by
// the full schema.
#include <gtest/gtest.h>
#include <pb_encode.h>

#include <algorithm>
#include <cstdlib>

#include "include/orb_event_log.h"
#include "proto/event_record.pb.h"
#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"
#include "tests/utility/event_dump.h"

namespace orb {
namespace {

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

  // The bytes of the only entry, with the zeros that fill its last word; "" without an entry.
  std::string OnlyEntry() {
    const std::vector<DumpEntry> entries = ParseDump(test::ReadFileOrEmpty(path_));
    EXPECT_LE(entries.size(), 1u);
    return entries.empty() ? "" : entries[0].bytes;
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

TEST_F(EventLogTest, RecordHasHashesAndAtMost32BytesOfThePayload) {
  const std::string data = "0123456789abcdefghijklmnopqrstuvwxyz";
  for (const size_t size : {3u, 31u, 32u, 33u, 36u}) {
    SCOPED_TRACE(size);
    log_.Clear();
    std::remove(path_.c_str());
    ORBEventLog(7, "modem", "attach", Bytes(data), size);
    const std::string entry = OnlyEntry();
    const size_t end = entry.find_last_not_of('\0') + 1;  // Unlike the fill no record ends so.
    EXPECT_EQ(entry.size(), (end + 3) / 4 * 4);
    orb_event::KivMessage record;
    EXPECT_TRUE(record.ParseFromString(entry.substr(0, end)));
    EXPECT_EQ(record.header().module_id(), Hash("modem"));
    EXPECT_EQ(record.header().event_id(), Hash("attach"));
    EXPECT_EQ(record.header().type(), 7u);
    EXPECT_EQ(record.header().payload_size(), size);
    EXPECT_EQ(record.payload().data(), data.substr(0, std::min<size_t>(size, 32)));
    EXPECT_EQ(log_.Dump(),
              "2 ORBEventLogger: Logging from Module modem, eventId attach, type 7, payloadSize " +
                  std::to_string(size) + "\n" +
                  (size <= 32 ? ""
                              : "4 ORBEventLogger: Payload size exceeds max limit. Truncating it "
                                "to 32 bytes\n"));
  }
}

TEST_F(EventLogTest, NothingGivesNothing) {
  ORBEventLog(7, nullptr, "attach", Bytes(kHi), 2);
  ORBEventLog(7, "modem", nullptr, Bytes(kHi), 2);
  ORBEventLog(7, "modem", "attach", nullptr, 2);
  log_buffer_as_int32(nullptr, 13);
  log_buffer_as_int32(Bytes(kHi), 0);
  EXPECT_EQ(OnlyEntry(), "");
  EXPECT_EQ(log_.Dump(), "");
  kiv_event_log(1, 2, 3, nullptr, 5);  // A payload may be none, and keeps its size.
  EXPECT_EQ(OnlyEntry(), std::string("\x0a\x08\x08\x02\x10\x03\x18\x01\x20\x05\0\0", 12));
}

TEST_F(EventLogTest, EncodedBytesAreGolden) {
  KivMessage message = {};
  EXPECT_EQ(kiv_log_writeHeader(nullptr, 1, 2, 3, 4), 0);
  EXPECT_EQ(kiv_log_writeHeader(&message.header, 300, 0, 1, 2), 1);
  KivByteBuffer payload = {2, Bytes(kHi)};
  const std::string header("\x0a\x07\x08\xac\x02\x18\x01\x20\x02", 9);  // No zero fields.
  const std::string empty = header + std::string("\x12\0", 2);
  const struct {
    const char* name;
    KivCallback callback;
    uint64_t length;
    size_t room;
    std::string want;
  } cases[] = {
      {"payload", {encode_payload_callback, &payload}, 2, 200, header + "\x12\x04\x0a\x02hi"},
      {"empty payload", {encode_payload_callback, &payload}, 0, 200, empty},
      {"no argument", {encode_payload_callback, nullptr}, 2, 200, empty},
      {"no callback", {nullptr, nullptr}, 2, 200, header},
      {"short of room", {encode_payload_callback, &payload}, 2, 12, header + "\x12\x04"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    message.payload.data = c.callback;
    payload.length = c.length;
    std::string out(c.room, '?');
    size_t written = 99;
    EXPECT_EQ(kiv_log_encode(&message, reinterpret_cast<uint8_t*>(out.data()), c.room, &written),
              c.room == 200);
    EXPECT_EQ(out.substr(0, written), c.want);
    EXPECT_FALSE(kiv_log_encode(nullptr, reinterpret_cast<uint8_t*>(out.data()), c.room, &written));
    EXPECT_EQ(written, 0u);
  }
  uint8_t out[8];
  size_t written = 99;
  EXPECT_TRUE(kiv_log_encode(&(message = {}), out, sizeof out, &written));
  EXPECT_EQ(written, 0u) << "nothing but zeros is not written";
}

TEST_F(EventLogTest, CallbackTellsOfAFullStream) {
  KivByteBuffer payload = {2, Bytes(kHi)};
  void* const arg = &payload;
  uint8_t out[3];
  pb_ostream_t stream = pb_ostream_from_buffer(out, sizeof out);
  pb_field_iter_t field = {};
  field.tag = 1;
  field.type = PB_LTYPE_BYTES;
  EXPECT_FALSE(encode_payload_callback(&stream, &field, &arg));
  EXPECT_EQ(log_.Dump(), "4 ORBEventLogger: Encoding the payload callback : Failed\n");
}

TEST(ConvertTest, LastWordIsFilledWithZeros) {
  int32_t words[3] = {-1, -1, -1};
  EXPECT_EQ(convertBytestoInt32Array(Bytes("abcdef"), 6, words), 2u);
  EXPECT_EQ(std::memcmp(words, "abcdef\0\0\xff", 9), 0);
  EXPECT_EQ(convertBytestoInt32Array(nullptr, 4, words), 0u);
  EXPECT_EQ(convertBytestoInt32Array(Bytes("abcdef"), 0, words), 0u);
  EXPECT_EQ(convertBytestoInt32Array(Bytes("abcdef"), 4, nullptr), 0u);
}

}  // namespace
}  // namespace orb
