// A store on a filesystem that runs out of space: the service refuses the
// change that does not fit (1276), goes on serving what it had, and takes
// changes again once space has been freed.
//
// The store lives on a 1 MiB tmpfs. As root the tmpfs is mounted on a
// temporary directory and unmounted afterwards; otherwise it is mounted in a
// user and mount namespace of its own, into which vrkms and vrkmsctl are
// run. Where neither can be had, the service's servants run over a store
// whose writes fail with ENOSPC through the file-operation seam.
// VRKMS_TEST_SMALL_FS=mount|namespace|seam picks one way.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kms/server/KMSModifiableFacetImpl.h"
#include "kms/server/KMSQueryableFacetImpl.h"
#include "kms/server/keystore/files/FileFaults.h"
#include "kms/server/keystore/files/KMSFileLocator.h"
#include "kms/server/keystore/store/FileKeyStore.h"
#include "server/CtlOutput.h"
#include "server/ServiceClient.h"
#include "server/ServiceSandbox.h"
#include "support/ProcessRunner.h"
#include "support/TempRoot.h"

namespace Fw = Ardentis::Vaultrest::TL::Framework;
namespace Facets = Ardentis::Vaultrest::DL::KMSFacetsV1;
using Ardentis::Vaultrest::DL::KMS::KMSModifiableFacetImpl;
using Ardentis::Vaultrest::DL::KMS::KMSQueryableFacetImpl;
namespace Store = Vaultrest::DL::KMS;
using ServiceClient::serviceError;

namespace {

// A 1 MiB tmpfs at a temporary directory, for the object's lifetime.
class SmallFilesystem {
 public:
  enum Kind { kNone, kRootMount, kUserNamespace };

  SmallFilesystem() {
    ::mkdir(m_dir.c_str(), 0700);
    const char* chosen = std::getenv("VRKMS_TEST_SMALL_FS");
    const std::string only = chosen != nullptr ? chosen : "";
    if ((only.empty() || only == "mount") && mountHere()) {
      m_kind = kRootMount;
    } else if ((only.empty() || only == "namespace") && mountInNamespace()) {
      m_kind = kUserNamespace;
    }
  }
  ~SmallFilesystem() {
    if (m_kind == kRootMount) {
      ::umount2(m_dir.c_str(), MNT_DETACH);
    }
    m_holder.reset();  // the namespace goes with its last process
  }
  SmallFilesystem(const SmallFilesystem&) = delete;
  SmallFilesystem& operator=(const SmallFilesystem&) = delete;

  Kind kind() const { return m_kind; }
  // Where the filesystem is mounted, as the programs run behind prefix()
  // see it.
  const std::string& dir() const { return m_dir; }
  // The argv words that run a program where the filesystem is mounted.
  std::vector<std::string> prefix() const {
    if (m_kind != kUserNamespace) {
      return {};
    }
    return {"/usr/bin/nsenter", "--target", std::to_string(m_holder->pid()),
            "--user",           "--mount",  "--preserve-credentials"};
  }
  // The path of `path` (under dir()) as this process reaches it.
  std::string here(const std::string& path) const {
    return m_kind == kUserNamespace ? "/proc/" + std::to_string(m_holder->pid()) + "/root" + path
                                    : path;
  }

 private:
  static constexpr const char* kOptions = "size=1m,mode=0700";

  bool mountHere() {
    return ::mount("tmpfs", m_dir.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, kOptions) == 0;
  }

