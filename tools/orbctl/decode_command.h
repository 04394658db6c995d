// orbctl decode FILE|DIR...: spooled uploads as readable records.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "reader/record_printer.h"

namespace orb::orbctl {

struct DecodeCommand {
  std::vector<std::string> paths;      // Folders: every *.orb below them, by name.
  std::vector<std::string> key_paths;  // Private keys; the one that fits opens an upload.
  std::string campaign_path;           // Empty: records are not explained.
  reader::RecordFormat format = reader::RecordFormat::kText;
  bool salvage = false;  // Go on behind damage, and tell what was passed over.

  // Prints records to `out`; what is damaged or stays sealed is named on
  // standard error, and the rest still decoded. The exit code: 0 when everything
  // was decoded.
  int Run(std::ostream& out) const;
};

}  // namespace orb::orbctl
