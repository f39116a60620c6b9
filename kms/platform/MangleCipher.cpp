#include "kms/platform/MangleCipher.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <cstring>
#include <new>
#include <utility>

#include "kms/platform/MangleRandom.h"
#include "kms/platform/OpenSslPtr.h"
#include "kms/platform/Secret.h"

namespace {

constexpr size_t kIvLen = 16;
constexpr size_t kBlockLen = 16;
constexpr unsigned long kChunk = 65536;

// Output not yet handed out: the first `size` bytes of `bytes`, whose spare
// room takes what comes next. A Secret, so no plaintext is left behind when it
// grows or goes.
struct Output {
  CmnCrypto::Secret bytes;
  size_t size = 0;

  const unsigned char* data() const { return reinterpret_cast<const unsigned char*>(bytes.data()); }
  unsigned char* end() { return reinterpret_cast<unsigned char*>(bytes.data()) + size; }
  void clear() {
    OPENSSL_cleanse(bytes.data(), size);
    size = 0;
  }
  // Room for `extra` more bytes at end(); false when memory ran out.
  bool reserveMore(size_t extra) {
    if (bytes.size() - size >= extra) {
      return true;
    }
    size_t capacity = bytes.size() == 0 ? 256 : bytes.size();
    while (capacity - size < extra) {
      capacity *= 2;
    }
    try {
      CmnCrypto::Secret grown(capacity);
      std::memcpy(grown.data(), bytes.data(), size);
      bytes = std::move(grown);
    } catch (const std::bad_alloc&) {
      return false;
    }
    return true;
  }
  bool append(const unsigned char* p, size_t n) {
    if (!reserveMore(n)) {
      return false;
    }
    std::memcpy(end(), p, n);
    size += n;
    return true;
  }
};

// What a context holds once set up; the context block carries a pointer to it.
struct MangleState {
  bool decrypting = false;
  bool finished = false;
  bool fetched = false;
  CmnCrypto::CipherCtxPtr evp;
  unsigned char iv[kIvLen] = {};
  size_t ivHave = 0;  // decryption: IV bytes collected so far
  Output out;

  ~MangleState() { OPENSSL_cleanse(iv, sizeof iv); }
};

static_assert(sizeof(MangleState*) <= MANGLE_CTX_SIZE, "context block too small");

MangleState* stateOf(const mangleCipherCtx_t* ctx) {
  MangleState* state = nullptr;
  std::memcpy(&state, ctx->opaque, sizeof state);
  return state;
}

const EVP_CIPHER* cipherFor(int type, unsigned long keylen) {
  switch (type) {
    case MANGLE_AES_128:
      return keylen == 16 ? EVP_aes_128_cbc() : nullptr;
    case MANGLE_AES_192:
      return keylen == 24 ? EVP_aes_192_cbc() : nullptr;
    case MANGLE_AES_256:
      return keylen == 32 ? EVP_aes_256_cbc() : nullptr;
    default:
      return nullptr;
  }
}

int setup(const unsigned char* key, unsigned long keylen, int type, mangleCipherCtx_t* ctx,
          bool decrypting) {
  if (ctx == nullptr || key == nullptr) {
    return MANGLE_ERR_ARGUMENT;
  }
  std::memset(ctx->opaque, 0, MANGLE_CTX_SIZE);
  const EVP_CIPHER* cipher = cipherFor(type, keylen);
  if (cipher == nullptr) {
    return MANGLE_ERR_ARGUMENT;
  }
  MangleState* state = new (std::nothrow) MangleState;
  if (state == nullptr) {
    return MANGLE_ERR_CIPHER;
  }
  state->decrypting = decrypting;
  state->evp.reset(EVP_CIPHER_CTX_new());
  bool ok = state->evp != nullptr;
  if (ok && decrypting) {
    // The IV arrives with the stream; the key goes in now.
    ok = EVP_DecryptInit_ex(state->evp.get(), cipher, nullptr, key, nullptr) == 1;
  } else if (ok) {
    ok = mangleGetRandom(state->iv, kIvLen) == 0 &&
         EVP_EncryptInit_ex(state->evp.get(), cipher, nullptr, key, state->iv) == 1 &&
         state->out.append(state->iv, kIvLen);
  }
  if (!ok) {
    delete state;
    return MANGLE_ERR_CIPHER;
  }
  std::memcpy(ctx->opaque, &state, sizeof state);
  return MANGLE_OK;
}

MangleState* readyState(mangleCipherCtx_t* ctx, bool decrypting) {
  if (ctx == nullptr) {
    return nullptr;
  }
  MangleState* state = stateOf(ctx);
  return state != nullptr && state->decrypting == decrypting ? state : nullptr;
}

// Runs `len` bytes through the cipher into the output.
int update(MangleState* state, const unsigned char* data, unsigned long len) {
  while (len > 0) {
    const unsigned long chunk = len < kChunk ? len : kChunk;
    if (!state->out.reserveMore(chunk + kBlockLen)) {
      return MANGLE_ERR_CIPHER;
    }
    int produced = 0;
    if (EVP_CipherUpdate(state->evp.get(), state->out.end(), &produced, data,
                         static_cast<int>(chunk)) != 1) {
      return MANGLE_ERR_CIPHER;
    }
    state->out.size += static_cast<size_t>(produced);
    data += chunk;
    len -= chunk;
  }
  return MANGLE_OK;
}

int finish(MangleState* state) {
  if (!state->out.reserveMore(kBlockLen)) {
    return MANGLE_ERR_CIPHER;
  }
  int produced = 0;
  if (EVP_CipherFinal_ex(state->evp.get(), state->out.end(), &produced) != 1) {
    return state->decrypting ? MANGLE_ERR_CHECK : MANGLE_ERR_CIPHER;
  }
  state->out.size += static_cast<size_t>(produced);
  return MANGLE_OK;
}

// Common head of mangleEncrypt and mangleDecrypt: drops output already handed
// out and refuses calls after the final one.
int begin(MangleState* state, const unsigned char* data, unsigned long len) {
  if (state == nullptr) {
    return MANGLE_ERR_NOT_READY;
  }
  if (data == nullptr && len > 0) {
    return MANGLE_ERR_ARGUMENT;
  }
  if (state->finished) {
    return MANGLE_ERR_FINISHED;
  }
  if (state->fetched) {
    state->out.clear();
    state->fetched = false;
  }
  return MANGLE_OK;
}

int getData(const unsigned char** out, unsigned long* outlen, mangleCipherCtx_t* ctx,
            bool decrypting) {
  MangleState* state = readyState(ctx, decrypting);
  if (state == nullptr) {
    return MANGLE_ERR_NOT_READY;
  }
  if (out == nullptr || outlen == nullptr) {
    return MANGLE_ERR_ARGUMENT;
  }
  if (state->fetched) {
    state->out.clear();
  }
  *out = state->out.data();
  *outlen = state->out.size;
  state->fetched = true;
  return MANGLE_OK;
}

int freeContext(mangleCipherCtx_t* ctx) {
  if (ctx == nullptr) {
    return MANGLE_ERR_ARGUMENT;
  }
  delete stateOf(ctx);
  std::memset(ctx->opaque, 0, MANGLE_CTX_SIZE);
  return MANGLE_OK;
}

}  // namespace

