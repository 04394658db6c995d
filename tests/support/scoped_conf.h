// Limits of a configuration file in force for a while; the defaults afterwards.
#pragma once

#include <string>

#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"
#include "utility/conf.h"

namespace orb::test {

class ScopedConf {
 public:
  // `text` is the file's content.
  explicit ScopedConf(const std::string& text) {
    WriteFile(dir_.path() + "/orb_sdk.conf", text);
    Load(dir_.path() + "/");
  }
  ~ScopedConf() { Load(dir_.path() + "/none/"); }
  ScopedConf(const ScopedConf&) = delete;
  ScopedConf& operator=(const ScopedConf&) = delete;

 private:
  static void Load(const std::string& data_dir) {
    const LogCapture quiet;  // Forty lines that no test is about.
    Conf::Load(data_dir);
  }

  TempDir dir_;
};

}  // namespace orb::test
