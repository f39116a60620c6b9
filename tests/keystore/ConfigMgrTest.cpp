// ConfigMgr over real files and the master configuration, and scripted agents for failures.
#include "kms/server/keystore/files/ConfigMgr.h"

#include <filesystem>
#include <functional>
#include <map>

#include <gtest/gtest.h>

#include "keystore/CryptoTestUtil.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/keystore/files/ACEConfAgent.h"
#include "kms/server/keystore/files/KMSConfig.h"
#include "support/PlatformTestRoot.h"
#include "support/TempRoot.h"

namespace Vaultrest::DL::KMS {
namespace {

const config_row* const kTable = KMSConfig::s_config_table;

// An agent that serves from a map and fails where it is told to.
class ScriptedAgent : public ConfigurationAgent {
 public:
  struct Script {
    bool failGets = false, failSets = false, failReload = false, failSave = false;
    int reloads = 0, saves = 0;
    std::map<std::string, int> integers;
  };
  explicit ScriptedAgent(Script* script) : m_s(script) {}
  int getIntegerValue(const std::string& key) override {
    failIf(m_s->failGets || m_s->integers.count(key) == 0);
    return m_s->integers[key];
  }
  std::string getStringValue(const std::string&) override { return failIf(true), ""; }
  void setIntegerValue(const std::string& key, int value) override {
    failIf(m_s->failSets);
    m_s->integers[key] = value;
  }
  void setStringValue(const std::string&, const std::string&) override { failIf(true); }
  void reload() override { failIf(++m_s->reloads && m_s->failReload); }
  void save() override { failIf(++m_s->saves && m_s->failSave); }