int mangleEncryptSetup(const unsigned char* key, unsigned long keylen, int type,
                       mangleCipherCtx_t* ctx) {
  return setup(key, keylen, type, ctx, false);
}

int mangleEncrypt(const unsigned char* data, unsigned long len, int final, mangleCipherCtx_t* ctx) {
  MangleState* state = readyState(ctx, false);
  int rc = begin(state, data, len);
  if (rc != MANGLE_OK) {
    return rc;
  }
  rc = update(state, data, len);
  if (rc == MANGLE_OK && final != 0) {
    state->finished = true;
    rc = finish(state);
  }
  return rc;
}

int mangleGetEncryptedData(const unsigned char** out, unsigned long* outlen,
                           mangleCipherCtx_t* ctx) {
  return getData(out, outlen, ctx, false);
}

int mangleEncryptFree(mangleCipherCtx_t* ctx) {
  return freeContext(ctx);
}

int mangleDecryptSetup(const unsigned char* key, unsigned long keylen, int type,
                       mangleCipherCtx_t* ctx) {
  return setup(key, keylen, type, ctx, true);
}

int mangleDecrypt(const unsigned char* data, unsigned long len, int final, mangleCipherCtx_t* ctx) {
  MangleState* state = readyState(ctx, true);
  int rc = begin(state, data, len);
  if (rc != MANGLE_OK) {
    return rc;
  }
  if (state->ivHave < kIvLen && len > 0) {
    const size_t take = len < kIvLen - state->ivHave ? len : kIvLen - state->ivHave;
    std::memcpy(state->iv + state->ivHave, data, take);
    state->ivHave += take;
    data += take;
    len -= take;
    if (state->ivHave == kIvLen &&
        EVP_DecryptInit_ex(state->evp.get(), nullptr, nullptr, nullptr, state->iv) != 1) {
      return MANGLE_ERR_CIPHER;
    }
  }
  rc = update(state, data, len);
  if (rc == MANGLE_OK && final != 0) {
    state->finished = true;
    // A stream that ended inside its IV has no block to check.
    rc = state->ivHave < kIvLen ? MANGLE_ERR_CHECK : finish(state);
  }
  return rc;
}

int mangleGetDecryptedData(const unsigned char** out, unsigned long* outlen,
                           mangleCipherCtx_t* ctx) {
  return getData(out, outlen, ctx, true);
}

int mangleDecryptFree(mangleCipherCtx_t* ctx) {
  return freeContext(ctx);
}
