#include "tests/integration/stack.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>

namespace orb::test {
namespace {

// "…/up/7/radio.42/…" is of radio.
std::string ClientOf(const std::string& path) {
  const size_t id = path.rfind("/up/");
  if (id == std::string::npos) return "";
  const size_t begin = path.find('/', id + 4) + 1;
  const size_t slash = path.find('/', begin);
  return path.substr(begin, path.rfind('.', slash) - begin);
}

}  // namespace

std::string Client::Ask(const std::string& command, std::chrono::milliseconds timeout) {
  if (!process_.Send(command)) return "gone";
  return process_.ReadLine(timeout).value_or("gone");
}

Stack::Stack() = default;

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

ChildProcess Stack::StartHoldingHal() {
  ChildProcess hal = StartProgram({ORB_HOLDING_HAL}, "holding-hal");
  if (hal.ReadLine(std::chrono::seconds(20)) != "ready") hal.Stop();
  return hal;
}

Client Stack::StartClient() {
  Client client;
  client.process_ = StartProgram({ORB_PROBE}, "client" + std::to_string(++clients_));
  return client;
}

std::string Stack::MakeDataDir(const std::string& name) {
  const std::string dir = path(name) + "/";
  RunCommand({"mkdir", "-p", dir});
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

bool Stack::WaitRegistered(const std::string& client) {
  return WaitFor([&] {
    const CommandResult list = Ctl({"client", "list"});
    const bool there = list.exit_code == 0 && list.out.find(client) != std::string::npos;
    // Starting the tool is work that the services need not compete with.
    if (!there) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return there;
  });
}

std::vector<Record> Stack::DecodeSpool() {
  std::vector<Record> records;
  std::istringstream lines(Ctl({"decode", spool(), "--format", "json"}).out);
  for (std::string line; std::getline(lines, line);) {
    const nlohmann::json json = nlohmann::json::parse(line, nullptr, false);
    if (!json.is_object() || !json.contains("kpi_id")) continue;
    Record record;
    record.client = ClientOf(json.value("file", ""));
    record.lic_sn = json.value("lic_sn", uint64_t{0});
    record.campaign = json.value("campaign_id", uint64_t{0});
    record.seqno = json.value("seqno", uint64_t{0});
    record.kpi_id = json.value("kpi_id", 0u);
    record.kind = json.value("kind", "");
    record.count = json.value("count", uint64_t{0});
    record.num_samples = json.value("num_samples", uint64_t{0});
    records.push_back(record);
  }
  return records;
}

uint64_t SumOf(const std::vector<Record>& records, uint64_t lic_sn, uint32_t kpi) {
  uint64_t sum = 0;
  for (const Record& record : records) {
    if (record.lic_sn == lic_sn && record.kpi_id == kpi) sum += record.count;
  }
  return sum;
}

}  // namespace orb::test
