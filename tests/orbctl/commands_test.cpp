// The commands on campaigns, clients and keys that need no more than their own code.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "tests/support/child_process.h"
#include "tools/orbctl/campaign_command.h"
#include "tools/orbctl/client_command.h"
#include "tools/orbctl/client_dump.h"
#include "tools/orbctl/control_client.h"
#include "tools/orbctl/key_command.h"
#include "utility/terminal_text.h"

namespace orb::orbctl {
namespace {

TEST(CampaignCommandTest, ListsEveryOwnerOfTheCampaign) {
  LTCCampaignDef campaign;
  campaign.set_threshold_size(2048);
  for (const uint64_t lic_sn : {uint64_t{42}, UINT64_MAX, uint64_t{42}}) {
    campaign.add_lic_sn_kpi_maps()->set_lic_sn(lic_sn);
  }
  const manager::SavedCampaign made = MakeCampaign(campaign, 9, {{7, "", 0, 0}, {42, "PEM", 1, 2}});
  EXPECT_EQ(made.camp_id(), 9);
  EXPECT_EQ(made.definition(), campaign.SerializeAsString());
  std::string lics;
  for (const manager::LicKey& key : made.lic_keys()) {
    lics += std::to_string(key.lic_sn()) + " " + std::to_string(key.symmetric_algo()) +
            std::to_string(key.public_key_algo()) + key.public_key() + "; ";
  }
  EXPECT_EQ(lics, "7 00; 42 21PEM; -1 00; ");
}

TEST(ClientCommandTest, ShowsClientsToPeopleAndPrograms) {
  using manager::ClientRecord;
  ClientRecord radio;
  radio.set_name("radio");
  radio.set_client_id(7);
  radio.set_owner_uid(0);
  radio.set_connected(true);
  radio.set_connected_since_ms(1763716800000);
  radio.set_session(ClientRecord::RUNNING);
  radio.set_session_since_ms(1763716801000);
  radio.set_camp_id(9);
  radio.add_lic_sns(42);
  radio.add_lic_sns(-1);
  radio.add_stopped_lic_sns(-1);
  ClientRecord away;
  away.set_name("a-longer\x1b[2J");
  away.set_owner_uid(4000000000);
  away.set_session(ClientRecord::WAITING);
  away.set_camp_id(3);
  ClientRecord dying = away;
  dying.set_name("dying");
  dying.clear_owner_uid();
  dying.set_session(ClientRecord::QUARANTINED);
  const std::string table = ClientTable({radio, away, dying});
  EXPECT_EQ(table.substr(table.find('\n') + 1),
            "radio             7  root        2025-11-21T09:20:00Z  2025-11-21T09:20:01Z  "
            "9 running -18446744073709551615\n"
            "a-longer?[2J      0  4000000000  away                  -                     "
            "3 waiting\n"
            "dying             0  -           away                  -                     "
            "3 quarantined\n");
  const nlohmann::json json = nlohmann::json::parse(ClientJson({radio}), nullptr, false);
  EXPECT_EQ(json["name"], "radio");
  EXPECT_EQ(json["session"], "running");
  EXPECT_EQ(json["campaign"], 9);
  EXPECT_EQ(json["owner_uid"], 0);
  EXPECT_EQ(json["owner"], "root");
  EXPECT_EQ(json["lic_sns"], (std::vector<uint64_t>{42, UINT64_MAX}));
}

TEST(ControlClientTest, NamesTheCauseOfACallThatFailed) {
  using android::binder::Status;
  const std::pair<Status, const char*> kCases[] = {
      {Status::fromExceptionCode(Status::EX_SECURITY), "try sudo"},
      {Status::fromStatusT(android::PERMISSION_DENIED), "try sudo"},
      {Status::fromStatusT(android::FAILED_TRANSACTION), "see the log of orb-managerd"},
      {Status::fromStatusT(android::DEAD_OBJECT), "the manager ended before it answered"},
      {Status::fromStatusT(android::BAD_TYPE), "BAD_TYPE"},
  };
  for (const auto& [status, part] : kCases) {
    EXPECT_NE(CallError(status).find(part), std::string::npos) << CallError(status);
  }
}

TEST(ClientDumpTest, JsonNestsWhatTheLinesSay) {
  EXPECT_EQ(DumpJson("client.name: \"a=1 b\"\n"
                     "client.id: 7\n"
                     "client.last_seqno: none\n"
                     "owner.42: samples=5\n"
                     "owner.42.lost.hal: events=1 samples=5\n"
                     "no line of ours\n"
                     "x: 99999999999999999999 \n"
                     "x.y: = =1 a=\n"),
            R"({"client":{"name":"a=1 b","id":7,"last_seqno":"none"},)"
            R"("owner":{"42":{"samples":5,"lost":{"hal":{"events":1,"samples":5}}}},)"
            R"("x":{"y":{"":1,"a":""}}})");
}

TEST(ClientDumpTest, JsonOfAHostileClientIsBounded) {
  // Each dot would be a level, and each level a call that prints it.
  EXPECT_EQ(DumpJson("a.b.c.d.e.f.g" + std::string(400000, '.') + "z: 1\n: 2\n").substr(0, 55),
            R"({"a":{"b":{"c":{"d":{"e":{"f":{"g":{"..................)");
  std::string many;
  for (int i = 0; i < 500000; ++i) many += "k" + std::to_string(i) + ": 1\n";
  std::string items = "k: ";
  for (int i = 0; i < 500000; ++i) items += "i" + std::to_string(i) + "=1 ";
  // Objects look their keys up one by one: all of these would take hours.
  EXPECT_LT(DumpJson(many).size(), 400000U);
  EXPECT_LT(DumpJson(items).size(), 1000U);
  EXPECT_EQ(DumpJson("k: \"\x1b[2J\x7f\xC2\x9B\xff\"\n"), R"({"k":"\u001b[2J\u007f\u009b\ufffd"})");
}

TEST(TerminalTextTest, LeavesNothingThatDrivesATerminal) {
  const std::pair<std::string_view, const char*> kCases[] = {
      {"radio \u00e4\u20ac\U0001f4e1", "radio \u00e4\u20ac\U0001f4e1"},
      {"\x1b[2J\r\b\x7f", "?[2J???"},
      {"\xC2\x9B", "??"},       // CSI in one character.
      {"\x9B\xff\xC2", "???"},  // No UTF-8.
      {"\xC0\xAF", "??"},       // A slash in two bytes.
      {"\xED\xA0\x80", "???"},  // Half of a surrogate pair.
      {"\u202egnp", "???gnp"},  // Turns what follows.
      {"\xF4\x90\x80\x80", "????"},
      {"a\nb\tc", "a\nb?c"},
  };
  for (const auto& [text, shown] : kCases) EXPECT_EQ(TerminalText(text, "\n"), shown);
}

TEST(KeyCommandTest, MakesAPairThatOnlyItsOwnerReads) {
  namespace fs = std::filesystem;
  const orb::test::TempDir temp;
  const std::string dir = temp.path() + "/new/keys";
  umask(0);
  ASSERT_EQ(NewKey(dir, false), 0);
  EXPECT_EQ(fs::status(dir + "/private.pem").permissions(), fs::perms{0600});
  EXPECT_EQ(fs::status(dir + "/public.pem").permissions(), fs::perms{0644});

  // One that is there stays, and gets no partner.
  ASSERT_TRUE(fs::remove(dir + "/private.pem"));
  const std::string mine = orb::test::ReadFileOrEmpty(dir + "/public.pem");
  EXPECT_EQ(NewKey(dir, false), 1);
  EXPECT_EQ(orb::test::ListFiles(dir), (std::vector<std::string>{"public.pem"}));
  EXPECT_EQ(orb::test::ReadFileOrEmpty(dir + "/public.pem"), mine);
}

}  // namespace
}  // namespace orb::orbctl
