/** @file
 * orb SDK: sealing a payload for its data owner, and opening it again.
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

/** Marks what the library exports. */
#define ORB_CRYPTO_API __attribute__((visibility("default")))

/** Symmetric algorithm (salgo): AES-256-CBC, PKCS\#7 padding, no authentication. */
#define ORB_SALGO_AES_256_CBC 1
/** Symmetric algorithm (salgo): AES-256-GCM, 16-byte tag, nonce = first 12 bytes of
 * the IV, no extra data. */
#define ORB_SALGO_AES_256_GCM 2
/** Public-key algorithm (palgo), the only one. */
#define ORB_PALGO_ECDH_P256 1

/** Encrypts a payload.
 *
 * @param salgo          ORB_SALGO_...; others are refused.
 * @param palgo          ORB_PALGO_ECDH_P256; others are refused.
 * @param recipient_pem  public key, NUL-terminated PEM ("PUBLIC KEY") of an EC key
 *                       on P-256; a key of any other kind or curve gives 2.
 * @param data           the payload, borrowed for the call.
 * @param data_len       its bytes; 0 is refused, more than 2^31 - 17 fail with 2.
 * @param out_key        PEM text of the ephemeral public key.
 * @param out_key_len    its bytes, without the NUL that follows them.
 * @param out_data       ciphertext.
 * @param out_data_len   its bytes: CBC data_len rounded up to the next multiple of
 *                       16 (always at least one more byte), GCM data_len.
 * @param out_iv         random bytes.
 * @param out_iv_len     their number, 16.
 * @param out_tag        the tag with GCM. With CBC it becomes a null pointer, and
 *                       this and out_tag_len may be null.
 * @param out_tag_len    its bytes, 16; with CBC 0.
 *
 * @return 0, 1 (a null pointer, no data, an unknown algorithm, GCM without
 *         out_tag or out_tag_len) or 2. */
ORB_CRYPTO_API int32_t orb_encrypt(int32_t salgo, int32_t palgo, const char* recipient_pem,
                                   const uint8_t* data, uint64_t data_len, uint8_t** out_key,
                                   uint64_t* out_key_len, uint8_t** out_data,
                                   uint64_t* out_data_len, uint8_t** out_iv, uint64_t* out_iv_len,
                                   uint8_t** out_tag, uint64_t* out_tag_len);

/** Opens what orb_encrypt sealed with ORB_SALGO_AES_256_CBC. All inputs are borrowed
 * for the call.
 *
 * CBC does not authenticate: changed ciphertext may open as changed data. At
 * priority debug the log shows the secret of the payload: see docs/security.md.
 *
 * @param salgo              ORB_SALGO_AES_256_CBC; others are refused.
 * @param palgo              ORB_PALGO_ECDH_P256; others are refused.
 * @param private_pem        the receiver's private key, NUL-terminated PEM, without
 *                           a passphrase, of an EC key on P-256.
 * @param in_data            ciphertext.
 * @param in_len             its bytes; 0 is refused, more than 2^31 - 17 fail with 2.
 * @param ephemeral_pem      the sender's ephemeral public key, PEM.
 * @param ephemeral_pem_len  its bytes, at least one; a NUL is not needed.
 * @param iv                 the sender's IV.
 * @param iv_len             its bytes, at least 16, of which 16 count.
 * @param out_data           the payload; the buffer has room for in_len + 16 bytes.
 * @param out_data_len       the payload's bytes.
 *
 * @return 0, 1 (a null pointer, an empty input, a short IV, another algorithm) or
 *         2. */
ORB_CRYPTO_API int32_t orb_decrypt_evp2_ecc_aes_cbc(int32_t salgo, int32_t palgo,
                                                    const char* private_pem, const uint8_t* in_data,
                                                    uint64_t in_len, const uint8_t* ephemeral_pem,
                                                    uint64_t ephemeral_pem_len, const uint8_t* iv,
                                                    uint64_t iv_len, uint8_t** out_data,
                                                    uint64_t* out_data_len);

/** The same for ORB_SALGO_AES_256_GCM, which authenticates: a tag that does not match
 * gives 2, and nothing of the payload comes out.
 *
 * @param salgo              ORB_SALGO_AES_256_GCM; others are refused.
 * @param palgo              as for CBC, and so are the keys and the ciphertext.
 * @param private_pem        see there.
 * @param in_data            see there.
 * @param in_len             see there.
 * @param ephemeral_pem      see there.
 * @param ephemeral_pem_len  see there.
 * @param iv                 the sender's IV.
 * @param iv_len             its bytes, at least 12, of which 12 count.
 * @param tag                the sender's tag; null gives 1.
 * @param tag_len            its bytes; another number than 16 gives 2.
 * @param out_data           see there.
 * @param out_data_len       see there.
 *
 * @return as for CBC. */
ORB_CRYPTO_API int32_t orb_decrypt_evp2_ecc_aes_gcm(
    int32_t salgo, int32_t palgo, const char* private_pem, const uint8_t* in_data, uint64_t in_len,
    const uint8_t* ephemeral_pem, uint64_t ephemeral_pem_len, const uint8_t* iv, uint64_t iv_len,
    const uint8_t* tag, uint64_t tag_len, uint8_t** out_data, uint64_t* out_data_len);

/** Takes the oldest error from the calling thread's queue of the crypto library
 * and logs it at debug priority; logs code 0 when there is none. */
ORB_CRYPTO_API void crypto_error_log_detail(void);

#ifdef __cplusplus
}
#endif

#endif /* ORB_ENCRYPT_H_ */
