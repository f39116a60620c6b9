#include "kms/server/AdminFlags.h"

#include <openssl/crypto.h>

#include <array>
#include <cstring>

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/StatusCodes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

constexpr const char* kLabel = "AdminFlags::parse";

// Flags of one group answer the same question; only one of them may be given.
enum Group {
  kOverwriteGroup,
  kIgnoreRandomGroup,
  kHmkPassGroup,
  kHmkIdGroup,
  kKpkPassGroup,
  kKpkIdGroup,
  kGroupCount
};

enum Flag {
  kOverwrite,
  kNoOverwrite,
  kIgnoreRandom,
  kNoIgnoreRandom,
  kHmkPass,
  kRandomHmk,
  kHmkIdFlag,
  kKpkPass,
  kRandomKpk,
  kKpkIdFlag
};

struct FlagRule {
  Flag flag;
  const char* name;
  Group group;
  bool takesValue;
  unsigned allowedIn;  // AdminFlags::Operation bits
};

constexpr unsigned kAllOperations =
    AdminFlags::kCreateEmptyDB | AdminFlags::kResetHmk | AdminFlags::kResetKpk;
constexpr unsigned kResets = AdminFlags::kResetHmk | AdminFlags::kResetKpk;

const FlagRule kRules[] = {
    {kOverwrite, "-overwrite", kOverwriteGroup, false, kAllOperations},
    {kNoOverwrite, "-nooverwrite", kOverwriteGroup, false, kAllOperations},
    {kIgnoreRandom, "-ignorerandom", kIgnoreRandomGroup, false, kResets},
    {kNoIgnoreRandom, "-noignorerandom", kIgnoreRandomGroup, false, kResets},
    {kHmkPass, "-hmkpass", kHmkPassGroup, true, AdminFlags::kCreateEmptyDB | AdminFlags::kResetHmk},
    {kRandomHmk, "-randomhmk", kHmkPassGroup, false, AdminFlags::kCreateEmptyDB},
    {kHmkIdFlag, "-hmkid", kHmkIdGroup, true, AdminFlags::kCreateEmptyDB},
    {kKpkPass, "-kpkpass", kKpkPassGroup, true, AdminFlags::kCreateEmptyDB | AdminFlags::kResetKpk},
    {kRandomKpk, "-randomkpk", kKpkPassGroup, false, AdminFlags::kCreateEmptyDB},
    {kKpkIdFlag, "-kpkid", kKpkIdGroup, true, AdminFlags::kCreateEmptyDB},
};

const FlagRule* ruleOf(ACE_Arg_Shifter_T<char>& shifter) {
  for (const FlagRule& rule : kRules) {
    if (shifter.cur_arg_strncasecmp(rule.name) == 0) {
      return &rule;
    }
  }
  return nullptr;
}

}  // namespace

void AdminFlags::swap(AdminFlags& other) {
  std::swap(m_overwrite, other.m_overwrite);
  std::swap(m_ignoreRandom, other.m_ignoreRandom);
  std::swap(m_hmkPassphrase, other.m_hmkPassphrase);
  std::swap(m_kpkPassphrase, other.m_kpkPassphrase);
  std::swap(m_hmkId, other.m_hmkId);
  std::swap(m_kpkId, other.m_kpkId);
  std::swap(m_randomRequested, other.m_randomRequested);
}

int AdminFlags::parse(ACE_Arg_Shifter_T<char>& shifter, Operation operation) {
  KMS_TRACE(kLabel);
  // Collected apart, so that a fault leaves this object as it was.
  AdminFlags parsed;
  std::array<bool, kGroupCount> seen{};
  while (shifter.is_anything_left()) {
    const char* current = shifter.get_current();
    if (current[0] != '-') {
      KMS_DEBUG(kLabel, 1, "Argument is no flag: " << current);
      return EC_KS_bad_argument;
    }
    const FlagRule* rule = ruleOf(shifter);
    if (rule == nullptr || (rule->allowedIn & operation) == 0) {
      KMS_DEBUG(kLabel, 1, "Flag not allowed here: " << current);
      return EC_KS_bad_argument;
    }
    if (seen[rule->group]) {
      KMS_DEBUG(kLabel, 1, "Flag given twice, or with one that excludes it: " << rule->name);
      return EC_KS_bad_argument;
    }
    seen[rule->group] = true;
    shifter.consume_arg(1);

    CmnCrypto::Secret value;
    if (rule->takesValue) {
      // The value is never logged: it may be a passphrase.
      if (!shifter.is_anything_left() || shifter.get_current()[0] == '\0') {
        KMS_DEBUG(kLabel, 1, "Flag without its value: " << rule->name);
        return EC_KS_bad_argument;
      }
      value = CmnCrypto::Secret(std::string(shifter.get_current()));
      if (rule->flag == kHmkPass || rule->flag == kKpkPass) {
        // The word lives in the process's argv, which others read through
        // /proc/<pid>/cmdline for as long as the process runs.
        char* word = const_cast<char*>(shifter.get_current());
        OPENSSL_cleanse(word, std::strlen(word));
      }
      shifter.consume_arg(1);
    }

    switch (rule->flag) {
      case kOverwrite:
      case kNoOverwrite:
        parsed.m_overwrite = rule->flag == kOverwrite;
        break;
      case kIgnoreRandom:
      case kNoIgnoreRandom:
        parsed.m_ignoreRandom = rule->flag == kIgnoreRandom;
        break;
      case kHmkPass:
        parsed.m_hmkPassphrase = std::move(value);
        break;
      case kKpkPass:
        parsed.m_kpkPassphrase = std::move(value);
        break;
      case kRandomHmk:
        parsed.m_hmkPassphrase.emplace();
        parsed.m_randomRequested = true;
        break;
      case kRandomKpk:
        parsed.m_kpkPassphrase.emplace();
        parsed.m_randomRequested = true;
        break;
      case kHmkIdFlag:
        parsed.m_hmkId = value.str();
        break;
      case kKpkIdFlag:
        parsed.m_kpkId = value.str();
        break;
    }
  }
  swap(parsed);
  return EC_KS_success;
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
