// Owning pointers for libcrypto objects. The same sources build against OpenSSL and BoringSSL:
// except for the marks of the error queue they use only what both have.
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
// Wipes the memory of a private key before it is freed. The cipher context does the same.
using EcKeyPtr = std::unique_ptr<EC_KEY, FreeWith<EC_KEY_free>>;
using CipherCtxPtr = std::unique_ptr<EVP_CIPHER_CTX, FreeWith<EVP_CIPHER_CTX_free>>;

// Keeps the thread's error queue as the host left it: an error that a successful call leaves
// there looks to the host's TLS code like an error of its connection. Marks of the host stay
// where they are. Scopes may be nested.
class ErrorMark {
 public:
  ErrorMark() { Set(); }
  // Unless Drop was called, the errors since construction stay, because after a failure the
  // caller may want to see the reasons.
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
  // In BoringSSL an error has at most one mark. If we set one, popping it would remove the
  // host's mark, and a nested scope would empty the queue. So no mark is set. A queue that was
  // empty is emptied again. Otherwise nothing is removed: this library reports no error in a
  // call that succeeds.
  void Set() { was_empty_ = ERR_peek_error() == 0; }
  void Clear() {}
  void Pop() {
    if (was_empty_) ERR_clear_error();
  }
  bool was_empty_ = false;
#else
  // OpenSSL counts marks, so ours and the host's may be on the same error.
  void Set() { ERR_set_mark(); }
  void Clear() { ERR_clear_last_mark(); }
  void Pop() { ERR_pop_to_mark(); }
#endif
  bool dropped_ = false;
};

}  // namespace orb
