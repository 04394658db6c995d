// Decodes what the library itself wrote, and damaged copies of it.
#include "tools/orbctl/event_decode.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "include/orb_event_log.h"
#include "tests/support/child_process.h"
#include "tests/support/json_lines.h"

namespace orb::orbctl {
namespace {

using ::testing::HasSubstr;

class EventDecodeTest : public testing::Test {
 protected:
  struct Decoded {
    int result;
    std::string out;
    std::string err;
  };

  EventDecodeTest() { setenv("ORB_EVENT_LOG", path_.c_str(), 1); }
  ~EventDecodeTest() override { unsetenv("ORB_EVENT_LOG"); }

  Decoded Decode(bool json = false, const std::string& names = "") {
    std::ostringstream out, err;
    const int result = RunEventDecode({path_, names, json}, out, err);
    return {result, out.str(), err.str()};
  }
  static void Log(const std::string& event, const std::string& payload) {
    ORBEventLog(7, "modem", event.c_str(), reinterpret_cast<const uint8_t*>(payload.data()),
                payload.size());
  }

  test::TempDir dir_;
  const std::string path_ = dir_.path() + "/events.bin";
};

TEST_F(EventDecodeTest, NamesWhatItKnows) {
  const std::string names = dir_.path() + "/names";
  ASSERT_TRUE(test::WriteFile(names, "modem\r\n\nattach\n"));
  Log("attach", "a\"\x1b\x01");
  Log("unknown", std::string(4, '\0'));
  const Decoded text = Decode(false, names);
  EXPECT_EQ(text.result, 0) << text.err;
  const std::string who =
      " pid " + std::to_string(getpid()) + " tid " + std::to_string(gettid()) + " uid ";
  EXPECT_THAT(text.out, HasSubstr(who));
  EXPECT_THAT(text.out, HasSubstr(" module modem event attach type 7 size 4 payload 61221b01 "
                                  "\"a\"..\"\n"));

  const nlohmann::json event = test::JsonLines(Decode(true, names).out).at(1);
  EXPECT_EQ(event["module"], "modem");
  EXPECT_EQ(event["event_id"], KIVCommonHashFn(reinterpret_cast<const uint8_t*>("unknown"), 7));
  EXPECT_EQ(event["event"].get<std::string>().substr(0, 2), "0x");
  EXPECT_EQ(event["payload_text"], "....");
  EXPECT_EQ(event["debug_build"], false);
}

TEST_F(EventDecodeTest, EveryPayloadLengthComesBack) {
  for (size_t size = 0; size <= 32; ++size) Log("attach", std::string(size, '\0'));
  const std::vector<nlohmann::json> events = test::JsonLines(Decode(true).out);
  ASSERT_EQ(events.size(), 33u);
  for (size_t size = 0; size <= 32; ++size) {
    EXPECT_EQ(events[size]["payload_hex"], std::string(2 * size, '0'));
  }
}

TEST_F(EventDecodeTest, DamageIsNamedWithItsOffset) {
  Log("attach", "one");
  const std::string one = test::ReadFileOrEmpty(path_);
  const size_t tag_at = 28;
  const auto changed = [&](size_t at, char value) {
    std::string copy = one;
    copy[at] = value;
    return copy;
  };
  const struct {
    const char* name;
    std::string dump;
    int events;
    std::string err;
  } cases[] = {
      {"whole", one + one, 2, ""},
      {"foreign tag", changed(tag_at, 0) + one, 1, ""},
      {"another log", changed(20, 3) + one, 1, ""},
      {"cut", one + one.substr(0, 40), 1, "the file ends inside an entry"},
      {"short header", one + one.substr(0, 19), 1, "the file ends inside an entry"},
      {"no header", one + std::string(40, '\0'), 1, "no entry header: its size says 0"},
      {"list", one + changed(tag_at + 4, 9) + one, 2, "no list of 32-bit words"},
      {"count", one + changed(tag_at + 5, 2) + one, 2, "no list of 32-bit words"},
      {"element", one + changed(tag_at + 6, 1) + one, 2, "no list of 32-bit words"},
      {"record", one + changed(tag_at + 7, 7) + one, 2, "no event record"},
  };
  const std::string where =
      "orbctl: " + path_ + ": entry at offset " + std::to_string(one.size()) + ": ";
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_TRUE(test::WriteFile(path_, c.dump));
    const Decoded decoded = Decode();
    EXPECT_EQ(decoded.result, c.err.empty() ? 0 : 1);
    EXPECT_EQ(std::count(decoded.out.begin(), decoded.out.end(), '\n'), c.events);
    EXPECT_EQ(decoded.err, c.err.empty() ? "" : where + c.err + "\n");
  }
  std::remove(path_.c_str());
  const Decoded missing = Decode();
  EXPECT_EQ(missing.result, 1);
  EXPECT_THAT(missing.err, HasSubstr(path_));
}

}  // namespace
}  // namespace orb::orbctl
