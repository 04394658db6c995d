// Tested by tests/reader/upload_reader_test.cpp.
#include "reader/cbc_blocks.h"

#include "crypto/key_agreement.h"
#include "utility/checked.h"

namespace orb::reader {
namespace {

constexpr size_t kBlockBytes = 16;

EcKeyPtr ReadKey(const std::string& pem, PKeyPtr (*read)(BIO*)) {
  const BioPtr bio = ViewBio(pem.data(), pem.size());
  const PKeyPtr key = bio == nullptr ? nullptr : read(bio.get());
  return EcKeyPtr(key == nullptr ? nullptr : EVP_PKEY_get1_EC_KEY(key.get()));
}

}  // namespace

std::vector<uint8_t> DecryptCbcBlocks(std::span<const uint8_t> data,
                                      const std::string& ephemeral_pem, const std::string& iv,
                                      const std::string& private_pem) {
  const size_t bytes = data.size() / kBlockBytes * kBlockBytes;
  const EcKeyPtr own = ReadKey(private_pem, ReadPrivateKey);
  const EcKeyPtr peer = ReadKey(ephemeral_pem, ReadPublicKey);
  if (bytes == 0 || iv.size() != kIvBytes || own == nullptr || peer == nullptr) return {};
  WipedBuffer secret(kSecretBytes + 1);
  if (!secret.ok() ||
      ComputeSecret(EC_KEY_get0_group(peer.get()), EC_KEY_get0_public_key(peer.get()), own.get(),
                    &secret) != static_cast<int>(kSecretBytes)) {
    return {};
  }
  const CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  std::vector<uint8_t> plain(bytes);
  int written = 0;
  if (ctx == nullptr ||
      EVP_DecryptInit_ex(ctx.get(), EVP_aes_256_cbc(), nullptr, secret.data(),
                         reinterpret_cast<const uint8_t*>(iv.data())) != 1 ||
      EVP_CIPHER_CTX_set_padding(ctx.get(), 0) != 1 ||
      EVP_DecryptUpdate(ctx.get(), plain.data(), &written, data.data(), CheckedCast<int>(bytes)) !=
          1) {
    return {};
  }
  plain.resize(static_cast<size_t>(written));
  return plain;
}

}  // namespace orb::reader
