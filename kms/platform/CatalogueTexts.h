// The compiled-in message catalogue: one row per (originator, id). Texts use
// "{}" for each argument, filled in order.
#pragma once

#include <cstddef>

struct CatalogueText {
  int originator;
  int id;
  const char* text;
};

struct StatusText {
  int code;
  const char* shortText;  // what getECmsg() gives
};

// Rows sorted by (originator, id).
extern const CatalogueText kCatalogueTexts[];
extern const size_t kCatalogueTextCount;
// Rows sorted by code.
extern const StatusText kStatusTexts[];
extern const size_t kStatusTextCount;
