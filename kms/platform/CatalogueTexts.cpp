#include "kms/platform/CatalogueTexts.h"

// Originator 286: this program's messages. Originator 271: long texts of the
// shared status codes. Keep both sorted by (originator, id).
const CatalogueText kCatalogueTexts[] = {
    {271, 1200, "An internal error occurred in the key management service."},
    {286, 83, "Operation successfully completed."},
    {286, 89, "Assertion failed: ({}) in file {} at line {}{}"},
};
const size_t kCatalogueTextCount = sizeof(kCatalogueTexts) / sizeof(kCatalogueTexts[0]);

// Keep sorted by code.
const StatusText kStatusTexts[] = {
    {0, "Success"},
    {1200, "Internal error"},
};
const size_t kStatusTextCount = sizeof(kStatusTexts) / sizeof(kStatusTexts[0]);
