// Question: what does SendData cost beyond compression, cipher, one copy, the
// plain key work and one sequence-file cycle, each timed alone?
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <unistd.h>
#include <zlib.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "ipc/KIVCampConfig.h"
#include "proto/kpi_data.pb.h"
#include "proto/ltc_campaign.pb.h"
#include "serializer/telemetry_header.h"
#include "tests/support/bench_session.h"

namespace orb::bench {
namespace {

enum Seal { kPlain = 0, kCbc = 1, kGcm = 2 };
constexpr size_t kChunkBytes = 16384;

// Records such as a campaign of counters writes, up to `bytes`.
std::string Records(size_t bytes) {
  std::string out;
  for (uint32_t i = 0; out.size() < bytes; ++i) {
    orbtr::KPIData data;
    orbtr::Counter* counter = data.add_counters();
    counter->mutable_meta()->set_kpi_id(1000 + i % 40);
    counter->mutable_meta()->set_ts_start(1000000 + i / 4);
    counter->mutable_meta()->set_ts_end(1000009 + i / 4);
    counter->mutable_meta()->set_num_samples(10 + i % 3);
    counter->set_count((i * 2654435761u) % 100000);
    data.AppendToString(&out);
  }
  out.resize(bytes);
  return out;
}

std::string PublicKeyPem() {
  EVP_PKEY* key = EVP_EC_gen("P-256");
  BIO* bio = BIO_new(BIO_s_mem());
  PEM_write_bio_PUBKEY(bio, key);
  char* text = nullptr;
  const long length = BIO_get_mem_data(bio, &text);
  std::string pem(text, static_cast<size_t>(length));
  BIO_free(bio);
  EVP_PKEY_free(key);
  return pem;
}

// --- The floor, part by part. ---
void BM_FloorDeflate(benchmark::State& state) {
  const std::string input = Records(static_cast<size_t>(state.range(0)));
  std::vector<uint8_t> out(input.size() + 65536);
  for (auto _ : state) {
    z_stream stream{};
    deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY);
    stream.next_out = out.data();
    stream.avail_out = static_cast<uInt>(out.size());
    for (size_t at = 0; at < input.size(); at += kChunkBytes) {
      stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(input.data() + at));
      stream.avail_in = static_cast<uInt>(std::min(kChunkBytes, input.size() - at));
      deflate(&stream, at + kChunkBytes >= input.size() ? Z_FINISH : Z_NO_FLUSH);
    }
    state.counters["compressed_bytes"] = static_cast<double>(stream.total_out);
    deflateEnd(&stream);
  }
}
BENCHMARK(BM_FloorDeflate)->Arg(64 << 10)->Arg(1 << 20)->Arg(4 << 20);

// range(0): bytes to seal, about what the payload compresses to; range(1): mode.
void BM_FloorCipher(benchmark::State& state) {
  const std::string input(static_cast<size_t>(state.range(0)), 'x');
  std::vector<uint8_t> out(input.size() + 16);
  const uint8_t key[32] = {1};
  const uint8_t iv[16] = {2};
  for (auto _ : state) {
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    int length = 0;
    EVP_EncryptInit_ex(ctx, state.range(1) == kCbc ? EVP_aes_256_cbc() : EVP_aes_256_gcm(), nullptr,
                       key, iv);
    EVP_EncryptUpdate(ctx, out.data(), &length, reinterpret_cast<const uint8_t*>(input.data()),
                      static_cast<int>(input.size()));
    EVP_EncryptFinal_ex(ctx, out.data() + length, &length);
    EVP_CIPHER_CTX_free(ctx);
  }
}
BENCHMARK(BM_FloorCipher)->ArgsProduct({{16 << 10, 256 << 10, 1 << 20}, {kCbc, kGcm}});

