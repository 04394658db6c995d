// Owning pointers for libcrypto objects. The same sources build against OpenSSL and
// BoringSSL: only what both offer is used, but for the marks of the error queue.
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

// Keeps the thread's error queue as the host left it: what a success leaves in
// the queue would look to the host's own TLS code like an error of its connection.
// Marks that the host has set stay where they are. May be nested.
class ErrorMark {
 public:
  ErrorMark() { Set(); }
  // Without Drop the errors since construction stay: after a failure the caller
  // may want to see the reasons.
  ~ErrorMark() {
    if (!dropped_) Clear();
  }
  ErrorMark(const ErrorMark&) = delete;
  ErrorMark& operator=(const ErrorMark&) = delete;

  // Removes the errors since construction. Call at most once.
  void Drop() {
    dropped_ = true;
    Pop();
  }

 private:
#ifdef OPENSSL_IS_BORINGSSL
  // An error has one mark here, which would also be the host's: popping ours would
  // take the host's away, and a nested one would empty the queue. So no mark is set.
  // A queue that was empty is emptied again. Otherwise nothing is removed, which is
  // right because this library reports no error within a call that succeeds.
  void Set() { was_empty_ = ERR_peek_error() == 0; }
  void Clear() {}
  void Pop() {
    if (was_empty_) ERR_clear_error();
  }
  bool was_empty_ = false;
#else
  // Marks are counted, so ours and the host's may be on the same error.
  void Set() { ERR_set_mark(); }
  void Clear() { ERR_clear_last_mark(); }
  void Pop() { ERR_pop_to_mark(); }
#endif
  bool dropped_ = false;
};

}  // namespace orb
