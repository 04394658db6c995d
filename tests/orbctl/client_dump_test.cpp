#include "tools/orbctl/client_dump.h"

#include <gtest/gtest.h>

namespace orb::orbctl {
namespace {

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

}  // namespace
}  // namespace orb::orbctl