  // Mounts in a namespace held by a sleeping process; true once the mount
  // is seen there.
  bool mountInNamespace() {
    if (::access("/usr/bin/unshare", X_OK) != 0 || ::access("/usr/bin/nsenter", X_OK) != 0) {
      return false;
    }
    m_holder = std::make_unique<RunningProcess>(
        ProcessRunner("/usr/bin/unshare")
            .args(
                {"--user", "--map-root-user", "--mount", "/bin/sh", "-c",
                 std::string("mount -t tmpfs -o ") + kOptions + " tmpfs \"$1\" && exec sleep 1800",
                 "sh", m_dir})
            .spawn());
    const std::string mountinfo = "/proc/" + std::to_string(m_holder->pid()) + "/mountinfo";
    for (int i = 0; i < 250; ++i) {
      if (ServiceSandbox::readPath(mountinfo).find(" " + m_dir + " ") != std::string::npos) {
        return true;
      }
      if (::waitpid(m_holder->pid(), nullptr, WNOHANG) == m_holder->pid()) {
        break;  // no namespace or no mount for this user
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    m_holder.reset();
    return false;
  }

  TempRoot m_base{"vrkms-small"};
  const std::string m_dir = m_base.file("fs");
  Kind m_kind = kNone;
  std::unique_ptr<RunningProcess> m_holder;
};

// Fills the filesystem of `path` to the last byte; the filler is `path`.
void fill(const std::string& path) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  ASSERT_GE(fd, 0) << path;
  const std::string block(65536, 'f');
  for (size_t size = block.size(); size > 0; size /= 2) {
    while (::write(fd, block.data(), size) == static_cast<ssize_t>(size)) {
    }
  }
  const int error = errno;
  ::close(fd);
  EXPECT_EQ(error, ENOSPC);
}

// Names and contents of the files under `dir`.
std::map<std::string, std::string> contentsOf(const std::string& dir) {
  std::map<std::string, std::string> contents;
  for (const std::string& path : ServiceSandbox::walk(dir)) {
    struct stat info;
    const bool file = ::lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
    contents[path.substr(dir.size())] = file ? ServiceSandbox::readPath(path) : "<not a file>";
  }
  return contents;
}

using CtlOutput::jsonField;

std::string bytesOf(const Fw::octetSeq& octets) {
  return std::string(reinterpret_cast<const char*>(octets.get_buffer()), octets.length());
}

// Where no small filesystem can be had: the servants over a store whose
// writes fail as on a full disk.
void fullDiskAtTheFileSeam() {
  TempRoot root("vrkms-seam");
  Store::FileKeyStore::g_fips_mode_disabled = true;
  Store::FileKeyStore store{Store::KMSFileLocator(root.file("kms"))};
  ASSERT_EQ(store.createEmpty("hmk passphrase", "hmk-1", "kpk passphrase", "kpk-1", false), 0);
  ASSERT_EQ(store.init(), 0);
  PortableServer::Servant_var<KMSQueryableFacetImpl> query{new KMSQueryableFacetImpl(&store)};
  PortableServer::Servant_var<KMSModifiableFacetImpl> modify{new KMSModifiableFacetImpl(&store)};
  Facets::KeyGroupRecord_var form = modify->getNewKeyGroup();
  form->name = "g";
  form->type = 3;
  Facets::KeyGroupRecord_var group = modify->createKeyGroup(form.in());
  const auto newKey = [&](const char* name) {
    Facets::KeyRecord_var key = modify->getNewKey();
    key->name = name;
    key->keyGroup = group->tag;
    key->state = 1;  // active
    key->kpkType = 1;
    return Facets::KeyRecord_var(modify->createKey("", key.in()));
  };
  Facets::KeyRecord_var first = newKey("k1");
  Facets::KeyRecord_var key = query->getKey(first->tag);
  const auto files = contentsOf(root.file("kms"));
  {
    Store::FailNthFileOp full(1, ENOSPC, Store::FileOp::Fwrite);
    const Store::ScopedFileFaultHook installed(&full);
    EXPECT_EQ(serviceError([&] { newKey("k2"); }), 1276);
    EXPECT_TRUE(full.fired());
  }
  Facets::KeyRecord_var again = query->getKey(first->tag);
  EXPECT_EQ(bytesOf(again->encKey), bytesOf(key->encKey));
  EXPECT_EQ(bytesOf(key->encKey).size(), 32u);
  EXPECT_EQ(Facets::KeyRecordSeq_var(query->getAllKeyRecordsInGroup(group->tag))->length(), 1u);
  EXPECT_EQ(contentsOf(root.file("kms")), files);

  Facets::KeyRecord_var second = newKey("k2");
  ASSERT_EQ(store.shutdown(), 0);
  ASSERT_EQ(store.init(), 0);
  EXPECT_EQ(serviceError([&] { Facets::KeyRecord_var k = query->getKeyRecord(second->tag); }), 0);
}

TEST(VrkmsDiskFull, AFullDiskRefusesChangesKeepsServingReadsAndRecoversOnceSpaceIsFreed) {
  SmallFilesystem fs;
  static const char* const kWays[] = {"none: servants over the file-operation seam",
                                      "tmpfs mounted as root", "tmpfs in a user namespace"};
  RecordProperty("small_filesystem", kWays[fs.kind()]);
  if (fs.kind() == SmallFilesystem::kNone) {
    fullDiskAtTheFileSeam();
    return;
  }
  ServiceSandbox service(9, fs.prefix());
  const std::string kmsDir = fs.dir() + "/kms";
  service.setKmsDir(kmsDir, "");
  const ProcessResult created =
      service.admin({"-createemptydb", "-hmkpass", "hmk passphrase", "-hmkid", "hmk-1", "-kpkpass",
                     "kpk passphrase", "-kpkid", "kpk-1"});
  ASSERT_EQ(created.exitStatus, 0) << created.out << created.err;
  ASSERT_TRUE(service.start()) << service.stderrText() << service.debugLog();

  const auto json = [&](std::vector<std::string> args) {
    args.insert(args.begin(), "--json");
    const ProcessResult r = service.ctl(args);
    EXPECT_EQ(r.exitStatus, 0) << args[1] << ": " << r.out << r.err;
    return r.out;
  };
  const auto refused = [&](const std::vector<std::string>& args, int code) {
    const ProcessResult r = service.ctl(args);
    EXPECT_EQ(r.exitStatus, 1) << args[0] << " " << args[1] << ": " << r.out << r.err;
    EXPECT_EQ(r.err.rfind("error " + std::to_string(code) + ": ", 0), 0u) << r.err;
  };
  json({"group", "create", "g", "--cipher", "AES256"});
  const std::string tag = jsonField(json({"key", "create", "g", "k1"}), "tag");
  const std::string key = jsonField(json({"key", "get", tag}), "key");
  ASSERT_EQ(key.size(), 64u);
  const std::string groups = json({"group", "list"});
  const std::string keys = json({"key", "list", "g"});
  const std::string stats = json({"status"});
  const auto files = contentsOf(fs.here(kmsDir));
  ASSERT_EQ(files.count("/db/KMS_DATA.dat"), 1u);

  // Full: every kind of change is refused before anything on disk changed.
  ASSERT_NO_FATAL_FAILURE(fill(fs.here(fs.dir() + "/filler")));
  refused({"key", "create", "g", "k2"}, 1276);
  refused({"group", "create", "h", "--cipher", "AES128"}, 1276);
  refused({"key", "update", "g", "k1", "--description", "changed"}, 1276);
  refused({"group", "delete", "g", "--force"}, 1276);
  refused({"rotate-hmk", "--id", "hmk-2"}, 1276);
  refused({"rotate-kpk", "--id", "kpk-2"}, 1276);
  EXPECT_TRUE(service.debugLog().find("Status=1276") != std::string::npos);

  // Reads go on, and they see the store as it was.
  EXPECT_EQ(jsonField(json({"key", "get", tag}), "key"), key);
  EXPECT_EQ(json({"group", "list"}), groups);
  EXPECT_EQ(json({"key", "list", "g"}), keys);
  EXPECT_EQ(json({"status"}), stats);
  EXPECT_EQ(jsonField(json({"kad", "get", tag, "16"}), "key"), key);
  EXPECT_TRUE(contentsOf(fs.here(kmsDir)) == files) << "the store files changed";

  // Space again: changes are taken, and they last.
  ASSERT_EQ(::unlink(fs.here(fs.dir() + "/filler").c_str()), 0);
  const std::string tag2 = jsonField(json({"key", "create", "g", "k2"}), "tag");
  const std::string key2 = jsonField(json({"key", "get", tag2}), "key");
  EXPECT_EQ(jsonField(json({"key", "update", "g", "k1", "--description", "changed"}), "rev"), "3");
  EXPECT_EQ(json({"rotate-hmk", "--id", "hmk-2"}), "{\"ok\":true}\n");
  EXPECT_EQ(service.terminate(), std::make_pair(0, 0)) << service.debugLog();
  ASSERT_TRUE(service.start()) << service.stderrText() << service.debugLog();
  EXPECT_EQ(jsonField(json({"key", "get", tag2}), "key"), key2);
  EXPECT_EQ(jsonField(json({"key", "get", tag}), "key"), key);
  EXPECT_EQ(jsonField(json({"key", "show", "g", "k1"}), "description"), "changed");
  const std::string after = json({"status"});
  EXPECT_EQ(jsonField(after, "numKeys"), "2");
  EXPECT_EQ(jsonField(after, "hmkId"), "hmk-2");
  EXPECT_EQ(service.terminate(), std::make_pair(0, 0)) << service.debugLog();
}

}  // namespace
