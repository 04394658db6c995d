// Tested by tests/orbctl/sim_test.cpp.
#include "tools/orbctl/sim/sim_command.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iostream>

#include "tools/orbctl/campaign_command.h"
#include "tools/orbctl/campaign_file.h"
#include "tools/orbctl/campaign_owners.h"
#include "tools/orbctl/number.h"
#include "tools/orbctl/output.h"
#include "tools/orbctl/private_keys.h"
#include "tools/orbctl/sim/abort_watch.h"
#include "tools/orbctl/sim/trial_report.h"

namespace orb::orbctl {
namespace {

namespace fs = std::filesystem;

constexpr uint32_t kSlotsMax = 64;

int WrongUsage(const std::string& text) {
  PrintError(text);
  return kUsage;
}

// 0 is "max".
bool ParseSpeed(const std::string& text, double* factor) {
  *factor = 0;
  if (text == "max") return true;
  char* end = nullptr;
  *factor = strtod(text.c_str(), &end);
  return *end == '\0' && *factor >= 0.001 && *factor <= 1e6;
}

bool ParseSlots(const std::string& text, TrialInput* input) {
  if (text.empty()) return true;
  const size_t x = text.find('x');
  return x != std::string::npos && ParseAnyNumber(text.substr(0, x), kSlotsMax, &input->slots) &&
         ParseAnyNumber(text.substr(x + 1), INT32_MAX / kSlotsMax, &input->slot_bytes) &&
         input->slots > 0 && input->slot_bytes > 0;
}

// False with *error when `directory` is not there for this trial alone.
bool MakeFolders(const std::string& directory, std::string* error) {
  std::error_code ec;
  fs::create_directories(directory, ec);
  if (!ec && !fs::is_empty(directory, ec) && !ec) {
    *error = directory + " is not empty; give a new folder for --out";
    return false;
  }
  if (!ec) fs::create_directory(directory + "/data", ec);
  if (ec) *error = directory + ": " + ec.message();
  return !ec;
}

// Of a trial that did not start, so that the next one finds the folder empty.
void RemoveFolders(const std::string& directory) {
  std::error_code ec;
  for (const char* name : {"/data", "/manager", "/spool"}) fs::remove_all(directory + name, ec);
  fs::remove(directory + "/library.log", ec);
}

// Faults that would begin after all is over are a slip.
bool CheckTimes(const TrialInput& input, std::string* error) {
  for (const FaultSpan& span : input.faults) {
    if (span.from <= input.load.items.back().time) continue;
    *error = fmt::format("--fault {}: the load ends before that", span.text);
    return false;
  }
  return true;
}

// Reads everything that is not on the command line. False with *error.
bool ReadInput(const SimCommand& command, const std::vector<LicOption>& lics,
               LTCCampaignDef* campaign, TrialInput* input, std::string* error) {
  if (!ReadCampaignFile(command.campaign_path, campaign, error)) return false;
  *error = OwnerFault(*campaign, lics, command.allow_plain);
  if (!error->empty()) return false;
  input->client = command.client;
  input->campaign = MakeCampaign(*campaign, command.id, lics);
  if (!ReadLoad(command.load_path, &input->load, error) || !CheckTimes(*input, error)) return false;
  if (!MakeFolders(command.directory, error)) return false;
  std::error_code ec;
  input->data_dir = fs::canonical(command.directory, ec).string() + "/data/";
  if (!ec && !command.conf_path.empty()) {
    fs::copy_file(command.conf_path, input->data_dir + "orb_sdk.conf", ec);
  }
  if (ec)
    *error =
        (command.conf_path.empty() ? command.directory : command.conf_path) + ": " + ec.message();
  return !ec;
}

// Whether the abort was a sum's: only calls that log numbers, and the end of a session,
// add up.
bool Overflowed(const Trial& trial, RunEnd end) {
  return end == RunEnd::kAborted && (trial.current() != nullptr || trial.phase() == Phase::kEnding);
}

// A client that lost its manager ends its session on a thread of the library, while the
// load goes on: then nothing stands still that could be counted.
bool EndedBesideTheLoad(const TrialInput& input, RunEnd end) {
  return end == RunEnd::kAbortedBeside &&
         std::any_of(input.faults.begin(), input.faults.end(),
                     [](const FaultSpan& span) { return span.fault == Fault::kManagerDead; });
}

// Threads of the library hold locks for ever: nothing can be taken down.
[[noreturn]] void Leave(const std::string& overflow, std::ostream* out) {
  out->flush();
  PrintError(overflow +
             ": a sum of its window does not fit, and the client ends there; `orbctl campaign "
             "lint` tells the largest safe values");
  _exit(kFailed);
}

// The client did not take the campaign.
int ReportRefusal(const SimCommand& command, const LTCCampaignDef& campaign,
                  const TrialInput& input, int32_t result, const std::string& error) {
  PrintError(error);
  if (result != 0) {
    ExplainRefusal(campaign, Conf::Get(), input.slots > 0);
    RemoveFolders(command.directory);
  }
  return kFailed;
}

}  // namespace

int SimCommand::Run(std::ostream& out) const {
  std::string error;
  std::vector<LicOption> options(lics.size());
  for (size_t i = 0; i < lics.size(); ++i) {
    if (!ParseLicOption(lics[i], &options[i], &error)) return WrongUsage(error);
  }
  TrialInput input;
  double factor = 0;
  if (!ParseFaults(faults, &input.faults, &error)) return WrongUsage(error);
  if (!ParseSpeed(speed, &factor)) {
    return WrongUsage("--speed " + speed + ": write max, or a factor of 0.001 to 1000000");
  }
  if (!ParseSlots(slots, &input)) {
    return WrongUsage("--slots " + slots + ": write COUNTxBYTES with at most 64 slots");
  }
  std::vector<reader::PrivateKey> keys;
  if (!ReadKeys(key_paths, &keys)) return kFailed;
  LTCCampaignDef campaign;
  if (!ReadInput(*this, options, &campaign, &input, &error)) return Fail(error);
  WarnOfMissingKeys(campaign, input.campaign);

  const std::unique_ptr<LibraryLog> log = LibraryLog::Open(directory + "/library.log", &error);
  if (log == nullptr) return Fail(error);
  const std::unique_ptr<SimServices> services = SimServices::Open(directory, &error);
  if (services == nullptr) return Fail(error);

  const auto began = std::chrono::steady_clock::now();
  Trial trial(input, services.get(), log.get());
  bool begun = false;
  int32_t result = 0;
  const RunEnd end = RunWatched([&] {
    begun = trial.Begin(factor, &result, &error);
    if (!begun) return;
    trial.Run();
    trial.End();
  });
  if (end != RunEnd::kReturned) {
    log->Flush();
    if (EndedBesideTheLoad(input, end)) Leave("a KPI when the lost manager's session ends", &out);
    if (!Overflowed(trial, end)) abort();  // Not by a sum: a fault of the library's, or of ours.
    trial.Abandon();
  } else if (!begun) {
    return ReportRefusal(*this, campaign, input, result, error);
  }
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;

  TrialReport report(campaign, input);
  const bool collected = report.Collect(trial, *log, directory + "/spool", keys, &error);
  if (!collected) PrintError(error);
  report.offered = services->hal().asked;
  report.stored = services->hal().accepted;
  report.took_s = took.count();
  report.directory = directory;
  if (end != RunEnd::kReturned) report.AddOverflow(trial);
  if (collected) json ? report.PrintJson(out) : report.PrintText(out);
  if (report.overflow()) Leave(report.overflow()->ToText(), &out);
  return collected ? kOk : kFailed;
}

void AddSim(CLI::App* app, SimCommand* command, int* code) {
  CLI::App* sim = app->add_subcommand(
      "sim", "Tries a campaign: the real library, fed from a file, without daemons");
  sim->add_option("--campaign", command->campaign_path, "The campaign")
      ->type_name("FILE")
      ->required();
  sim->add_option("--load", command->load_path, "What is logged: time,kpi,value; - is stdin")
      ->type_name("FILE.csv")
      ->required();
  sim->add_option("--out", command->directory, "Folder for uploads and log, new or empty")
      ->type_name("DIR")
      ->required();
  sim->add_option("--client", command->client, "Name of the client")->capture_default_str();
  sim->add_option("--id", command->id, "Number of the campaign")->capture_default_str();
  sim->add_option("--lic", command->lics,
                  "An owner, and the key that its data are sealed for; may be repeated")
      ->type_name("LICSN[:PUB.pem:cbc|gcm]")
      ->allow_extra_args(false);
  sim->add_flag("--allow-plain", command->allow_plain,
                "Also with a key for an owner whose data the campaign does not encrypt");
  sim->add_option("--key", command->key_paths,
                  "A private key, to count what is sealed; may be repeated")
      ->type_name("PRIV.pem")
      ->allow_extra_args(false);
  sim->add_option("--conf", command->conf_path, "Limits of the device")->type_name("orb_sdk.conf");
  sim->add_option("--slots", command->slots, "The client uses slots, not files")
      ->type_name("COUNTxBYTES");
  sim->add_option("--fault", command->faults,
                  "hal-slow=DUR, hal-dead, hal-wrong, manager-dead, enospc; each with @T or "
                  "@T..T; may be repeated")
      ->type_name("FAULT[,FAULT]...")
      ->allow_extra_args(false);
  sim->add_option("--speed", command->speed, "max, or times as fast as real time")
      ->type_name("N|max")
      ->capture_default_str();
  sim->add_flag("--json", command->json, "Prints JSON");
  sim->callback([command, code] { *code = command->Run(std::cout); });
}

}  // namespace orb::orbctl
