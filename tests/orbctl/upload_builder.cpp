#include "tests/orbctl/upload_builder.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <map>

#include "proto/telemetry_footer.pb.h"
#include "tests/crypto/sealed_payload.h"
#include "utility/byte_order.h"

namespace orb::orbctl::test {
namespace {

const KeyPair& Pair(int number) {
  static std::map<int, KeyPair> pairs;
  const auto [pair, added] = pairs.try_emplace(number);
  if (added) pair->second = NewP256();
  return pair->second;
}

// Ciphertext; the footer's content to *footer.
std::string Seal(const UploadPlan& plan, const std::string& data, TelemetryFooter* footer) {
  const SealedPayload sealed = orb::Seal(plan.gcm ? kGcm : kCbc, plan.public_pem, data);
  EXPECT_EQ(sealed.result, 0);
  footer->set_ephemeral_key(sealed.key);
  footer->set_iv(sealed.iv);
  footer->set_gcm_tag(sealed.tag);
  return sealed.data;
}

}  // namespace

std::string Gzip(const std::string& data) {
  z_stream stream{};
  EXPECT_EQ(deflateInit2(&stream, 6, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY), Z_OK);
  std::string out(deflateBound(&stream, data.size()), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  stream.avail_in = static_cast<uInt>(data.size());
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  return out;
}

std::vector<uint8_t> BuildUpload(const UploadPlan& plan) {
  std::string payload = plan.gzip ? Gzip(plan.records) : plan.records;
  std::vector<uint8_t> file(66);
  if (!plan.public_pem.empty()) {
    TelemetryFooter footer;
    payload = Seal(plan, payload, &footer);
    file[61] = 1;
    StoreBigEndian<uint32_t>(&file[62], 66 + static_cast<uint32_t>(payload.size()));
    payload += footer.SerializeAsString();
  }
  StoreBigEndian<uint32_t>(&file[0], 9);
  StoreBigEndian<uint32_t>(&file[4], 66);
  StoreBigEndian<uint32_t>(&file[8], 7);
  file[12] = 4;
  StoreBigEndian<uint32_t>(&file[13], 1);
  StoreBigEndian<uint64_t>(&file[17], 1763716800000);
  StoreBigEndian<uint32_t>(&file[25], static_cast<uint32_t>(payload.size()));
  file[29] = 1;
  file[30] = 1;
  StoreBigEndian<uint64_t>(&file[31], 5000);
  StoreBigEndian<uint16_t>(&file[39], static_cast<uint16_t>(-180));
  StoreBigEndian<uint64_t>(&file[41], 9);
  StoreBigEndian<uint32_t>(&file[49], plan.seqno);
  StoreBigEndian<uint64_t>(&file[53], plan.lic_sn);
  file.insert(file.end(), payload.begin(), payload.end());
  return file;
}

const std::string& PrivatePem(int number) { return Pair(number).private_pem; }
const std::string& PublicPem(int number) { return Pair(number).public_pem; }

}  // namespace orb::orbctl::test
