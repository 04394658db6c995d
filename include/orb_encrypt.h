/* orb SDK: sealing a payload for its data owner, and opening it again.
 *
 * Hybrid scheme: a fresh P-256 key pair per payload, ECDH against the
 * recipient's public key, and AES-256 keyed directly with the shared secret.
 * The receiver needs the ciphertext, the sender's ephemeral public key, the IV
 * and, for GCM, the tag; docs/formats/upload.md tells where an upload has them.
 *
 * Compiles as C99 and C++17. The functions keep no state: any thread, any
 * number at once. They block for the computation only. No key is kept; secrets
 * are overwritten before their memory is released.
 *
 * Results of all: 0 success; 1 arguments refused; 2 a later step failed. The
 * log (tag "orb_encrypt", priority debug) says which, and the reasons of the
 * crypto library stay in the calling thread's error queue, where
 * crypto_error_log_detail finds them; after success the queue is as before.
 *
 * Buffers handed out are allocated with malloc and become the caller's, to be
 * released with free(). With 1 nothing is written to the outputs; with 2 every
 * output is a null pointer with length 0.
 *
 * A length near 2^64 (length + 16 does not fit) ends the process.
 */
#ifndef ORB_ENCRYPT_H_
#define ORB_ENCRYPT_H_

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define ORB_CRYPTO_API __attribute__((visibility("default")))

/* Symmetric algorithm (salgo). */
#define ORB_SALGO_AES_256_CBC 1 /* PKCS#7 padding, no authentication. */
#define ORB_SALGO_AES_256_GCM                                        \
  2 /* 16-byte tag, nonce = first 12 bytes of the IV, no extra data. \
     */

/* Public-key algorithm (palgo). */
#define ORB_PALGO_ECDH_P256 1

/* Encrypts a payload.
 *
 * salgo          ORB_SALGO_...; palgo: ORB_PALGO_ECDH_P256; others are refused.
 * recipient_pem  public key, NUL-terminated PEM ("PUBLIC KEY") of an EC key on
 *                P-256; a key of any other kind or curve gives 2.
 * data           [data_len] bytes, borrowed for the call; 0 bytes are refused,
 *                and 2 GiB or more fail with 2.
 * out_key        PEM text of the ephemeral public key; its length does not
 *                count the NUL that follows it.
 * out_data       ciphertext: CBC data_len rounded up to the next multiple of 16
 *                (always at least one more byte), GCM data_len.
 * out_iv         16 random bytes.
 * out_tag        16 bytes with GCM. With CBC both may be null, and otherwise
 *                become a null pointer and 0.
 *
 * Returns 0, 1 (a null pointer, no data, an unknown algorithm, GCM without
 * out_tag) or 2. */
ORB_CRYPTO_API int32_t orb_encrypt(int32_t salgo, int32_t palgo, const char* recipient_pem,
                                   const uint8_t* data, uint64_t data_len, uint8_t** out_key,
                                   uint64_t* out_key_len, uint8_t** out_data,
                                   uint64_t* out_data_len, uint8_t** out_iv, uint64_t* out_iv_len,
                                   uint8_t** out_tag, uint64_t* out_tag_len);

/* Opens what orb_encrypt sealed with ORB_SALGO_AES_256_CBC.
 *
 * CBC does not authenticate: changed ciphertext may open as changed data.
 *
 * salgo              ORB_SALGO_AES_256_CBC; palgo: ORB_PALGO_ECDH_P256.
 * private_pem        the receiver's private key, NUL-terminated PEM, without a
 *                    passphrase, of an EC key on P-256.
 * in_data            [in_len] bytes of ciphertext, at least one.
 * ephemeral_pem      [ephemeral_pem_len] bytes, the sender's ephemeral key.
 * iv                 [iv_len] bytes, at least 16, of which 16 count.
 * out_data           the payload; the buffer has room for in_len + 16 bytes.
 *
 * All inputs are borrowed for the call. Returns 0, 1 (a null pointer, an empty
 * input, a short IV, another algorithm) or 2. At priority debug the log shows
 * the secret of the payload: see docs/security.md. */
ORB_CRYPTO_API int32_t orb_decrypt_evp2_ecc_aes_cbc(int32_t salgo, int32_t palgo,
                                                    const char* private_pem, const uint8_t* in_data,
                                                    uint64_t in_len, const uint8_t* ephemeral_pem,
                                                    uint64_t ephemeral_pem_len, const uint8_t* iv,
                                                    uint64_t iv_len, uint8_t** out_data,
                                                    uint64_t* out_data_len);

/* The same for ORB_SALGO_AES_256_GCM, which also takes the [tag_len] bytes of
 * the tag: a null pointer gives 1, another length than 16 and a tag that does
 * not match give 2, and nothing of the payload comes out. Of the IV, at least
 * 12 bytes must be there and 12 count. */
ORB_CRYPTO_API int32_t orb_decrypt_evp2_ecc_aes_gcm(
    int32_t salgo, int32_t palgo, const char* private_pem, const uint8_t* in_data, uint64_t in_len,
    const uint8_t* ephemeral_pem, uint64_t ephemeral_pem_len, const uint8_t* iv, uint64_t iv_len,
    const uint8_t* tag, uint64_t tag_len, uint8_t** out_data, uint64_t* out_data_len);

/* Takes the oldest error from the calling thread's queue of the crypto library
 * and logs it at debug priority; logs code 0 when there is none. */
ORB_CRYPTO_API void crypto_error_log_detail(void);

#ifdef __cplusplus
}
#endif

#endif /* ORB_ENCRYPT_H_ */
