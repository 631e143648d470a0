// SPDX-License-Identifier: Apache-2.0
// Decrypts (or encrypts) the rest of an open package file with AES-256-CBC into
// one buffer. Several threads may do so at once: each receives a buffer of its own,
// and one global pointer remembers the last.
#ifndef FW_UPDATE_CIPHER_H
#define FW_UPDATE_CIPHER_H

#include <cstdio>

#include "fw-update-export.h"

// The buffer that the last aes_256_cbc_all allocated, null after a failed
// allocation. Not an owner: whoever received the buffer frees it.
FW_UPDATE_EXPORT extern unsigned char* cipher_buf_all;

// Processes fp from its position to count - 534 bytes further on; the last 534
// bytes of the span are never processed. key is 32 bytes, iv 16; enc is 1 to
// encrypt, 0 to decrypt. The padding is not checked.
// Returns a buffer of count bytes, which the caller releases with free(), and
// its used length in outLen; null and 0 when count is below 534 or an
// allocation failed.
FW_UPDATE_EXPORT unsigned char* aes_256_cbc_all(FILE* fp, const unsigned char* key, const unsigned char* iv,
                                                int enc, int count, int& outLen);

#endif
