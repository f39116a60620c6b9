// Reading a secret line, such as a passphrase, from a stream.
#pragma once

#include <cstdio>

// Reads one line of at most `size` characters, the line end included, into
// `buf`, which must hold size + 1 bytes (the text is always NUL-terminated).
// When `stream` is a terminal, echo is off while reading (the line end is not
// echoed either, so the caller prints one) and the terminal's settings are
// restored afterwards, also when SIGINT, SIGTERM or SIGHUP ends the process
// during the read (the signal's own action still follows). One call at a
// time per process. From any other stream it is a plain read. Returns `buf`, or null at end of
// file, on a read error, or when size < 1 or buf or stream is null.
char* SecureFGets(char* buf, int size, FILE* stream);
