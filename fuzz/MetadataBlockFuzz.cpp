// Fuzzes the metadata blocks made from a list that was read: KSMetadata,
// KeyFile, KSEximMetadata and SecuredDataHeader. An input is the bytes of
// one attribute list; every block is tried on it.
//
// Checks: each constructor accepts or fails with 1208 or 1218; an accepted
// block answers every accessor of its version and 1219 exactly for the
// others; the list it gives back makes the same block again, also after a
// change through a setter.
#include <cstddef>
#include <cstdint>
#include <string>

#include "FormatFuzzUtil.h"
#include "kms/server/keystore/format/KSEximMetadata.h"
#include "kms/server/keystore/format/KSMetadata.h"
#include "kms/server/keystore/format/KeyFile.h"
#include "kms/server/keystore/format/ReaderWriter.h"
#include "kms/server/keystore/format/SecuredDataHeader.h"

using namespace Vaultrest::DL::KMS;
using formatfuzz::check;
using formatfuzz::statusOf;

namespace {

bool constructed(int status) {
  check(status == 0 || status == 1208 || status == 1218);
  return status == 0;
}

// 0 where `allowed`, 1219 elsewhere.
template <typename F>
void gated(bool allowed, F&& f) {
  check(statusOf(f) == (allowed ? 0 : 1219));
}

bool sameMetadata(const KSMetadata& a, const KSMetadata& b) {
  const bool hashed = a.version() <= KS_VERSION_200;
  return a.version() == b.version() && a.hmkID() == b.hmkID() && a.kpkID() == b.kpkID() &&
         (hashed ? a.hmkHash() == b.hmkHash() && a.kpkHash() == b.kpkHash()
                 : a.hmkVerifier() == b.hmkVerifier() && a.kpkVerifier() == b.kpkVerifier()) &&
         a.masterEncAlgo() == b.masterEncAlgo() && a.keyEncAlgo() == b.keyEncAlgo() &&
         a.hmkRandom() == b.hmkRandom() && a.kpkRandom() == b.kpkRandom() &&
         a.hmkFips() == b.hmkFips() && a.kpkFips() == b.kpkFips() && a.hmkSalt() == b.hmkSalt() &&
         a.kpkSalt() == b.kpkSalt() && a.masterIV() == b.masterIV();
}

void tryMetadata(const AttributeList& list) {
  KSMetadata* made = nullptr;
  if (!constructed(statusOf([&] { made = new KSMetadata(list); }))) {
    return;
  }
  KSMetadata meta(*made);
  delete made;
  const ks_version_t v = meta.version();
  check(v == KS_VERSION_100 || v == KS_VERSION_200 || v == KS_VERSION_300);
  check(meta.attributes().size() == (v == KS_VERSION_100 ? 11u : v == KS_VERSION_200 ? 14u : 13u));
  gated(v <= KS_VERSION_200, [&] { meta.hmkHash(); });
  gated(v <= KS_VERSION_200, [&] { meta.kpkHash(); });
  gated(v >= KS_VERSION_300, [&] { meta.hmkVerifier(); });
  gated(v >= KS_VERSION_300, [&] { meta.kpkVerifier(); });
  check(KSMetadata(meta.attributes()).version() == v);
  check(sameMetadata(KSMetadata(meta.attributes()), meta));

  // Changed through setters, the block still makes a valid list.
  KSMetadata changed(meta);
  changed.setHmkID(meta.kpkID());
  changed.setMasterEncAlgo(KSCrypt::AES_256_GCM);
  changed.setHmkFips(!meta.hmkFips());
  gated(v >= KS_VERSION_200, [&] { changed.setKpkSalt(meta.hmkSalt()); });
  gated(v == KS_VERSION_200, [&] { changed.setMasterIV(std::string(16, 'i')); });
  gated(v <= KS_VERSION_200, [&] { changed.setHmkHash("h"); });
  gated(v >= KS_VERSION_300, [&] { changed.setKpkVerifier("v"); });
  check(sameMetadata(KSMetadata(changed.attributes()), changed));
  changed.clear();
  check(sameMetadata(KSMetadata(changed.attributes()), changed));
}

void tryKeyFile(const AttributeList& list) {
  KeyFile* made = nullptr;
  if (!constructed(statusOf([&] { made = new KeyFile(list); }))) {
    return;
  }
  KeyFile file(*made);
  delete made;
  check(file.attributes().size() == 2);
  const KeyFile again(file.attributes());
  check(again.version() == file.version() && again.key() == file.key());
  const std::string longer = file.key() + "k";
  check(statusOf([&] { file.setKey(longer); }) == (longer.size() > 4096 ? 1214 : 0));
  check(KeyFile(file.attributes()).key() == file.key());
}

void tryExim(const AttributeList& list) {
  KSEximMetadata* made = nullptr;
  if (!constructed(statusOf([&] { made = new KSEximMetadata(list); }))) {
    return;
  }
  check(made->version() == KS_VERSION_200);
  check(KSEximMetadata(made->attributes()).version() == KS_VERSION_200);
  delete made;
}

void tryHeader(const AttributeList& list) {
  SecuredDataHeader* made = nullptr;
  if (!constructed(statusOf([&] { made = new SecuredDataHeader(list); }))) {
    return;
  }
  SecuredDataHeader header(*made);
  delete made;
  check(header.version() == KS_VERSION_200);
  header.setIV(header.salt());
  const SecuredDataHeader again(header.attributes());
  check(again.salt() == header.salt() && again.iv() == header.iv());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  KSInputBuffer in(std::string(reinterpret_cast<const char*>(data), size));
  AttributeList list;
  const int status = statusOf([&] { ReaderWriter::readAttributeList(in, list); });
  check(status == 0 || status == 1208);
  if (status != 0) {
    return 0;
  }
  tryMetadata(list);
  tryKeyFile(list);
  tryExim(list);
  tryHeader(list);
  return 0;
}
