// A client that integration tests drive: one command a line on standard input,
// one answer a line on standard output.
//
//   register NAME DIR/ sync|async [slots COUNT BYTES]   -> ok | null
//   log NAME KPI VALUE COUNT      -> result of the last call
//   blob NAME KPI BYTES           -> result
//   limit size BYTES | limit files N | limit threads N
//                                 -> ok; the process's soft limit, -1: none. Threads are
//                                    counted over all processes of its user.
//   enabled NAME KPI | campaign NAME | flush NAME | deregister NAME   -> result
#include <signal.h>
#include <sys/resource.h>

#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "orb_sdk.h"

namespace {

class Probe {
 public:
  // The answer to one command line.
  std::string Run(const std::string& line) {
    std::istringstream in(line);
    std::string verb;
    std::string name;
    in >> verb;
    if (verb == "limit") return Limit(in);
    in >> name;
    if (verb == "register") return Register(name, in);
    const auto found = collectors_.find(name);
    if (found == collectors_.end()) return "no collector " + name;
    return RunOn(found->second, verb, name, in);
  }

 private:
  static std::string Limit(std::istringstream& in) {
    std::string what;
    int64_t most = -1;
    in >> what >> most;
    const auto resource = what == "files"     ? RLIMIT_NOFILE
                          : what == "threads" ? RLIMIT_NPROC
                                              : RLIMIT_FSIZE;
    rlimit limit{};
    getrlimit(resource, &limit);
    limit.rlim_cur = most < 0 ? limit.rlim_max : static_cast<rlim_t>(most);
    signal(SIGXFSZ, SIG_IGN);
    return setrlimit(resource, &limit) == 0 ? "ok" : "failed";
  }

  std::string Register(const std::string& name, std::istringstream& in) {
    std::string dir;
    std::string mode;
    std::string slots;
    in >> dir >> mode >> slots;
    kiv_cfg_s cfg{};
    cfg.name = name.c_str();
    cfg.data_dir = dir.c_str();
    cfg.sync_register = mode == "sync";
    if (slots == "slots") {
      uint32_t count = 0;
      uint32_t bytes = 0;
      in >> count >> bytes;
      cfg.hbt = 1;
      cfg.allocate_fd = 1;
      cfg.fd_nof_slots = count;
      cfg.fd_slot_size = bytes;
    }
    kiv_collector* c = kiv_register(&cfg);
    if (c == nullptr) return "null";
    collectors_[name] = c;
    return "ok";
  }

  std::string RunOn(kiv_collector* c, const std::string& verb, const std::string& name,
                    std::istringstream& in) {
    uint32_t kpi = 0;
    if (verb == "deregister") {
      collectors_.erase(name);
      return std::to_string(kiv_deregister(c));
    }
    if (verb == "flush") return std::to_string(kiv_flush(c));
    if (verb == "campaign") {
      uint64_t id = 0;
      return kiv_get_campaign_id(c, &id) == 0 ? std::to_string(id) : "-1";
    }
    in >> kpi;
    if (verb == "enabled") return std::to_string(kiv_is_kpi_enabled(c, kpi));
    if (verb == "blob") {
      uint32_t bytes = 0;
      in >> bytes;
      const std::vector<uint8_t> blob(bytes, 'b');
      return std::to_string(kiv_log_blob(c, kpi, blob.data(), bytes));
    }
    if (verb == "log") {
      uint32_t value = 0;
      int count = 1;
      int result = 0;
      in >> value >> count;
      for (int i = 0; i < count; ++i) result = kiv_log(c, kpi, value);
      return std::to_string(result);
    }
    return "unknown command " + verb;
  }

  std::map<std::string, kiv_collector*> collectors_;
};

}  // namespace

int main() {
  Probe probe;
  std::string line;
  while (std::getline(std::cin, line)) std::cout << probe.Run(line) << std::endl;
  return 0;
}
