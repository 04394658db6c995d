// Private keys that a command line names.
#pragma once

#include <string>
#include <vector>

#include "tools/orbctl/upload_reader.h"

namespace orb::orbctl {

// Reads each as PEM text. False, told on standard error, when one is none.
bool ReadKeys(const std::vector<std::string>& paths, std::vector<PrivateKey>* keys);

}  // namespace orb::orbctl
