// The product's random source: every random byte of the program comes from
// here.
#pragma once

#include <cstddef>

// Fills `buf` with `len` cryptographically strong random bytes (OpenSSL's
// RAND_bytes). Returns 0 on success, non-zero on failure (buf then undefined).
int mangleGetRandom(unsigned char* buf, size_t len);

// Fault-injection seam for tests: while a source is set, mangleGetRandom hands
// every request to it instead of the system generator. Null restores the
// system generator. Returns the source that was set before. Set it only while
// no other thread draws random bytes.
typedef int (*MangleRandomSource)(unsigned char* buf, size_t len);
MangleRandomSource mangleSetRandomSource(MangleRandomSource source);
