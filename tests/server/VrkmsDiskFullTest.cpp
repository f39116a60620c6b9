// A store on a full 1 MiB tmpfs: changes refused (1276), reads served, changes
// again once space is freed. The tmpfs is mounted here as root, otherwise in a
// user and mount namespace (VRKMS_TEST_SMALL_FS=mount|namespace picks one).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "server/ServiceSandbox.h"

using CtlOutput::jsonField;

namespace {

// A 1 MiB tmpfs at a temporary directory, for the object's lifetime.
class SmallFilesystem {
 public:
  SmallFilesystem() {
    ::mkdir(m_dir.c_str(), 0700);
    const char* chosen = std::getenv("VRKMS_TEST_SMALL_FS");
    const std::string only = chosen != nullptr ? chosen : "";
    m_mounted = (only.empty() || only == "mount") &&
                ::mount("tmpfs", m_dir.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, kOptions) == 0;
    if (!m_mounted && (only.empty() || only == "namespace"))
      mountInNamespace();
  }
  ~SmallFilesystem() {
    if (m_mounted)
      ::umount2(m_dir.c_str(), MNT_DETACH);
    m_holder.reset();  // the namespace goes with its last process
  }
  SmallFilesystem(const SmallFilesystem&) = delete;
  SmallFilesystem& operator=(const SmallFilesystem&) = delete;

  bool usable() const { return m_mounted || m_holder; }
  // Where it is mounted, as seen behind prefix(), the words that run a program there.
  const std::string& dir() const { return m_dir; }
  std::vector<std::string> prefix() const {
    if (!m_holder)
      return {};
    return {"/usr/bin/nsenter", "--target", std::to_string(m_holder->pid()),
            "--user",           "--mount",  "--preserve-credentials"};
  }
  // The path of `path` (under dir()) as this process reaches it.
  std::string here(const std::string& path) const {
    return m_holder ? "/proc/" + std::to_string(m_holder->pid()) + "/root" + path : path;
  }

 private:
  static constexpr const char* kOptions = "size=1m,mode=0700";

  // Mounts in a namespace held by a sleeping process; m_holder once it is seen there.
  void mountInNamespace() {
    if (::access("/usr/bin/unshare", X_OK) != 0 || ::access("/usr/bin/nsenter", X_OK) != 0)
      return;
    m_holder = std::make_unique<RunningProcess>(
        ProcessRunner("/usr/bin/unshare")
            .args(
                {"--user", "--map-root-user", "--mount", "/bin/sh", "-c",
                 std::string("mount -t tmpfs -o ") + kOptions + " tmpfs \"$1\" && exec sleep 1800",
                 "sh", m_dir})
            .spawn());
    const std::string mountinfo = "/proc/" + std::to_string(m_holder->pid()) + "/mountinfo";
    for (int i = 0; i < 250; ++i) {
      if (CtlOutput::contains(readFile(mountinfo), " " + m_dir + " "))
        return;
      if (::waitpid(m_holder->pid(), nullptr, WNOHANG) == m_holder->pid())
        break;  // no namespace or no mount for this user
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    m_holder.reset();
  }

  TempRoot m_base{"vrkms-small"};
  const std::string m_dir = m_base.file("fs");
  bool m_mounted = false;
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

TEST(VrkmsDiskFull, AFullDiskRefusesChangesKeepsServingReadsAndRecoversOnceSpaceIsFreed) {
  SmallFilesystem fs;
  if (!fs.usable()) {
    GTEST_SKIP() << "no small filesystem can be mounted here";
  }
  ServiceSandbox service(9, fs.prefix());
  const std::string kmsDir = fs.dir() + "/kms";
  service.setKmsDir(kmsDir, "");
  ASSERT_TRUE(service.makeStore());
  ASSERT_TRUE(service.start()) << service.stderrText() << service.debugLog();

  const auto json = [&](const std::vector<std::string>& args) { return service.json(args); };
  const auto refused = [&](const std::vector<std::string>& a, int c) { service.refused(a, c); };
  json({"group", "create", "g", "--cipher", "AES256"});
  const std::string tag = jsonField(json({"key", "create", "g", "k1"}), "tag");
  const std::string key = jsonField(json({"key", "get", tag}), "key");
  ASSERT_EQ(key.size(), 64u);
  const auto reads = [&] {
    return json({"group", "list"}) + json({"key", "list", "g"}) + json({"status"}) +
           json({"kad", "get", tag, "16"});
  };
  const std::string before = reads();
  const auto files = ServiceSandbox::snapshot(fs.here(kmsDir));
  ASSERT_EQ(files.count("db/KMS_DATA.dat"), 1u);
  // Full: every kind of change is refused before anything on disk changed.
  ASSERT_NO_FATAL_FAILURE(fill(fs.here(fs.dir() + "/filler")));
  refused({"key", "create", "g", "k2"}, 1276);
  refused({"group", "create", "h", "--cipher", "AES128"}, 1276);
  refused({"key", "update", "g", "k1", "--description", "changed"}, 1276);
  refused({"group", "delete", "g", "--force"}, 1276);
  refused({"rotate-hmk", "--id", "hmk-2"}, 1276);
  refused({"rotate-kpk", "--id", "kpk-2"}, 1276);
  EXPECT_TRUE(CtlOutput::contains(service.debugLog(), "Status=1276"));
  // Reads go on, and they see the store as it was.
  EXPECT_EQ(jsonField(json({"key", "get", tag}), "key"), key);
  EXPECT_EQ(reads(), before);
  EXPECT_TRUE(ServiceSandbox::snapshot(fs.here(kmsDir)) == files);
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
  CtlOutput::expectFields(json({"status"}), {{"numKeys", "2"}, {"hmkId", "hmk-2"}});
  EXPECT_EQ(service.terminate(), std::make_pair(0, 0)) << service.debugLog();
}

}  // namespace
