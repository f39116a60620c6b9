// The paths of one key store: a root directory with a "db" directory for the
// store file and a "key" directory for the two key files, each file under its
// final name (".dat") and the two names a commit uses (".new", ".bak").
//
// A value type; FileKeyStore keeps one copy. The paths are fixed at
// construction.
#pragma once

#include <array>
#include <string>

namespace Vaultrest {
namespace DL {
namespace KMS {

class KMSFileLocator {
 public:
  static const std::string KS_FILE_NAME;   // "KMS_DATA"
  static const std::string HMK_FILE_NAME;  // "KMS_HMKF"
  static const std::string KPK_FILE_NAME;  // "KMS_KPKF"
  static const std::string FILE_EXT;       // "dat"
  static const std::string BAK_FILE_EXT;   // "bak"
  static const std::string NEW_FILE_EXT;   // "new"
  static const std::string KS_DB_DIR;      // "db"
  static const std::string KS_KEY_DIR;     // "key"

  // The root is KMS_DIR of the master configuration. Throws 1200 when the
  // configuration cannot be read (message 32) or names no KMS directory
  // (message 33).
  KMSFileLocator();
  explicit KMSFileLocator(const std::string& root);

  // True as soon as one of the nine files exists (HMK, store, KPK; "dat",
  // then "new", then "bak"). Throws 1200 when a path cannot be tested.
  bool anyFileExists() const;
  // Deletes the nine files, in the order above; missing ones are no failure.
  // The directories stay. Throws 1239.
  void deleteAllFiles() const;
  // Makes the root, "db" and "key" directories (mode 0700) where missing.
  // Throws 1236.
  void createMissingDirectories() const;
  // Refuses a store that others could change under the service: along the
  // root, below its deepest ancestor owned by root, no symlink and no
  // directory of another user or writable by group or others; the same for
  // the root, "db" and "key"; and each of the nine files that exists a
  // regular file of this user, not writable by group or others. Missing
  // paths pass (a fresh machine has none). Throws 1295 after message 110,
  // which names the path and what is wrong with it.
  void requireTrusted() const;

  // "KMS_DATA.dat", "KMS_HMKF.dat", "KMS_KPKF.dat".
  static std::string ksFileName();
  static std::string hmkFileName();
  static std::string kpkFileName();

  const std::string& rootDir() const { return m_rootDir; }
  const std::string& dbDir() const { return m_dbDir; }
  const std::string& keyDir() const { return m_keyDir; }
  const std::string& ksPath() const { return m_ksPath; }
  const std::string& ksNewPath() const { return m_ksNewPath; }
  const std::string& ksBakPath() const { return m_ksBakPath; }
  const std::string& hmkPath() const { return m_hmkPath; }
  const std::string& hmkNewPath() const { return m_hmkNewPath; }
  const std::string& hmkBakPath() const { return m_hmkBakPath; }
  const std::string& kpkPath() const { return m_kpkPath; }
  const std::string& kpkNewPath() const { return m_kpkNewPath; }
  const std::string& kpkBakPath() const { return m_kpkBakPath; }

 private:
  // Logs message 51 with `root` and forms the twelve paths.
  void initPathVariables(const std::string& root);
  // The nine file paths in the order of anyFileExists().
  std::array<const std::string*, 9> filesInOrder() const;

  std::string m_rootDir;
  std::string m_dbDir;
  std::string m_keyDir;
  std::string m_ksPath;
  std::string m_ksNewPath;
  std::string m_ksBakPath;
  std::string m_hmkPath;
  std::string m_hmkNewPath;
  std::string m_hmkBakPath;
  std::string m_kpkPath;
  std::string m_kpkNewPath;
  std::string m_kpkBakPath;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
