// The product's random source: every random byte of the program comes from
// here.
#pragma once

#include <cstddef>

// Fills `buf` with `len` cryptographically strong random bytes (OpenSSL's
// RAND_bytes). Returns 0 on success, non-zero on failure (buf then undefined).
int mangleGetRandom(unsigned char* buf, size_t len);
