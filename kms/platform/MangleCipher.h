// The mangle library's bulk cipher: AES in CBC mode with PKCS#7 padding, in a
// self-contained stream. Encryption draws a fresh 16-byte IV from
// mangleGetRandom at setup and emits it ahead of the ciphertext; decryption
// takes the first 16 bytes of its input as the IV.
//
//   stream = IV (16) || AES-CBC(key, IV, plaintext with PKCS#7 padding)
//
// Stores written by builds that used another mangle implementation are only
// readable if that implementation produced this same stream.
//
// Every function returns MANGLE_OK (0) or one of the codes below. A context is
// an opaque block owned by the library between setup and free; the caller
// zeroes it before first use and frees it when done. One context belongs to
// one thread at a time.
#pragma once

#include <cstddef>

constexpr size_t MANGLE_CTX_SIZE = 728;

struct mangleCipherCtx_t {
  unsigned char opaque[MANGLE_CTX_SIZE];
};

enum mangleCipherType : int {
  MANGLE_AES_128 = 1,
  MANGLE_AES_192 = 2,
  MANGLE_AES_256 = 3,
};

enum mangleResult : int {
  MANGLE_OK = 0,
  MANGLE_ERR_ARGUMENT = 16,   // null pointer, unknown type, key of the wrong length
  MANGLE_ERR_NOT_READY = 17,  // the context was not set up (or set up for the other direction)
  MANGLE_ERR_CIPHER = 18,     // the cipher engine, memory or the random source failed
  MANGLE_ERR_FINISHED = 19,   // a call after the final call
  MANGLE_ERR_CHECK = 20,      // decryption's final check failed: bad padding or short stream
};

// Prepares `ctx` for encryption under `key` (16, 24 or 32 bytes for types 1, 2,
// 3). `ctx` must be zeroed or freed. The IV is drawn here.
int mangleEncryptSetup(const unsigned char* key, unsigned long keylen, int type,
                       mangleCipherCtx_t* ctx);
// Consumes `len` bytes; `final` 1 ends the stream and adds the padding block.
int mangleEncrypt(const unsigned char* data, unsigned long len, int final, mangleCipherCtx_t* ctx);
// The bytes produced since the previous get (the IV leads the first). The
// pointer stays valid until the next call on `ctx`.
int mangleGetEncryptedData(const unsigned char** out, unsigned long* outlen,
                           mangleCipherCtx_t* ctx);
// Releases what setup took and zeroes `ctx`. Safe on a zeroed context.
int mangleEncryptFree(mangleCipherCtx_t* ctx);

// The same for decryption. mangleDecrypt with `final` 1 checks the padding and
// returns MANGLE_ERR_CHECK when it is wrong or when the stream was shorter than
// the IV and one block.
int mangleDecryptSetup(const unsigned char* key, unsigned long keylen, int type,
                       mangleCipherCtx_t* ctx);
int mangleDecrypt(const unsigned char* data, unsigned long len, int final, mangleCipherCtx_t* ctx);
int mangleGetDecryptedData(const unsigned char** out, unsigned long* outlen,
                           mangleCipherCtx_t* ctx);
int mangleDecryptFree(mangleCipherCtx_t* ctx);
