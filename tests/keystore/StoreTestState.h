// A key store served from a state built in memory, for tests of the store's
// state rules, lookups and locking that must not depend on the files.
//
//   StoreContent content;
//   content.addGroup(groupTag, "g1");
//   content.addKey(keyTag, groupTag, "k1", KEY_ACTIVE);   // random plain key
//   MemoryStore store(locator);
//   store.install(content);                               // live, count 0
#pragma once

#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "kms/server/diagnostics/KeyStoreError.h"
#include "kms/server/keystore/crypto/KPKMgr.h"
#include "kms/server/keystore/crypto/KeyWrap.h"
#include "kms/server/keystore/crypto/RandData.h"
#include "kms/server/keystore/files/KMSFileLocator.h"
#include "kms/server/keystore/format/KSMetadata.h"
#include "kms/server/keystore/format/KeyFile.h"
#include "kms/server/keystore/store/FileKeyStore.h"

namespace storetest {

using Vaultrest::DL::KMS::FileKeyStore;
using Vaultrest::DL::KMS::KeyFile;
using Vaultrest::DL::KMS::KeyGrpRecord_v1;
using Vaultrest::DL::KMS::KeyRecord_v1;
using Vaultrest::DL::KMS::KeyStoreError;
using Vaultrest::DL::KMS::KMSFileLocator;
using Vaultrest::DL::KMS::KPKMgr;
using Vaultrest::DL::KMS::KSCrypt;
using Vaultrest::DL::KMS::KSMetadata;

// The code a store call reports: the status it returns, or the status of
// the KeyStoreError it throws; 0 for a call that throws nothing and returns
// nothing.
template <typename F>
int codeOf(F&& call) {
  try {
    if constexpr (std::is_same_v<decltype(call()), int>) {
      return call();
    } else {
      call();
      return 0;
    }
  } catch (const KeyStoreError& error) {
    return error.status();
  }
}

// The process's FIPS decision for the scope. By default this process did
// not ask for FIPS mode, so that init does not refuse with 1286.
class FipsDecision {
 public:
  explicit FipsDecision(bool disabled = true) : m_saved(FileKeyStore::g_fips_mode_disabled) {
    FileKeyStore::g_fips_mode_disabled = disabled;
  }
  ~FipsDecision() { FileKeyStore::g_fips_mode_disabled = m_saved; }
  FipsDecision(const FipsDecision&) = delete;
  FipsDecision& operator=(const FipsDecision&) = delete;

 private:
  bool m_saved;
};

// Tables and master keys of a store in the making. Keys are wrapped under
// the content's KPK as the store keeps them; plainKey(tag) tells what each
// must unwrap to.
class StoreContent {
 public:
  StoreContent()
      : m_hmk(Vaultrest::DL::KMS::Utils::getRandData(32)),
        m_kpk(Vaultrest::DL::KMS::Utils::getRandData(32)),
        m_kpkMgr(m_kpk, KSCrypt::AES_256_GCM, FileKeyStore::kCurrentVersion, true),
        m_keys(true) {}

  void addGroup(const std::string& tag, const std::string& name,
                Vaultrest::DL::KMS::ks_ciphertype_t cipher = Vaultrest::DL::KMS::CT_AES256_CBC) {
    KeyGrpRecord_v1 rec;
    rec.setFields(tag, name, cipher, 1000, 1000, "group " + name, 1);
    if (!m_groups.addRecord(rec)) {
      throw std::logic_error("group tag taken");
    }
  }

  // Adds a key with a fresh random plain key, wrapped under the KPK.
  void addKey(const std::string& tag, const std::string& group, const std::string& name,
              Vaultrest::DL::KMS::ks_keystate_t state) {
    const std::string plain = Vaultrest::DL::KMS::Utils::getRandData(32);
    addRawKey(tag, group, name, state,
              m_kpkMgr.encryptKey(plain, Vaultrest::DL::KMS::KPK_LOCAL, std::string()));
    m_plain[tag] = plain;
  }

  // Adds a key whose stored (wrapped) form is `stored` as given.
  void addRawKey(const std::string& tag, const std::string& group, const std::string& name,
                 Vaultrest::DL::KMS::ks_keystate_t state, const std::string& stored) {
    KeyRecord_v1 rec;
    rec.setFields(tag, name, group, state, 2000, 2000, "key " + name, 1,
                  Vaultrest::DL::KMS::KPK_LOCAL, std::string(), stored);
    if (!m_keys.addRecord(rec)) {
      throw std::logic_error("key refused by the table");
    }
  }

  const std::string& plainKey(const std::string& tag) const { return m_plain.at(tag); }
  const KPKMgr& kpkMgr() const { return m_kpkMgr; }
  const FileKeyStore::KeyTable& keys() const { return m_keys; }
  const FileKeyStore::GroupTable& groups() const { return m_groups; }
  const std::string& hmk() const { return m_hmk; }

  // The HMK file, the KPK file (KPK wrapped under the HMK) and the metadata
  // with verifiers of both keys, ids "hmk-id" and "kpk-id".
  std::unique_ptr<KeyFile> hmkFile() const {
    auto file = std::make_unique<KeyFile>(FileKeyStore::kCurrentVersion);
    file->setKey(m_hmk);
    return file;
  }
  std::unique_ptr<KeyFile> kpkFile() const {
    auto file = std::make_unique<KeyFile>(FileKeyStore::kCurrentVersion);
    file->setKey(Vaultrest::DL::KMS::Utils::encryptKeyWithKey(m_kpk, m_hmk, KSCrypt::AES_256_GCM,
                                                              FileKeyStore::kCurrentVersion));
    return file;
  }
  std::unique_ptr<KSMetadata> metadata() const {
    auto meta = std::make_unique<KSMetadata>(FileKeyStore::kCurrentVersion);
    meta->setHmkID("hmk-id");
    meta->setKpkID("kpk-id");
    meta->setHmkVerifier(FileKeyStore::generateVerifier("HMKV", m_hmk, KSCrypt::AES_256_GCM,
                                                        FileKeyStore::kCurrentVersion));
    meta->setKpkVerifier(FileKeyStore::generateVerifier("KPKV", m_kpk, KSCrypt::AES_256_GCM,
                                                        FileKeyStore::kCurrentVersion));
    meta->setMasterEncAlgo(KSCrypt::AES_256_GCM);
    meta->setKeyEncAlgo(KSCrypt::AES_256_GCM);
    meta->setHmkRandom(true);
    meta->setKpkRandom(false);
    meta->setHmkFips(false);
    meta->setKpkFips(true);
    return meta;
  }

 private:
  std::string m_hmk;
  std::string m_kpk;
  KPKMgr m_kpkMgr;
  FileKeyStore::KeyTable m_keys;
  FileKeyStore::GroupTable m_groups;
  std::map<std::string, std::string> m_plain;
};

// A FileKeyStore that a test can make live from a StoreContent.
class MemoryStore : public FileKeyStore {
 public:
  explicit MemoryStore(const KMSFileLocator& locator) : FileKeyStore(locator) {}

  // Installs copies of the content's objects as the live state.
  void install(const StoreContent& content) {
    installState(content.hmkFile(), content.kpkFile(), std::make_unique<KPKMgr>(content.kpkMgr()),
                 content.metadata(), std::make_unique<KeyTable>(content.keys()),
                 std::make_unique<GroupTable>(content.groups()));
  }

  using FileKeyStore::installState;
  using FileKeyStore::maxKeyGroups;
  using FileKeyStore::maxKeysPerGroup;
};

}  // namespace storetest
