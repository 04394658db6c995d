// Uploads as a client makes them, for tests of what reads them.
#pragma once

#include <gtest/gtest.h>
#include <zlib.h>

#include <map>
#include <string>
#include <vector>

#include "proto/telemetry_footer.pb.h"
#include "serializer/header_layout.h"
#include "tests/crypto/sealed_payload.h"
#include "tests/support/child_process.h"

namespace orb::reader::test {

struct UploadPlan {
  std::string records;
  uint64_t lic_sn = 42;
  uint32_t seqno = 3;
  bool gzip = true;
  std::string public_pem;  // Empty: not encrypted.
  bool gcm = true;
};

// The key of this number. Kept for the process.
inline const KeyPair& Pair(int number) {
  static std::map<int, KeyPair> pairs;
  const auto [pair, added] = pairs.try_emplace(number);
  if (added) pair->second = NewP256();
  return pair->second;
}
inline const std::string& PrivatePem(int number) { return Pair(number).private_pem; }
inline const std::string& PublicPem(int number) { return Pair(number).public_pem; }

inline std::string Gzip(const std::string& data) {
  const orb::test::TempDir dir;
  const std::string path = dir.path() + "/gzip";
  gzFile file = gzopen(path.c_str(), "wb");
  EXPECT_EQ(gzwrite(file, data.data(), static_cast<unsigned>(data.size())),
            static_cast<int>(data.size()));
  EXPECT_EQ(gzclose(file), Z_OK);
  return orb::test::ReadFileOrEmpty(path);
}

// The whole file.
inline std::vector<uint8_t> BuildUpload(const UploadPlan& plan) {
  std::string payload = plan.gzip ? Gzip(plan.records) : plan.records;
  std::vector<uint8_t> file(header::kBytes);
  if (!plan.public_pem.empty()) {
    const SealedPayload sealed = Seal(plan.gcm ? kGcm : kCbc, plan.public_pem, payload);
    EXPECT_EQ(sealed.result, 0);
    TelemetryFooter footer;
    footer.set_ephemeral_key(sealed.key);
    footer.set_iv(sealed.iv);
    footer.set_gcm_tag(sealed.tag);
    header::kEncrypted.Store(file.data(), 1);
    header::kFooterOffset.Store(file.data(),
                                header::kBytes + static_cast<uint32_t>(sealed.data.size()));
    payload = sealed.data + footer.SerializeAsString();
  }
  header::kFormat.Store(file.data(), header::kFormatWord);
  header::kSize.Store(file.data(), header::kBytes);
  header::kClientId.Store(file.data(), 7);
  header::kKind.Store(file.data(), 4);
  header::kVersion.Store(file.data(), 1);
  header::kCreated.Store(file.data(), 1763716800000);
  header::kLength.Store(file.data(), static_cast<uint32_t>(payload.size()));
  header::kConstant.Store(file.data(), header::kConstantByte);
  header::kCompressed.Store(file.data(), 1);
  header::kUptime.Store(file.data(), 5000);
  header::kTimeZone.Store(file.data(), static_cast<uint16_t>(-180));
  header::kCampaignId.Store(file.data(), 9);
  header::kSeqno.Store(file.data(), plan.seqno);
  header::kLicSn.Store(file.data(), plan.lic_sn);
  file.insert(file.end(), payload.begin(), payload.end());
  return file;
}

}  // namespace orb::reader::test
