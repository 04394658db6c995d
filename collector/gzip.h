// gzip, as uploads are compressed.
#pragma once

#include <cstdint>
#include <cstdio>

// Compresses the src_len bytes that remain in src into *dst (malloc; the caller
// frees), *dst_len bytes. 0, or -22, -12 or zlib's error with *dst null.
int GzipRest(FILE* src, uint32_t src_len, uint8_t** dst, uint32_t* dst_len);
