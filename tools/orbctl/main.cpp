// orbctl: what can be said on its command line. Each command is in a file of its own.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>

#include "tools/orbctl/campaign_command.h"
#include "tools/orbctl/campaign_lint.h"
#include "tools/orbctl/client_command.h"
#include "tools/orbctl/client_dump.h"
#include "tools/orbctl/decode_command.h"
#include "tools/orbctl/event_decode.h"
#include "tools/orbctl/key_command.h"
#include "tools/orbctl/output.h"
#include "tools/orbctl/sim/sim_command.h"
#include "tools/orbctl/verify_command.h"
#include "utility/log.h"

namespace {

using namespace orb::orbctl;
namespace reader = orb::reader;

// What the libraries log is not for the tool's users, and some of it is secret.
void Silent(const __android_logger_data*, const char*) {}

struct Arguments {
  CampaignStartCommand start;
  CampaignLintCommand lint;
  DecodeCommand decode;
  EventDecodeOptions events;
  SimCommand sim;
  VerifyCommand verify;
  std::string client;
  uint64_t lic_sn = 0;
  std::string directory;
  bool json = false;
  bool all = false;
  bool force = false;
  int code = kOk;
};

void AddLic(CLI::App* command, std::vector<std::string>* lics, bool* allow_plain) {
  command
      ->add_option("--lic", *lics,
                   "An owner, and the key that its data are sealed for; may be repeated")
      ->type_name("LICSN[:PUB.pem:cbc|gcm]")
      ->allow_extra_args(false);
  command->add_flag("--allow-plain", *allow_plain,
                    "Also with a key for an owner whose data the campaign does not encrypt");
}

void AddCampaign(CLI::App* app, Arguments* args) {
  CLI::App* campaign = app->add_subcommand("campaign", "Checks, starts and stops campaigns");
  campaign->require_subcommand(1);

  CLI::App* lint = campaign->add_subcommand("lint", "Checks a campaign file");
  lint->add_option("FILE", args->lint.path, "The campaign")->required();
  lint->add_option("--conf", args->lint.conf_path, "Limits of the device")
      ->type_name("orb_sdk.conf");
  AddLic(lint, &args->lint.lics, &args->lint.allow_plain);
  lint->add_option("--max-value", args->lint.max_values,
                   "The largest value that a KPI is given, and how far apart its samples are; may "
                   "be repeated")
      ->type_name("KPI=N[@INTERVAL]")
      ->allow_extra_args(false);
  lint->add_flag("--shared-memory", args->lint.shared_memory, "The client uses slots, not files");
  lint->add_flag("--json", args->lint.json, "Prints JSON");
  lint->callback([args] { args->code = args->lint.Run(std::cout); });

  CLI::App* start = campaign->add_subcommand("start", "Starts a campaign on a client");
  start->add_option("CLIENT", args->start.client, "Name of the client")->required();
  start->add_option("FILE", args->start.path, "The campaign")->required();
  start->add_option("--id", args->start.id, "Its number")->capture_default_str();
  AddLic(start, &args->start.lics, &args->start.allow_plain);
  start->add_flag("--json", args->start.json, "Prints JSON");
  start->callback([args] { args->code = args->start.Run(); });

  CLI::App* stop = campaign->add_subcommand("stop", "Stops what runs on a client");
  stop->add_option("CLIENT", args->client, "Name of the client")->required();
  stop->add_flag("--json", args->json, "Prints JSON");
  stop->callback([args] { args->code = StopCampaign(args->client, args->json); });

  CLI::App* release =
      campaign->add_subcommand("release", "Ends the quarantine of a client's campaign");
  release->add_option("CLIENT", args->client, "Name of the client")->required();
  release->add_flag("--json", args->json, "Prints JSON");
  release->callback([args] { args->code = ReleaseCampaign(args->client, args->json); });

  for (const bool run : {true, false}) {
    CLI::App* lic =
        campaign->add_subcommand(run ? "lic-start" : "lic-stop",
                                 run ? "Starts one owner's data again" : "Stops one owner's data");
    lic->add_option("CLIENT", args->client, "Name of the client")->required();
    lic->add_option("LICSN", args->lic_sn, "The owner")->required();
    lic->add_flag("--json", args->json, "Prints JSON");
    lic->callback(
        [args, run] { args->code = SwitchLicSn(args->client, args->lic_sn, run, args->json); });
  }
}

void AddDecode(CLI::App* app, Arguments* args) {
  CLI::App* decode = app->add_subcommand("decode", "Prints the records of spooled uploads");
  decode->add_option("PATH", args->decode.paths, "Uploads, or folders of them")->required();
  decode->add_option("--key", args->decode.key_paths, "A private key; may be repeated")
      ->type_name("PRIV.pem")
      ->allow_extra_args(false);
  decode->add_option("--campaign", args->decode.campaign_path, "Explains records by a campaign")
      ->type_name("FILE");
  const std::map<std::string, reader::RecordFormat> formats = {
      {"text", reader::RecordFormat::kText},
      {"json", reader::RecordFormat::kJson},
      {"csv", reader::RecordFormat::kCsv}};
  CLI::Option* format = decode->add_option("--format", args->decode.format, "text, json or csv")
                            ->transform(CLI::CheckedTransformer(formats, CLI::ignore_case))
                            ->type_name("FORMAT");
  decode->add_flag("--json", args->json, "As --format json")->excludes(format);
  decode->add_flag("--salvage", args->decode.salvage,
                   "Goes on behind damage, and tells what it skipped");
  decode->callback([args] {
    if (args->json) args->decode.format = reader::RecordFormat::kJson;
    args->code = args->decode.Run(std::cout);
  });
}

void AddVerify(CLI::App* app, Arguments* args) {
  CLI::App* verify =
      app->add_subcommand("verify", "Looks for what is missing or damaged in a spool");
  verify->add_option("DIR", args->verify.directory, "The spool")->required();
  verify->add_option("--key", args->verify.key_paths, "A private key; may be repeated")
      ->type_name("PRIV.pem")
      ->allow_extra_args(false);
  verify->add_flag("--json", args->verify.json, "Prints one JSON object a line");
  verify->callback([args] { args->code = args->verify.Run(std::cout); });
}

void AddOthers(CLI::App* app, Arguments* args) {
  CLI::App* client = app->add_subcommand("client", "Shows and forgets clients");
  client->require_subcommand(1);
  CLI::App* list = client->add_subcommand("list", "Clients, their ids and campaigns");
  list->add_flag("--all", args->all, "Also those that are away");
  list->add_flag("--json", args->json, "Prints one JSON object a line");
  list->callback([args] { args->code = ListClients(args->all, args->json); });

  CLI::App* dump = client->add_subcommand("dump", "What a client says of itself");
  dump->add_option("CLIENT", args->client, "Name of the client")->required();
  dump->add_flag("--json", args->json, "Prints JSON");
  dump->callback([args] { args->code = DumpClient(args->client, args->json); });

  CLI::App* forget =
      client->add_subcommand("forget", "Releases a client's name, id and campaign (root only)");
  forget->add_option("CLIENT", args->client, "Name of the client")->required();
  forget->add_flag("--force", args->force, "Also one that is connected, which is told to stop");
  forget->add_flag("--json", args->json, "Prints JSON");
  forget->callback([args] { args->code = ForgetClient(args->client, args->force, args->json); });

  CLI::App* key = app->add_subcommand("key", "Makes keys");
  key->require_subcommand(1);
  CLI::App* make = key->add_subcommand("new", "Writes a new private.pem and public.pem");
  make->add_option("DIR", args->directory, "Folder to write to")->required();
  make->add_flag("--json", args->json, "Prints JSON");
  make->callback([args] { args->code = NewKey(args->directory, args->json); });

  CLI::App* event = app->add_subcommand("event", "Reads event records");
  event->require_subcommand(1);
  CLI::App* decode = event->add_subcommand("decode", "Prints the records of an events dump");
  decode->add_option("FILE", args->events.file, "The dump")->required();
  decode->add_option("--names", args->events.names, "Module and event names, one a line")
      ->type_name("FILE");
  decode->add_flag("--json", args->events.json, "Prints one JSON object a line");
  decode->callback([args] { args->code = RunEventDecode(args->events, std::cout, std::cerr); });
}

}  // namespace

// What nobody catches ends the program, as it should.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char** argv) {
  __android_log_set_logger(Silent);
  Arguments args;
  CLI::App app("Runs telemetry campaigns and reads what they bring.", "orbctl");
  app.set_version_flag("--version", std::string(ORB_VERSION));
  app.require_subcommand(1);
  AddCampaign(&app, &args);
  AddDecode(&app, &args);
  AddVerify(&app, &args);
  AddOthers(&app, &args);
  AddSim(&app, &args.sim, &args.code);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    // A word that is no command also makes the command that it should be a missing
    // one, which alone would be a riddle.
    const std::vector<std::string> unknown = app.remaining(true);
    std::string text = unknown.empty() ? error.what() : "\"" + unknown.front() + "\" is not known";
    text += "; see orbctl";
    for (const CLI::App* at = &app; !at->get_subcommands().empty();) {
      at = at->get_subcommands().front();
      text += " " + at->get_name();
    }
    PrintError(text + " --help");
    return kUsage;
  }
  return args.code;
}
