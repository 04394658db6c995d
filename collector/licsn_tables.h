// What a campaign says of each LicSN: how its data is sealed, which KPIs feed it.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

// How the data of one LicSN is sealed: for whom, and with which algorithms.
struct ISVKeyStruct {
  std::string encryptionPKey;  // PEM text, as received.
  int pKeyEncAlgo = 0;
  int sKeyEncAlgo = 0;
};

using LicSnKeyTable = std::map<uint64_t, ISVKeyStruct>;
using KpiLicSnTable = std::map<uint32_t, std::vector<uint64_t>>;
using LicSnFlagTable = std::map<uint64_t, bool>;
