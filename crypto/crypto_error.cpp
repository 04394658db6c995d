// Tested by tests/crypto/orb_encrypt_test.cpp.
#define ORB_LOG_TAG "orb_encrypt"

#include <openssl/bio.h>
#include <openssl/err.h>

#include "include/orb_encrypt.h"
#include "utility/log.h"

void crypto_error_log_detail(void) {
  // This does nothing in a library that loads its texts by itself.
  ERR_load_ERR_strings();
  ERR_load_crypto_strings();
  ERR_load_BIO_strings();
  const auto code = ERR_get_error();
  char text[1024] = {};
  ERR_error_string_n(code, text, sizeof text);
  LOGD("boringssl error code[%u] string: %s", static_cast<unsigned>(code), text);
}