 private:
  static void failIf(bool fail) {
    if (fail) {
      KS_THROW(1257, "ScriptedAgent");
    }
  }
  Script* m_s;
};

TEST(ConfigMgrTest, RowsFileValuesDefaultsSaveAgentFailuresAndAbsurdFiles) {
  TempRoot dir;
  const std::string conf = dir.file("vrkms.conf");
  writeFile(conf,
            "[KMSConfig]\n\"timeout\"=dword:0000001e\n\"hash_debug\"=\"not a "
            "number\"\n[Other]\n\"max_key_groups\"=dword:00000005\n");
  ConfigMgr mgr(kTable, std::make_unique<ACEConfAgent>(conf), nullptr);
  ASSERT_NE(mgr.getConfEntry("timeout"), nullptr);
  EXPECT_TRUE(mgr.getConfEntry("Timeout") == nullptr && mgr.getConfEntry("EOTEOTEOT") == nullptr);
  const std::pair<std::function<void()>, int> refusals[] = {
      {[&] { mgr.getIntegerValue("emm_server"); }, 1259},
      {[&] { mgr.getStringValue("timeout"); }, 1259},
      {[&] { mgr.setStringValue("timeout", "5"); }, 1259},
      {[&] { mgr.setIntegerValue("home_page", 5); }, 1259},
      {[&] { mgr.getIntegerValue("nothing"); }, 1258},
      {[&] { mgr.getStringValue("nothing"); }, 1258},
      {[&] { mgr.setIntegerValue("nothing", 1); }, 1258},
      // Memory rows are read-only defaults.
      {[&] { mgr.setIntegerValue("memint", 21); }, 1257},
      {[&] { mgr.setStringValue("memstr", "x"); }, 1257},
  };
  for (const auto& refusal : refusals) {
    EXPECT_EQ(cryptotest::ksStatus(refusal.first), refusal.second);
  }
  EXPECT_EQ(mgr.getStringValue("memstr") + mgr.getStringValue("key_encrypt_algo"),
            "DefaultAES_256_CBC_EVP");
  // A value of the wrong type, and one in another section, are not served.
  EXPECT_EQ(
      std::vector<int>({mgr.getIntegerValue("memint"), mgr.getIntegerValue("timeout"),
                        mgr.getIntegerValue("hash_debug"), mgr.getIntegerValue("max_key_groups")}),
      std::vector<int>({20, 30, 0, 100}));
  // A set reaches the file only through save; a reload drops it.
  mgr.setIntegerValue("timeout", 42);
  EXPECT_EQ(mgr.getIntegerValue("timeout"), 42);
  EXPECT_EQ(ConfigMgr(kTable, conf).getIntegerValue("timeout"), 30);
  mgr.reload();
  EXPECT_EQ(mgr.getIntegerValue("timeout"), 30);
  mgr.setIntegerValue("timeout", 42);
  mgr.setIntegerValue("file_rw_debug", -5);
  mgr.setStringValue("home_page", "kms.example.org");
  mgr.save();
  EXPECT_NE(readFile(conf).find("\"timeout\"=dword:0000002a"), std::string::npos);
  ConfigMgr again(kTable, conf);
  EXPECT_EQ(
      std::vector<int>({again.getIntegerValue("timeout"), again.getIntegerValue("file_rw_debug"),
                        again.getIntegerValue("max_keys_per_group")}),
      std::vector<int>({42, -5, 30}));
  EXPECT_EQ(again.getStringValue("home_page"), "kms.example.org");
  // A file in a missing directory: reading finds nothing, saving fails.
  ConfigMgr real(kTable, dir.file("missing/vrkms.conf"));
  EXPECT_EQ(real.getIntegerValue("max_key_groups"), 100);
  real.setIntegerValue("max_key_groups", 7);
  EXPECT_EQ(real.getIntegerValue("max_key_groups"), 7);
  EXPECT_EQ(KS_STATUS(real.save()), 1257);
  // An agent that fails everything: gets fall back, sets pass the failure on.
  ScriptedAgent::Script script;
  script.failGets = script.failSets = true;
  script.integers["timeout"] = 99;
  ConfigMgr scripted(kTable, std::make_unique<ScriptedAgent>(&script), nullptr);
  EXPECT_EQ(scripted.getIntegerValue("timeout"), 10);
  EXPECT_EQ(scripted.getStringValue("home_page"), "www.example.com");
  EXPECT_EQ(KS_STATUS(scripted.setIntegerValue("timeout", 1)), 1257);
  script.failGets = false;
  EXPECT_EQ(scripted.getIntegerValue("timeout"), 99);
  // No agents at all: defaults everywhere, every set refused.
  ConfigMgr empty(kTable, nullptr, nullptr);
  EXPECT_EQ(empty.getIntegerValue("use_cxss"), 2);
  EXPECT_EQ(empty.getStringValue("emm_server"), "localhost");
  EXPECT_EQ(std::vector<int>({KS_STATUS(empty.setIntegerValue("timeout", 1)),
                              KS_STATUS(empty.setStringValue("emm_server", "x")),
                              KS_STATUS(empty.reload()), KS_STATUS(empty.save())}),
            std::vector<int>({1257, 1257, 0, 0}));
  // Reload and save try both agents before failing.
  ScriptedAgent::Script file, central;
  ConfigMgr both(kTable, std::make_unique<ScriptedAgent>(&file),
                 std::make_unique<ScriptedAgent>(&central));
  both.reload();
  both.save();
  file.failReload = true;
  EXPECT_EQ(KS_STATUS(both.reload()), 1257);
  central.failSave = true;
  EXPECT_EQ(KS_STATUS(both.save()), 1257);
  file.failSave = true;
  EXPECT_EQ(KS_STATUS(both.save()), 1257);
  EXPECT_EQ(std::vector<int>({file.reloads, central.reloads, file.saves, central.saves}),
            std::vector<int>({2, 2, 3, 3}));
  // A file of absurd size or section count is refused, and the defaults serve.
  std::string sections;
  for (int i = 0; i < 100000; ++i) {
    sections += "[s" + std::to_string(i) + "]\n";
  }
  const std::string valid = "[KMSConfig]\n\"timeout\"=dword:0000001e\n";
  for (const std::string& text : {valid + sections, valid + sections.substr(0, 200), valid}) {
    writeFile(conf, text);
    EXPECT_EQ(ConfigMgr(kTable, conf).getIntegerValue("timeout"), text == valid ? 30 : 10);
  }
}

TEST(ConfigMgrTest, CentralRowsComeFromTheMasterConfiguration) {
  PlatformTestRoot root;
  const std::string conf = root.etcDir() + "/../kms/vrkms.conf";
  {
    // No master configuration: the central agent cannot be made.
    ConfigMgr mgr(kTable, conf);
    EXPECT_EQ(mgr.getIntegerValue("use_cxss"), 2);
    EXPECT_EQ(mgr.getStringValue("emm_server"), "localhost");
    EXPECT_EQ(KS_STATUS(mgr.setIntegerValue("verbose", 1)), 1257);
  }
  root.writeConf("# master\nSERVER = host1\nUSE_CXSS = 1\nEMM_SERVER = emm.example.net\n");
  {
    ConfigMgr mgr(kTable, conf);
    EXPECT_EQ(mgr.getIntegerValue("use_cxss") * 10 + mgr.getIntegerValue("verbose"), 10);
    EXPECT_EQ(mgr.getStringValue("emm_server"), "emm.example.net");
    mgr.setIntegerValue("verbose", 3);
    mgr.setStringValue("emm_server", "emm2.example.net");
    // The file agent fails to save (no "kms" directory); the central one saves.
    EXPECT_EQ(KS_STATUS(mgr.save()), 1257);
  }
  EXPECT_NE(root.readConf().find("SERVER = host1"), std::string::npos) << root.readConf();
  ConfigMgr again(kTable, conf);
  EXPECT_EQ(again.getStringValue("emm_server"), "emm2.example.net");
  // The master configuration goes: the reload fails, the copy read before stays.
  std::filesystem::remove(root.confPath());
  EXPECT_EQ(KS_STATUS(again.reload()), 1257);
  EXPECT_EQ(again.getIntegerValue("verbose"), 3);
}

}  // namespace
}  // namespace Vaultrest::DL::KMS
