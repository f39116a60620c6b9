#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "kms/platform/Fips.h"
#include "kms/platform/ProcessAccount.h"
#include "kms/platform/SecureFGets.h"
#include "kms/platform/VrConfReader.h"
#include "support/PlatformTestRoot.h"

TEST(Fips, ProcessModeFollowsTheProcessFlagOfTheMasterConfiguration) {
  PlatformTestRoot root;
  EXPECT_NE(VR_read_master_config(), 0);  // no file: no process-wide copy either
  EXPECT_EQ(getFIPSModeForProcess("vrkms"), 0);
  // Without a process-wide copy the file is read directly.
  root.writeConf("VRKMS_FIPS = TRUE\n");
  EXPECT_NE(getFIPSModeForProcess("vrkms"), 0);
  root.writeConf("VRKMS_FIPS = maybe\n");
  EXPECT_EQ(getFIPSModeForProcess("vrkms"), 0);
  // With one, the copy decides.
  root.writeConf("VRKMS_FIPS = yes\nOTHER_FIPS = no\n");
  ASSERT_EQ(VR_read_master_config(), 0);
  root.writeConf("VRKMS_FIPS = no\n");
  EXPECT_NE(getFIPSModeForProcess("vrkms"), 0);
  for (const char* other : {"other", "absent", "", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(getFIPSModeForProcess(other), 0) << (other ? other : "null");
  }
  ASSERT_EQ(VR_read_master_config(), 0);  // re-read: now "no"
  EXPECT_EQ(getFIPSModeForProcess("vrkms"), 0);
  EXPECT_EQ(FIPS_mode(), EVP_default_properties_is_fips_enabled(nullptr) ? 1 : 0);

  const bool real = geteuid() == 0;
  EXPECT_EQ(is_user_admin(), real);
  setAdminCheckOverride(AdminCheck::kForceNotAdmin);
  EXPECT_FALSE(is_user_admin());
  setAdminCheckOverride(AdminCheck::kForceAdmin);
  EXPECT_TRUE(is_user_admin());
  setAdminCheckOverride(AdminCheck::kSystem);
  EXPECT_EQ(is_user_admin(), real);
  EXPECT_EQ(enable_process_for_service_account(), 0);
}

// (Its bound on a pipe is met by the passphrase dialogue: KMSSpecialOps.)
TEST(SecureFGets, DoesNotEchoOnATerminalAndRestoresItsSettings) {
  const int master = posix_openpt(O_RDWR | O_NOCTTY);
  ASSERT_TRUE(master >= 0 && grantpt(master) == 0 && unlockpt(master) == 0);
  FILE* in = fdopen(open(ptsname(master), O_RDWR | O_NOCTTY), "r");
  ASSERT_NE(in, nullptr);
  struct termios before, now, after;
  ASSERT_EQ(tcgetattr(fileno(in), &before), 0);
  ASSERT_TRUE(before.c_lflag & ECHO);
  char buf[64];
  char* result = nullptr;
  std::thread reader([&] { result = SecureFGets(buf, sizeof(buf) - 1, in); });
  // Type only once echo is off, as a person at the prompt would.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  do {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ASSERT_EQ(tcgetattr(fileno(in), &now), 0);
  } while ((now.c_lflag & ECHO) && std::chrono::steady_clock::now() < deadline);
  EXPECT_FALSE(now.c_lflag & (ECHO | ECHONL));
  ASSERT_EQ(write(master, "s3cret\n", 7), 7);
  reader.join();
  ASSERT_EQ(result, buf);
  EXPECT_STREQ(buf, "s3cret\n");
  struct pollfd pfd = {master, POLLIN, 0};
  EXPECT_EQ(poll(&pfd, 1, 100), 0) << "something was echoed";
  ASSERT_EQ(tcgetattr(fileno(in), &after), 0);
  EXPECT_EQ(after.c_lflag, before.c_lflag);
  EXPECT_EQ(SecureFGets(buf, 0, in), nullptr);
  EXPECT_EQ(SecureFGets(buf, 10, nullptr), nullptr);
  fclose(in);
  close(master);
}
