// Record tags: 32 random bytes, one tag space for keys and key groups.
#pragma once

#include <string>

namespace Vaultrest {
namespace DL {
namespace KMS {

class TagGen {
 public:
  static constexpr unsigned long TAG_LEN = 32;

  // A new tag of TAG_LEN raw bytes (not text), trying the random source up
  // to 20 times; an empty string if every attempt failed. Collisions are the
  // caller's concern.
  static std::string newTag();
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
