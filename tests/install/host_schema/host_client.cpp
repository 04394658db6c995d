// A daemon with the full protobuf runtime and messages that are called like the
// library's. Logs KPI 1 while its own messages survive a round trip, until SIGTERM;
// exits with 0, or 1 when they did not.
#include <google/protobuf/text_format.h>

#include <csignal>
#include <ctime>

#include "host.pb.h"
#include "orb_sdk.h"

namespace {

volatile sig_atomic_t stopped = 0;

void OnSignal(int) { stopped = 1; }

bool OwnMessagesWork() {
  LTCCampaignDef sent;
  sent.set_owner("host");
  (*sent.mutable_cfgs())["a"].set_label("first");
  (*sent.mutable_cfgs())["a"].add_limits(0.5);
  LTCCampaignDef received;
  std::string text;
  return received.ParseFromString(sent.SerializeAsString()) &&
         received.cfgs().at("a").label() == "first" && received.cfgs().at("a").limits(0) == 0.5 &&
         google::protobuf::TextFormat::PrintToString(received, &text) &&
         google::protobuf::TextFormat::ParseFromString(text, &sent) && sent.owner() == "host" &&
         KPICfg::descriptor()->field_count() == 2;
}

}  // namespace

int main(int, char** argv) {
  kiv_cfg_s cfg{};
  cfg.name = "host";
  cfg.data_dir = argv[1];
  cfg.sync_register = 1;
  signal(SIGTERM, OnSignal);
  kiv_collector* c = kiv_register(&cfg);
  bool work = c != nullptr;
  while (work && stopped == 0) {
    work = OwnMessagesWork();
    static_cast<void>(kiv_log(c, 1, 1));
    const timespec pause{0, 1000000};
    nanosleep(&pause, nullptr);
  }
  static_cast<void>(kiv_deregister(c));
  return work ? 0 : 1;
}
