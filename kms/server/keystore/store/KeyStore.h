// The key store as the rest of the program sees it. FileKeyStore is the one
// implementation; the service, the facets and the command-line operations
// hold a KeyStore*.
//
// The virtual operations stand in a fixed slot order (the two destructor
// slots of the virtual destructor come after isQuiesced). Do not reorder.
//
// Every operation may be called from any thread: each takes the store's one
// reader-writer lock itself, as noted below (read = shared, write =
// exclusive), for the whole operation. No operation may be called with that
// lock already held.
//
// Failure forms. "Returns" operations give an int status (0 for success, a
// code of 1200 and up otherwise) and let no KeyStoreError out. "Throws"
// operations throw KeyStoreError. Refusals by state:
//   1201  the store is initialized and the operation is for a closed store
//   1202  the store is not initialized
//   1279  a change while the store is quiesced (quiesce count above 0)
//   1286  the process was asked for FIPS mode and does not have it
// Records that leave the store are copies: key records carry the plain key
// only from getKey and getKeyRecordsByKad, and no key at all otherwise.
#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <utility>

#include "kms/server/keystore/records/KeyGrpRecord_v1.h"
#include "kms/server/keystore/records/KeyInfo.h"
#include "kms/server/keystore/records/KeyRecord_v1.h"
#include "kms/server/keystore/store/KSOpStatus.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class KeyStore {
 public:
  // 0. Write lock. Returns: recovers, reads and checks the files and makes the
  //    store live; 1201 if already initialized, 1286 after reading in a
  //    process without the FIPS mode it asked for, or the code of the failure.
  [[nodiscard]] virtual int init() = 0;
  // 1. Read lock. Whether the store is live.
  virtual bool isInitialized() = 0;
  // 2. Write lock. Returns: drops all state in memory, writes nothing; 1202.
  [[nodiscard]] virtual int shutdown() = 0;
  // 3. Read lock. Returns: console dump of the stored state (keys wrapped);
  //    1202.
  [[nodiscard]] virtual int display() const = 0;
  // 4. Read lock. Returns: sets `exists` when any store file is there; 1201,
  //    1286. `exists` is untouched on a refusal.
  [[nodiscard]] virtual int dbExists(bool& exists) = 0;
  // 5. Write lock. Returns: writes a new empty store; an empty passphrase
  //    asks for a random key. 1201, 1286. Leaves the store closed.
  [[nodiscard]] virtual int createEmpty(const std::string& hmkPassphrase, const std::string& hmkId,
                                        const std::string& kpkPassphrase, const std::string& kpkId,
                                        bool overwrite) = 0;
  // 6. Read lock. Throws 1202. (number of keys, number of key groups).
  virtual std::pair<uint64_t, uint64_t> getStats() = 0;
  // 7-12. Read lock. Throw. On a live store they answer from memory
  //    (goodXXXFileExists gives true); on a closed one they read the files,
  //    and throw 1286 first in a process without its FIPS mode.
  virtual std::string getHMKId() = 0;
  virtual KeyInfo getHMKInfo() = 0;
  virtual bool goodHMKFileExists() = 0;
  virtual std::string getKPKId() = 0;
  virtual KeyInfo getKPKInfo() = 0;
  virtual bool goodKPKFileExists() = 0;
  // 13, 14. Write lock. Return: remake a lost key file from its passphrase;
  //    1201, 1286.
  [[nodiscard]] virtual int createHMKFile(const std::string& passphrase, bool overwrite,
                                          bool refuseRandom) = 0;
  [[nodiscard]] virtual int createKPKFile(const std::string& passphrase, bool overwrite,
                                          bool refuseRandom) = 0;
  // 15, 16. Write lock. Return: change a master key and commit; 1202, 1279.
  [[nodiscard]] virtual int updateHMK(const std::string& passphrase, const std::string& hmkId) = 0;
  [[nodiscard]] virtual int updateKPK(const std::string& passphrase, const std::string& kpkId) = 0;
  // 17-19. Write lock. Throw 1202, 1279. Add and commit; the result is a copy
  //    of the stored record (key records without their key).
  virtual KeyRecord_v1 addKeyWithKnownTag(const KeyRecord_v1& rec,
                                          const std::string& passphrase) = 0;
  virtual KeyRecord_v1 addKey(const KeyRecord_v1& rec, const std::string& passphrase) = 0;
  virtual KeyGrpRecord_v1 addKeyGroup(const KeyGrpRecord_v1& rec) = 0;
  // 20-25. Read lock. Throw 1202; served while quiesced. getKey gives the
  //    plain key, the others none.
  virtual KeyRecord_v1 getKey(const std::string& tag) const = 0;
  virtual KeyRecord_v1 getKeyRecord(const std::string& tag) const = 0;
  virtual KeyGrpRecord_v1 getKeyGroupRecord(const std::string& tag) const = 0;
  virtual KeyGrpRecord_v1 getKeyGroupRecordByName(const std::string& name) const = 0;
  virtual KeyRecord_v1 getKeyRecordByName(const std::string& group,
                                          const std::string& name) const = 0;
  virtual KeyRecord_v1 getActiveKeyRecord(const std::string& group) const = 0;
  // 26-29. Write lock. Throw 1202, 1279. Change and commit.
  virtual KeyRecord_v1 updateKeyRecord(const KeyRecord_v1& rec) = 0;
  virtual KeyGrpRecord_v1 updateKeyGroupRecord(const KeyGrpRecord_v1& rec) = 0;
  virtual void deleteKeyRecord(const std::string& tag) = 0;
  virtual void deleteKeyGroupRecord(const std::string& tag, bool force) = 0;
  // 30, 31. Read lock. Throw 1202. `out` is cleared first.
  virtual void getAllKeyGroupRecords(std::list<KeyGrpRecord_v1>& out) const = 0;
  virtual void getAllKeyRecordsInGroup(const std::string& group,
                                       std::list<KeyRecord_v1>& out) const = 0;
  // 32. Read lock. Returns 1234 (KAD unique) or 1235 (KAD shared) with `kad`
  //    set, else 1202, 1220, 1260.
  [[nodiscard]] virtual int getKad(const std::string& tag, unsigned long kadlength,
                                   std::string& kad) const = 0;
  // 33. Read lock. Returns 1243 or 1244 (unusable keys left out) with the
  //    plain keys in `out`, else 1202, 1220, 1261; a failed unwrap throws
  //    1200.
  [[nodiscard]] virtual int getKeyRecordsByKad(const std::string& kad,
                                               std::list<KeyRecord_v1>& out) const = 0;
  // 34-36. Throw 1202. The quiesce count: quiesce and unquiesce take the
  //    write lock and give the new count (unquiesce at 0 throws 1280, with or
  //    without `force`); isQuiesced takes the read lock and gives the count.
  virtual uint64_t quiesce() = 0;
  virtual uint64_t unquiesce(bool force) = 0;
  virtual uint64_t isQuiesced() = 0;
  // 37, 38. No lock; destroys the state without writing it.
  virtual ~KeyStore() {}
  // 39. Read lock. Throws 1202; every other failure is the code in `status`
  //    and an empty result. The passphrase-sealed buffer of the selection
  //    (pairs of group name and key name; an empty list is the whole store).
  virtual std::string exportToBuffer(
      const std::list<std::pair<std::string, std::string>>& selection,
      const std::string& passphrase, KSOpStatus& status) const = 0;
  // 40. Throws 1202, tested before any lock; then parses without a lock and
  //    takes the write lock to validate and commit. Not refused while
  //    quiesced. Every later failure is the code in `status`.
  virtual void importFromBuffer(const std::string& buffer, std::string passphrase,
                                bool preserveNames, const std::string& description,
                                KSOpStatus& status, bool previewOnly) = 0;

 protected:
  KeyStore() = default;
  KeyStore(const KeyStore&) = delete;
  KeyStore& operator=(const KeyStore&) = delete;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
