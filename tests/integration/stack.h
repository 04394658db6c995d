// A whole system for one test: a private bus, the services as real processes
// and clients that the test drives. All of it lives in one temporary directory.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/private_bus.h"

namespace orb::test {

// A probe client process (tests/integration/probe_client.cpp).
class Client {
 public:
  // The answer to one command; "gone" when none came.
  std::string Ask(const std::string& command,
                  std::chrono::milliseconds timeout = std::chrono::seconds(60));
  ChildProcess& process() { return process_; }

 private:
  friend class Stack;
  ChildProcess process_;
};

class Stack {
 public:
  ~Stack();

  void StartManager();
  void StartHal();
  // A program on this stack's bus; its log is LogOf(log_name).
  ChildProcess StartProgram(const std::vector<std::string>& argv, const std::string& log_name,
                            const std::map<std::string, std::string>& env = {}) const;
  ChildProcess& manager() { return manager_; }
  ChildProcess& hal() { return hal_; }
  PrivateBus& bus() { return bus_; }

  // With `limited` not as root, whom no limit of threads holds.
  Client StartClient(bool limited = false);
  // A data directory, ending with '/', whose retries are one second apart.
  std::string MakeDataDir(const std::string& name);
  std::string spool() const { return dir_.path() + "/spool"; }
  std::string path(const std::string& name) const { return dir_.path() + "/" + name; }
  std::string LogOf(const std::string& program) const;
  // How often the text stands in it.
  size_t CountInLog(const std::string& program, const std::string& text) const;

  CommandResult Ctl(const std::vector<std::string>& args);
  // Writes a campaign of counters, all with the given window in samples, for each LicSN,
  // and returns its path.
  std::string WriteCampaign(const std::string& name, const std::vector<uint64_t>& lic_sns,
                            const std::vector<uint32_t>& kpis, uint32_t sample_window,
                            uint32_t threshold_bytes);
  // Starts it on a client, each LicSN without key; true when the client accepted.
  bool StartCampaign(const std::string& client, const std::string& file,
                     const std::vector<uint64_t>& lic_sns, uint64_t id);
  bool WaitRegistered(const std::string& client);

  // Every record in the spool as orbctl decodes it, in upload order per client and LicSN.
  std::vector<nlohmann::json> DecodeSpool();
  // Sum of count over the records of one KPI and LicSN.
  uint64_t Sum(uint64_t lic_sn, uint32_t kpi);

 private:
  std::map<std::string, std::string> Environment() const;

  TempDir dir_;
  PrivateBus bus_;
  ChildProcess manager_;
  ChildProcess hal_;
  int clients_ = 0;
};

}  // namespace orb::test
