#include "tests/orbctl/upload_builder.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <map>

#include "include/orb_encrypt.h"
#include "proto/telemetry_footer.pb.h"
#include "tests/support/child_process.h"
#include "tools/orbctl/key_command.h"
#include "utility/byte_order.h"

namespace orb::orbctl::test {
namespace {

struct KeyPair {
  std::string private_pem;
  std::string public_pem;
};

const KeyPair& Pair(int number) {
  static std::map<int, KeyPair> pairs;
  if (pairs.count(number) == 0) {
    const orb::test::TempDir dir;
    EXPECT_EQ(NewKey(dir.path(), false), 0);
    pairs[number] = {orb::test::ReadFileOrEmpty(dir.path() + "/private.pem"),
                     orb::test::ReadFileOrEmpty(dir.path() + "/public.pem")};
  }
  return pairs[number];
}

std::string Take(uint8_t* buffer, uint64_t bytes) {
  const std::string text(reinterpret_cast<char*>(buffer), bytes);
  free(buffer);
  return text;
}

// Ciphertext; the footer's content to *footer.
std::string Seal(const UploadPlan& plan, const std::string& data, TelemetryFooter* footer) {
  uint8_t* out[4] = {};
  uint64_t bytes[4] = {};
  EXPECT_EQ(orb_encrypt(plan.gcm ? 2 : 1, 1, plan.public_pem.c_str(),
                        reinterpret_cast<const uint8_t*>(data.data()), data.size(), &out[0],
                        &bytes[0], &out[1], &bytes[1], &out[2], &bytes[2], &out[3], &bytes[3]),
            0);
  footer->set_ephemeral_key(Take(out[0], bytes[0]));
  footer->set_iv(Take(out[2], bytes[2]));
  footer->set_gcm_tag(Take(out[3], bytes[3]));
  return Take(out[1], bytes[1]);
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
