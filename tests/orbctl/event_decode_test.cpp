// Decodes what the library itself wrote, and damaged copies of it.
#include "tools/orbctl/event_decode.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <sstream>

#include "include/orb_event_log.h"
#include "tests/support/child_process.h"

namespace orb::orbctl {
namespace {

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
  std::string Dump() { return test::ReadFileOrEmpty(path_); }
  // Decodes other bytes than were written.
  Decoded DecodeBytes(const std::string& dump) {
    EXPECT_TRUE(test::WriteFile(path_, dump));
    return Decode();
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
  EXPECT_NE(text.out.find(who), std::string::npos) << text.out;
  EXPECT_NE(text.out.find(" module modem event attach type 7 size 4 payload 61221b01 \"a\"..\"\n"),
            std::string::npos)
      << text.out;

  std::istringstream lines(Decode(true, names).out);
  std::string line;
  std::getline(lines, line);
  std::getline(lines, line);
  const nlohmann::json event = nlohmann::json::parse(line);
  EXPECT_EQ(event["module"], "modem");
  EXPECT_EQ(event["event_id"], KIVCommonHashFn(reinterpret_cast<const uint8_t*>("unknown"), 7));
  EXPECT_EQ(event["event"].get<std::string>().substr(0, 2), "0x");
  EXPECT_EQ(event["payload_hex"], "00000000");  // Payload, not fill.
  EXPECT_EQ(event["payload_text"], "....");
  EXPECT_EQ(event["debug_build"], false);
}

TEST_F(EventDecodeTest, EveryPayloadLengthComesBack) {
  std::string want;
  for (size_t size = 0; size <= 32; ++size) {
    Log("attach", std::string(size, '\0'));
    want += "size " + std::to_string(size) + "|";
  }
  std::istringstream lines(Decode(true).out);
  std::string got;
  for (std::string line; std::getline(lines, line);) {
    const nlohmann::json event = nlohmann::json::parse(line);
    got += "size " + std::to_string(event["payload_hex"].get<std::string>().size() / 2) + "|";
  }
  EXPECT_EQ(got, want);
}

TEST_F(EventDecodeTest, DamageIsNamedWithItsOffset) {
  Log("attach", "one");
  const std::string one = Dump();
  const size_t tag_at = 28;
  const auto changed = [&](size_t at, char value) {
    std::string copy = one;
    copy[at] = value;
    return copy;
  };
  const struct {
    const char* name;
    std::string dump;
    int result;
    size_t events;
    std::string err;
  } cases[] = {
      {"empty", "", 0, 0, ""},
      {"whole", one + one, 0, 2, ""},
      {"foreign tag", changed(tag_at, 0) + one, 0, 1, ""},
      {"another log", changed(20, 3) + one, 0, 1, ""},
      {"cut", one + one.substr(0, 40), 1, 1, "the file ends inside an entry"},
      {"short header", one + one.substr(0, 19), 1, 1, "the file ends inside an entry"},
      {"no header", one + std::string(40, '\0'), 1, 1, "no entry header: its size says 0"},
      {"list", one + changed(tag_at + 4, 9) + one, 1, 2, "no list of 32-bit words"},
      {"count", one + changed(tag_at + 5, 2) + one, 1, 2, "no list of 32-bit words"},
      {"element", one + changed(tag_at + 6, 1) + one, 1, 2, "no list of 32-bit words"},
      {"record", one + changed(tag_at + 7, 7) + one, 1, 2, "no event record"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const Decoded decoded = DecodeBytes(c.dump);
    EXPECT_EQ(decoded.result, c.result);
    EXPECT_EQ(static_cast<size_t>(std::count(decoded.out.begin(), decoded.out.end(), '\n')),
              c.events);
    const std::string where = "orbctl: " + path_ + ": entry at offset ";
    EXPECT_EQ(decoded.err,
              c.err.empty() ? "" : where + std::to_string(one.size()) + ": " + c.err + "\n");
  }
  std::remove(path_.c_str());
  const Decoded missing = Decode();
  EXPECT_EQ(missing.result, 1);
  EXPECT_NE(missing.err.find(path_), std::string::npos) << missing.err;
}

}  // namespace
}  // namespace orb::orbctl
