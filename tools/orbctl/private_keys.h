// Private keys that a command line names.
#pragma once

#include <string>
#include <vector>

#include "reader/upload_reader.h"

namespace orb::orbctl {

// Reads each as PEM text. False, told on standard error, when one is none.
bool ReadKeys(const std::vector<std::string>& paths, std::vector<reader::PrivateKey>* keys);

}  // namespace orb::orbctl
