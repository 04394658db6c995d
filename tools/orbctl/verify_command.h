// orbctl verify DIR: what is wrong with a spool.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace orb::orbctl {

struct VerifyCommand {
  std::string directory;
  std::vector<std::string> key_paths;  // Private keys; without any, sealed data are not looked at.
  bool json = false;

  // Prints a line for each finding, and a last one with the counts: readable text, or
  // JSON Lines. The exit code: 0 when nothing was found, 1 for findings and for a
  // folder or key that cannot be read.
  int Run(std::ostream& out) const;
};

}  // namespace orb::orbctl
