#include "tests/integration/stack.h"

#include <unistd.h>

#include <filesystem>
#include <sstream>

#include "tests/support/json_lines.h"

namespace orb::test {

namespace {

constexpr char kOtherUser[] = "nobody";

}  // namespace

std::string Client::Ask(const std::string& command, std::chrono::milliseconds timeout) {
  if (!process_.Send(command)) return "gone";
  return process_.ReadLine(timeout).value_or("gone");
}

Stack::~Stack() {
  manager_.Stop();
  hal_.Stop();
}

std::map<std::string, std::string> Stack::Environment() const {
  return {{"ORB_BUS_ADDRESS", bus_.address()}, {"ORB_EVENT_LOG", dir_.path() + "/events.bin"}};
}

ChildProcess Stack::StartProgram(const std::vector<std::string>& argv, const std::string& log_name,
                                 const std::map<std::string, std::string>& env) const {
  std::map<std::string, std::string> all = Environment();
  for (const auto& [name, value] : env) all[name] = value;
  return ChildProcess(argv, {all, path(log_name + ".log")});
}

void Stack::StartManager() {
  manager_ = StartProgram({ORB_MANAGERD, "--state", path("state")}, "orb-managerd");
}

void Stack::StartHal() { hal_ = StartProgram({ORB_HALD, "--spool", spool()}, "orb-hald"); }

Client Stack::StartClient(bool limited) {
  Client client;
  std::vector<std::string> argv = {ORB_PROBE};
  if (limited && geteuid() == 0) {
    argv = {"setpriv", "--reuid", kOtherUser, "--clear-groups", ORB_PROBE};
    std::filesystem::permissions(dir_.path(), std::filesystem::perms::all);
    std::filesystem::permissions(bus_.directory(), std::filesystem::perms::all);
  }
  client.process_ = StartProgram(argv, "client" + std::to_string(++clients_));
  return client;
}

std::string Stack::MakeDataDir(const std::string& name) {
  const std::string dir = path(name) + "/";
  std::filesystem::create_directories(dir);
  std::filesystem::permissions(dir, std::filesystem::perms::all);  // Of whichever user's client.
  WriteFile(dir + "orb_sdk.conf", "register_max_retries = 1000\nregister_retry_wait_sec = 1\n");
  return dir;
}

std::string Stack::LogOf(const std::string& program) const {
  return ReadFileOrEmpty(path(program + ".log"));
}

CommandResult Stack::Ctl(const std::vector<std::string>& args) {
  std::vector<std::string> argv = {ORB_CTL};
  argv.insert(argv.end(), args.begin(), args.end());
  return RunCommand(argv, Environment());
}

std::string Stack::WriteCampaign(const std::string& name, const std::vector<uint64_t>& lic_sns,
                                 const std::vector<uint32_t>& kpis, uint32_t sample_window,
                                 uint32_t threshold_bytes) {
  std::ostringstream text;
  text << "threshold_size: " << threshold_bytes << "\nthreshold_time: 60\n";
  for (uint32_t kpi : kpis) {
    text << "kpi_cfgs { kpi_id: " << kpi << " type: KPI_NUMERIC sub_type: COUNTER "
         << "sample_window: " << sample_window << " }\n";
  }
  for (uint64_t lic_sn : lic_sns) {
    text << "lic_sn_kpi_maps { lic_sn: " << lic_sn;
    for (uint32_t kpi : kpis) text << " kpi_ids: " << kpi;
    text << " }\n";
  }
  WriteFile(path(name), text.str());
  return path(name);
}

bool Stack::StartCampaign(const std::string& client, const std::string& file,
                          const std::vector<uint64_t>& lic_sns, uint64_t id) {
  std::vector<std::string> args = {"campaign", "start", client, file, "--id", std::to_string(id)};
  for (uint64_t lic_sn : lic_sns) {
    args.insert(args.end(), {"--lic", std::to_string(lic_sn)});
  }
  return Ctl(args).exit_code == 0;
}

size_t Stack::CountInLog(const std::string& program, const std::string& text) const {
  const std::string log = LogOf(program);
  size_t count = 0;
  for (size_t at = 0; (at = log.find(text, at)) != std::string::npos; ++at) ++count;
  return count;
}

bool Stack::WaitRegistered(const std::string& client) {
  return WaitFor([&] {
    const CommandResult list = Ctl({"client", "list"});
    const bool there = list.exit_code == 0 && list.out.find(client) != std::string::npos;
    // Starting the tool is work that the services need not compete with.
    if (!there) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return there;
  });
}

std::vector<nlohmann::json> Stack::DecodeSpool() {
  return JsonLines(Ctl({"decode", spool(), "--format", "json"}).out);
}

uint64_t Stack::Sum(uint64_t lic_sn, uint32_t kpi) {
  uint64_t sum = 0;
  for (const nlohmann::json& record : DecodeSpool()) {
    if (record["lic_sn"] == lic_sn && record["kpi_id"] == kpi) sum += record.value("count", 0u);
  }
  return sum;
}

}  // namespace orb::test
