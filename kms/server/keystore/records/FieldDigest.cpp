#include "kms/server/keystore/records/FieldDigest.h"

#include <optional>

#include "kms/platform/HashGenerator.h"
#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/records/KeyRecordBlock.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

// Runs `step` on the digest library; its failure becomes 1200 under `label`.
template <typename Step>
void guarded(const char* label, Step&& step) {
  try {
    step();
  } catch (const CmnCrypto::CmnException& e) {
    KMS_DEBUG(label, 1, "Digest failed: " << e.what());
    KS_THROW(EC_KS_internal_error, label);
  }
}

}  // namespace

FieldDigest::FieldDigest(const char* label) : m_label(label) {
  guarded(m_label, [this] {
    thread_local std::optional<CmnCrypto::HashGenerator> hash;
    if (hash) {
      hash->restart();
    } else {
      hash.emplace(CmnCrypto::HASH_SHA256);
    }
    m_hash = &*hash;
    m_hash->addData(&KeyRecordBlock::kDigestSeed, 1);
  });
}

void FieldDigest::add(std::string_view content) {
  guarded(m_label, [&] { m_hash->addData(content.data(), content.size()); });
}

void FieldDigest::finish(unsigned char* out) {
  size_t length = 0;
  guarded(m_label, [&] { length = m_hash->generateBinaryHash(out); });
  KS_ASSERT(m_label, length == KeyRecordBlock::kDigestLength);
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
