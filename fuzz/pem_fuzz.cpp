// Keys in PEM, and what a receiver gets to open, in a sealed payload.
//
// input := algorithm:u8 length:u16 pem (data | sealed)
// sealed := length:u8 iv length:u8 tag ciphertext
// Bit 0 of `algorithm`: GCM, else CBC. Above: 0 opens a sealed payload, with
// `pem` as the sender's key; 1 seals data for `pem`; else `pem` is the
// receiver's private key.
#include "fuzz/fuzz_input.h"
#include "fuzz/fuzz_key.h"
#include "include/orb_encrypt.h"

namespace {

using orb::fuzz::Input;
using Bytes = std::vector<uint8_t>;

// A buffer that was handed out, or was not.
struct Output {
  ~Output() { free(data); }
  uint8_t* data = nullptr;
  uint64_t bytes = 0;
};

struct Sealed {
  Bytes key, data, iv, tag;
};

int32_t Open(int32_t salgo, const char* private_pem, const Sealed& in, Output* out) {
  if (salgo == ORB_SALGO_AES_256_GCM) {
    return orb_decrypt_evp2_ecc_aes_gcm(salgo, ORB_PALGO_ECDH_P256, private_pem, in.data.data(),
                                        in.data.size(), in.key.data(), in.key.size(), in.iv.data(),
                                        in.iv.size(), in.tag.data(), in.tag.size(), &out->data,
                                        &out->bytes);
  }
  return orb_decrypt_evp2_ecc_aes_cbc(salgo, ORB_PALGO_ECDH_P256, private_pem, in.data.data(),
                                      in.data.size(), in.key.data(), in.key.size(), in.iv.data(),
                                      in.iv.size(), &out->data, &out->bytes);
}

void CheckOpened(int32_t result, const Output& out) {
  FUZZ_CHECK(result >= 0 && result <= 2);
  FUZZ_CHECK(result == 0 || (out.data == nullptr && out.bytes == 0));
}

Bytes Copy(const Output& out) { return {out.data, out.data + out.bytes}; }

void Seal(int32_t salgo, const std::string& pem, const Bytes& data) {
  Output key, cipher, iv, tag;
  const int32_t result = orb_encrypt(salgo, ORB_PALGO_ECDH_P256, pem.c_str(), data.data(),
                                     data.size(), &key.data, &key.bytes, &cipher.data,
                                     &cipher.bytes, &iv.data, &iv.bytes, &tag.data, &tag.bytes);
  FUZZ_CHECK(result >= 0 && result <= 2);
  if (result != 0) {
    FUZZ_CHECK(key.data == nullptr && cipher.data == nullptr && iv.data == nullptr);
    return;
  }
  FUZZ_CHECK(!data.empty());
  if (pem != orb::fuzz::kPublicPem) return;
  Output back;
  FUZZ_CHECK(Open(salgo, orb::fuzz::kPrivatePem, {Copy(key), Copy(cipher), Copy(iv), Copy(tag)},
                  &back) == 0);
  FUZZ_CHECK(Copy(back) == data);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input input(data, size);
  const auto algorithm = input.Take<uint8_t>();
  const int32_t salgo = (algorithm & 1) != 0 ? ORB_SALGO_AES_256_GCM : ORB_SALGO_AES_256_CBC;
  const std::string pem = input.TakeText(input.Take<uint16_t>());
  if (algorithm >> 1 == 1) {
    Seal(salgo, pem, input.Rest());
    return 0;
  }
  Output out;
  if (algorithm >> 1 == 0) {
    Sealed sealed{{pem.begin(), pem.end()}, {}, {}, {}};
    sealed.iv = input.TakeBytes(input.Take<uint8_t>());
    sealed.tag = input.TakeBytes(input.Take<uint8_t>());
    sealed.data = input.Rest();
    CheckOpened(Open(salgo, orb::fuzz::kPrivatePem, sealed, &out), out);
  } else {
    const std::string sender = orb::fuzz::kPublicPem;
    const Sealed sealed{
        {sender.begin(), sender.end()}, Bytes(32, 'c'), Bytes(16, 'i'), Bytes(16, 't')};
    CheckOpened(Open(salgo, pem.c_str(), sealed, &out), out);
  }
  return 0;
}