void BM_FloorCopy(benchmark::State& state) {
  const std::string input(static_cast<size_t>(state.range(0)), 'x');
  std::string out(input.size(), 'y');
  for (auto _ : state) {
    memcpy(out.data(), input.data(), input.size());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_FloorCopy)->Arg(64 << 10)->Arg(1 << 20)->Arg(4 << 20);

// Read the PEM, make the ephemeral pair, derive, write its PEM.
void BM_FloorKeyWork(benchmark::State& state) {
  const std::string pem = PublicKeyPem();
  for (auto _ : state) {
    BIO* in = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
    EVP_PKEY* peer = PEM_read_bio_PUBKEY(in, nullptr, nullptr, nullptr);
    EVP_PKEY* mine = EVP_EC_gen("P-256");
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(mine, nullptr);
    uint8_t secret[32];
    size_t length = sizeof secret;
    EVP_PKEY_derive_init(ctx);
    EVP_PKEY_derive_set_peer(ctx, peer);
    EVP_PKEY_derive(ctx, secret, &length);
    BIO* out = BIO_new(BIO_s_mem());
    PEM_write_bio_PUBKEY(out, mine);
    benchmark::DoNotOptimize(secret);
    BIO_free(out);
    EVP_PKEY_CTX_free(ctx);
    EVP_PKEY_free(mine);
    EVP_PKEY_free(peer);
    BIO_free(in);
  }
}
BENCHMARK(BM_FloorKeyWork)->Unit(benchmark::kMicrosecond);

void BM_FloorSequenceFile(benchmark::State& state) {
  std::string path = std::filesystem::temp_directory_path() / "orb-bench-seq-XXXXXX";
  close(mkstemp(path.data()));
  for (auto _ : state) {
    unsigned number = 0;
    FILE* in = fopen(path.c_str(), "re");
    if (in != nullptr) {
      if (fscanf(in, "%u", &number) != 1) number = 0;
      fclose(in);
    }
    FILE* out = fopen(path.c_str(), "we");
    fprintf(out, "%u\n", number + 1);
    fflush(out);
    fsync(fileno(out));
    fclose(out);
  }
  unlink(path.c_str());
}
BENCHMARK(BM_FloorSequenceFile)->UseRealTime()->Unit(benchmark::kMicrosecond);

// --- The upload. ---
void StartSealed(Session* session, Seal seal) {
  LTCCampaignDef def;
  def.set_threshold_size(4194304);
  LicenseSNKPIMap* map = def.add_lic_sn_kpi_maps();
  map->set_lic_sn(42);
  map->set_encrypt(seal != kPlain);
  const std::string bytes = def.SerializeAsString();
  const std::string pem = PublicKeyPem();
  KIVCampConfig config;
  config.campaignDef.assign(bytes.begin(), bytes.end());
  config.licInfo.resize(1);
  config.licInfo[0].licSN = 42;
  if (seal != kPlain) {
    config.licInfo[0].sKeyEncAlgo = seal;
    config.licInfo[0].pKeyEncAlgo = 1;
    config.licInfo[0].encryptionPKey.assign(pem.begin(), pem.end());
  }
  if (session->get()->StartSession(config) != 0) abort();
}

void BM_SendData(benchmark::State& state) {
  Session::Options options;
  options.start = false;
  Session session(KpiMix{}, options);
  StartSealed(&session, static_cast<Seal>(state.range(1)));
  const std::vector<uint8_t> header = session.get()->BuildFileHeader(42);
  const std::string payload = Records(static_cast<size_t>(state.range(0)));
  const std::string path = session.dir() + "upload";
  for (auto _ : state) {
    state.PauseTiming();
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(header.data()), 66);
    file << payload;
    file.close();
    state.ResumeTiming();
    if (session.get()->SendData(path) != 0) state.SkipWithError("not sent");
  }
}
BENCHMARK(BM_SendData)
    ->ArgsProduct({{64 << 10, 1 << 20, 4 << 20}, {kPlain, kCbc, kGcm}})
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace orb::bench
