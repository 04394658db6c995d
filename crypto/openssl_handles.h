// Owning pointers for libcrypto objects. The same sources build against
// OpenSSL and BoringSSL: only what both offer is used.
#pragma once

#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>

#include <memory>

namespace orb {

template <auto kFree>
struct FreeWith {
  template <typename T>
  void operator()(T* object) const {
    kFree(object);
  }
};

using BioPtr = std::unique_ptr<BIO, FreeWith<BIO_free>>;
using PKeyPtr = std::unique_ptr<EVP_PKEY, FreeWith<EVP_PKEY_free>>;
using PKeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, FreeWith<EVP_PKEY_CTX_free>>;
// Frees a private key with its memory wiped, as does the cipher context.
using EcKeyPtr = std::unique_ptr<EC_KEY, FreeWith<EC_KEY_free>>;
using CipherCtxPtr = std::unique_ptr<EVP_CIPHER_CTX, FreeWith<EVP_CIPHER_CTX_free>>;

// Keeps the thread's error queue clean: what a success left behind would look
// to the host's own TLS code like an error of its connection.
class ErrorMark {
 public:
  ErrorMark() { ERR_set_mark(); }
  // Drops the errors since construction. Not called after a failure, whose
  // reasons the caller may want to see.
  void Drop() { ERR_pop_to_mark(); }
};

}  // namespace orb
