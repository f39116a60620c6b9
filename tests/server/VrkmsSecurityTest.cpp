// What vrkms and vrkmsctl leave behind and whom they serve: private files, no
// secret outside the store and the export, peers held to their rights.
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <openssl/evp.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <termios.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <regex>

#include <KMS.h>

#include "server/ServiceClient.h"
#include "server/ServiceSandbox.h"

namespace Fw = Ardentis::Vaultrest::TL::Framework;
namespace Remote = Ardentis::Vaultrest::DL::KMS;
namespace Facets = Ardentis::Vaultrest::DL::KMSFacetsV1;

namespace {

using CtlOutput::jsonField;
using CtlOutput::startsWith;
using ServiceClient::outcome;

// A key read back as hexadecimal: its bytes, hexadecimal in either case, base64.
std::vector<std::string> keyForms(const std::string& hex) {
  std::string bytes, upper = hex;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  std::transform(hex.begin(), hex.end(), upper.begin(), ::toupper);
  std::string base64(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  base64.resize(static_cast<size_t>(EVP_EncodeBlock(
      reinterpret_cast<unsigned char*>(&base64[0]),
      reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()))));
  return {hex, bytes, upper, base64};
}

// Whether a process of the same user without CAP_SYS_PTRACE may open `pid`'s
// memory (unless `pid` made itself non-dumpable).
bool readableWithoutPtraceCapability(pid_t pid) {
  const std::string path = "/proc/" + std::to_string(pid) + "/mem";
  const pid_t child = ::fork();
  if (child == 0) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct caps[2];
    ::syscall(SYS_capget, &header, caps);
    caps[0].effective &= ~(1u << CAP_SYS_PTRACE);
    ::syscall(SYS_capset, &header, caps);
    ::_exit(::open(path.c_str(), O_RDONLY) >= 0 ? 0 : 1);
  }
  int status = -1;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool coreLimitIsZero(pid_t pid) {
  const std::string limits = readFile("/proc/" + std::to_string(pid) + "/limits");
  return std::regex_search(limits, std::regex("Max core file size +0 +0 "));
}

// Checks that everything under `root` is private to its owner; gives the paths.
std::vector<std::string> expectPrivate(const std::string& root) {
  const std::vector<std::string> found = ServiceSandbox::walk(root);
  for (const std::string& file : found) {
    struct stat info;
    if (::lstat(file.c_str(), &info) != 0 || S_ISSOCK(info.st_mode)) {
      continue;  // gone meanwhile; the local endpoint's, in a closed directory
    }
    EXPECT_TRUE(S_ISREG(info.st_mode) || S_ISDIR(info.st_mode)) << file;
    EXPECT_EQ(info.st_mode & (S_ISDIR(info.st_mode) ? 077 : 0177), 0u)
        << file << std::oct << " mode " << info.st_mode;
  }
  return found;
}

std::string grantLine(const std::vector<int>& rights) {
  std::string line = "VRKMS_GRANT = 127.0.0.1 ";
  for (size_t i = 0; i < rights.size(); ++i) {
    line += (i == 0 ? "" : ",") + std::to_string(rights[i]);
  }
  return line + "\n";
}

struct Guarded {
  const char* name;
  std::vector<std::vector<int>> alternatives;
  std::function<void()> call;
};

class VrkmsSecurity : public ::testing::Test {
 protected:
  void SetUp() override { m_vrkms.writeConf(""); }

  std::string path(const std::string& name) const { return m_vrkms.root().file(name); }
  void admin(const std::vector<std::string>& args, const std::string& input = "") {
    EXPECT_EQ(m_vrkms.run(args, input).exitStatus, 0) << args[0];
  }
  std::string text(const std::vector<std::string>& args) { return m_vrkms.ok(args); }
  std::string json(const std::vector<std::string>& args) { return m_vrkms.json(args); }
  // A store with group "g" and key "k" in it, served; the key's tag.
  std::string serveOneKey() {
    EXPECT_TRUE(m_vrkms.makeStore());
    EXPECT_TRUE(m_vrkms.start()) << m_vrkms.stderrText() << m_vrkms.debugLog();
    json({"group", "create", "g", "--cipher", "AES256"});
    return jsonField(json({"key", "create", "g", "k"}), "tag");
  }

  ServiceSandbox m_vrkms;
};

TEST_F(VrkmsSecurity, AFullRunLeavesOnlyPrivateFilesAndNoSecretOutsideTheStore) {
  const std::string hmk1 = "Hmk1-Qz7xW1vT", kpk1 = "Kpk1-Rt8yV2mS", hmk2 = "Hmk2-Ux5kJ9pL",
                    kpk2 = "Kpk2-Wc4nH8qA";
  const std::map<std::string, std::string> passphraseFiles = {{"hmk2.txt", hmk2},
                                                              {"kpk2.txt", kpk2},
                                                              {"key.txt", "Key-Mn3bC4zR"},
                                                              {"export.txt", "Exp-Lp6dF0sE"}};
  std::vector<std::string> secrets = {hmk1, kpk1};  // each in every form it could be written in
  for (const auto& [name, passphrase] : passphraseFiles) {
    m_vrkms.writePrivate(name, passphrase + "\n");
    secrets.push_back(passphrase);
  }
  const std::string exportFile = path("keys.export");
  // The administrator options, passphrases on the command line and asked.
  admin(
      {"-createemptydb", "-hmkpass", hmk1, "-hmkid", "hmk-1", "-kpkpass", kpk1, "-kpkid", "kpk-1"});
  admin({"-info"});
  admin({"-resethmk", "-overwrite"}, hmk1 + "\n" + hmk1 + "\n");
  admin({"-resetkpk", "-overwrite", "-kpkpass", kpk1});

  ASSERT_TRUE(m_vrkms.start()) << m_vrkms.stderrText() << m_vrkms.debugLog();
  text({"status"});
  json({"group", "create", "g", "--cipher", "AES256", "--description", "main"});
  json({"group", "create", "g2", "--cipher", "AES256"});
  json({"group", "create", "s", "--cipher", "AES128"});
  json({"group", "create", "b", "--cipher", "BLOWFISH"});
  json({"group", "update", "b", "--new-name", "bf", "--description", "old"});
  const std::string k1 =
      jsonField(json({"key", "create", "g", "k1", "--description", "one"}), "tag");
  const std::string made = json({"key", "create", "g", "k2", "--passphrase-file", path("key.txt")});
  const std::string k2 = jsonField(made, "tag");
  const std::string k3 = jsonField(json({"key", "create", "s", "k3", "--state", "prelive"}), "tag");
  const std::string k4 = jsonField(json({"key", "create", "bf", "k4"}), "tag");
  json({"key", "update", "s", "k3", "--state", "active"});
  json({"key", "update", "g", "k1", "--new-name", "k1b", "--description", "renamed"});
  json({"key", "update", "g", "k1b", "--move-to", "g2"});
  for (const std::string& tag : {k1, k2, k3, k4}) {
    const std::vector<std::string> forms = keyForms(jsonField(json({"key", "get", tag}), "key"));
    ASSERT_GE(forms[0].size(), 32u) << tag;
    secrets.insert(secrets.end(), forms.begin(), forms.end());
    text({"key", "get", tag});
  }
  const std::string k3Hex = jsonField(json({"key", "get", k3}), "key");
  text({"kad", "get", k2, "12"});
  text({"kad", "find", k2.substr(0, 24)});
  // A key made from a passphrase, gone and brought back.
  for (const char* state : {"inactive", "deprecated", "terminated"}) {
    json({"key", "update", "g", "k2", "--state", state});
  }
  text({"key", "delete", "g", "k2"});
  text({"key", "recover", "g", "k2", "--tag", k2, "--salt", jsonField(made, "KEY_SALT"),
        "--passphrase-file", path("key.txt")});
  text({"quiesce"});
  text({"unquiesce"});
  text({"rotate-hmk", "--id", "hmk-2", "--passphrase-file", path("hmk2.txt")});
  text({"rotate-kpk", "--id", "kpk-2", "--passphrase-file", path("kpk2.txt")});
  text({"export", exportFile, "--passphrase-file", path("export.txt")});
  text({"group", "delete", "s", "--force"});
  text({"import", exportFile, "--passphrase-file", path("export.txt"), "--preview"});
  text({"import", exportFile, "--passphrase-file", path("export.txt"), "--description", "back"});
  EXPECT_EQ(jsonField(json({"key", "get", k3}), "key"), k3Hex);  // imported again
  json({"key", "update", "bf", "k4", "--state", "inactive"});
  text({"--json", "status"});
  // While the service runs: its pid and IOR files too.
  const std::vector<std::string> running = expectPrivate(m_vrkms.root().path());
  for (const char* name : {"var/vrkms/vrkms.pid", "var/vrkms/KMS.KMSMgr.ior"}) {
    EXPECT_TRUE(std::find(running.begin(), running.end(), path(name)) != running.end()) << name;
  }
  EXPECT_EQ(m_vrkms.terminate(), std::make_pair(0, 0)) << m_vrkms.debugLog();

  admin({"-resethmk", "-overwrite", "-hmkpass", hmk2});
  admin({"-resetkpk", "-overwrite"}, kpk2 + "\n" + kpk2 + "\n");
  admin({"-info"});

  const std::vector<std::string> written = expectPrivate(m_vrkms.root().path());
  EXPECT_TRUE(std::find(written.begin(), written.end(), exportFile) != written.end());
  // No secret in any file written; the store's files and the export hold them only sealed.
  size_t searched = 0;
  for (const auto& [file, content] : ServiceSandbox::snapshot(m_vrkms.root().path())) {
    searched += passphraseFiles.count(file) ? 0 : 1;
    for (size_t i = 0; i < secrets.size() && !passphraseFiles.count(file); ++i) {
      EXPECT_EQ(content.find(secrets[i]), std::string::npos) << "secret " << i << " in " << file;
    }
  }
  EXPECT_GE(searched, 6u);  // two logs, the store's three files, the export
  // The logs did see the passphrases go by.
  const std::string log = m_vrkms.debugLog();
  for (const char* seen :
       {"-hmkpass ****** -hmkid hmk-1 -kpkpass ****** ", "updateHMK", "exportKS", "importKS"}) {
    EXPECT_TRUE(CtlOutput::contains(log, seen)) << seen;
  }
}

TEST_F(VrkmsSecurity, APeerIsRefusedEveryOperationWhoseRightsItLacks) {
  const std::string tag = serveOneKey();
  const std::string groupTag = jsonField(json({"group", "show", "g"}), "tag");
  // The facets, forms and a KAD of 12 bytes, fetched while loopback holds every right.
  m_vrkms.writeConf(grantLine({1, 2, 3, 4, 28, 40}));
  KmsClient client(m_vrkms.reference());
  Remote::KMSMgr_ptr mgr = client.manager();
  Facets::KMSQueryableFacet_ptr q = client.query();
  Facets::KMSModifiableFacet_ptr m = client.modify();
  Facets::KMSControlFacet_ptr c = client.control();
  const char *t = tag.c_str(), *g = groupTag.c_str(), *none = "0000000000000000";
  Facets::KeyRecord_var key = q->getKeyRecord(t), record;
  Facets::KeyGroupRecord_var group = q->getKeyGroupRecord(g);
  Fw::octetSeq_var kad, data;
  q->getKeyAndKad(t, 12, record.out(), kad.out());
  ASSERT_EQ(kad->length(), 12u);
  // Each operation, the alternatives of rights it asks for, and a call.
  const std::vector<Guarded> guarded = {
      {"getQueryableFacet", {{28}, {3}, {1}}, [&] { CORBA::release(mgr->getQueryableFacet()); }},
      {"getModifiableFacet", {{2}, {40}, {3}}, [&] { CORBA::release(mgr->getModifiableFacet()); }},
      {"getControlFacet", {{28}, {1}, {40}}, [&] { CORBA::release(mgr->getControlFacet()); }},
      {"getKeyStoreStats", {{28}, {1}}, [&] { q->getKeyStoreStats(); }},
      {"getKeyRecordByName", {{1}}, [&] { delete q->getKeyRecordByName("g", "k"); }},
      {"getKeyGroupRecordByName", {{1}}, [&] { delete q->getKeyGroupRecordByName("g"); }},
      {"getAllKeyGroupRecords", {{28}, {1}}, [&] { delete q->getAllKeyGroupRecords(); }},
      {"getKeyRecord", {{1}}, [&] { delete q->getKeyRecord(t); }},
      {"getKeyGroupRecord", {{1}}, [&] { delete q->getKeyGroupRecord(g); }},
      {"getActiveKeyRecord", {{1}}, [&] { delete q->getActiveKeyRecord(g); }},
      {"getAllKeyRecordsInGroup", {{28}, {1}}, [&] { delete q->getAllKeyRecordsInGroup(g); }},
      {"exportKS", {{1, 3}}, [&] { delete q->exportKS({}, "pass", data.out()); }},
      {"createKeyGroup", {{2}}, [&] { delete m->createKeyGroup(group.in()); }},
      {"createKey", {{2}}, [&] { delete m->createKey("", key.in()); }},
      {"recoverKey", {{2}}, [&] { delete m->recoverKey("", key.in()); }},
      {"updateKey", {{40}}, [&] { delete m->updateKey(key.in()); }},
      {"updateKeyGroup", {{40}}, [&] { delete m->updateKeyGroup(group.in()); }},
      {"getNewKeyGroup", {{2}}, [&] { delete m->getNewKeyGroup(); }},
      {"getNewKey", {{2}}, [&] { delete m->getNewKey(); }},
      {"deleteKeyGroup", {{3}}, [&] { m->deleteKeyGroup(none, false); }},
      {"deleteKey", {{3}}, [&] { m->deleteKey(none); }},
      {"importKS", {{2}}, [&] { delete m->importKS(Fw::octetSeq(), "pass", true, true, ""); }},
      {"updateHMK", {{40}}, [&] { c->updateHMK("", "hmk-2"); }},
      {"updateKPK", {{40}}, [&] { c->updateKPK("", "kpk-2"); }},
      {"getHMKId", {{1}}, [&] { CORBA::string_free(c->getHMKId()); }},
      {"getKPKId", {{1}}, [&] { CORBA::string_free(c->getKPKId()); }},
      {"quiesce", {{40}}, [&] { c->quiesce(); }},
      {"unquiesce", {{40}}, [&] { c->unquiesce(true); }},
      {"isQuiesced", {{28}, {1}}, [&] { c->isQuiesced(); }},
      {"getKey", {{4}}, [&] { delete q->getKey(t); }},
      {"getKeyAndKad",
       {{4}},
       [&] {
         EXPECT_EQ(q->getKeyAndKad(t, 12, record.out(), data.out()), 1);
         EXPECT_EQ(record->encKey.length(), 32u);
       }},
      {"getKeyRecordsByKad",
       {{4}},
       [&] {
         Facets::KeyRecordSeq_var found;
         EXPECT_EQ(q->getKeyRecordsByKad(kad.in(), found.out()), 3);
       }},
      {"getEximFacet", {{4}}, [&] { CORBA::release(mgr->getEximFacet()); }},
  };
  // No grant, rights no row names, every right but the key-value one.
  for (const std::vector<int>& held :
       std::vector<std::vector<int>>{{}, {7, 99}, {1, 2, 3, 28, 40}}) {
    m_vrkms.writeConf(held.empty() ? "" : grantLine(held));
    for (const Guarded& op : guarded) {
      if (held.size() < 5 || op.alternatives[0][0] == 4) {  // 4: the key-value right
        EXPECT_EQ(outcome(op.call), "NO_PERMISSION") << op.name << " " << grantLine(held);
      }
    }
  }
  // vrkmsctl over TCP: unheard without a grant (closed as accepted), else refused.
  m_vrkms.writeConf("");
  EXPECT_EQ(m_vrkms.ctl({"--endpoint", m_vrkms.reference(), "status"}).exitStatus, 3);
  m_vrkms.writeConf(grantLine({7, 99}));
  const ProcessResult refused = m_vrkms.ctl({"--endpoint", m_vrkms.reference(), "status"});
  EXPECT_EQ(refused.exitStatus, 1);
  EXPECT_TRUE(startsWith(refused.err, "error NO_PERMISSION: ")) << refused.err;
  // The rights of one alternative let the operation through; part of an "and" does not.
  for (const Guarded& op : guarded) {
    for (const std::vector<int>& rights : op.alternatives) {
      m_vrkms.writeConf(grantLine(rights));
      EXPECT_NE(outcome(op.call), "NO_PERMISSION") << op.name << " " << grantLine(rights);
      for (size_t left = 0; rights.size() > 1 && left < rights.size(); ++left) {
        std::vector<int> part = rights;
        part.erase(part.begin() + static_cast<long>(left));
        m_vrkms.writeConf(grantLine(part));
        EXPECT_EQ(outcome(op.call), "NO_PERMISSION") << op.name << " " << grantLine(part);
      }
    }
  }
  m_vrkms.writeConf("");
  EXPECT_EQ(m_vrkms.terminate(), std::make_pair(0, 0)) << m_vrkms.debugLog();
}

TEST_F(VrkmsSecurity, LocalCallersHoldWhatTheirUidIsGranted) {
  // The service's own user holds every right; the socket's directory is its alone.
  const std::string tag = serveOneKey();
  const std::string key = jsonField(json({"key", "get", tag}), "key");
  struct stat dir;
  ASSERT_EQ(::lstat(path("var/vrkms/local").c_str(), &dir), 0);
  EXPECT_EQ(dir.st_mode & 07777, 0700u);
  EXPECT_EQ(dir.st_uid, ::geteuid());
  if (::geteuid() != 0 || ::access("/usr/bin/setpriv", X_OK) != 0) {
    GTEST_SKIP() << "calling as another user needs root and setpriv";
  }
  // vrkmsctl as nobody, through closed directories (as a backup agent may): only
  // what its uid is granted.
  const auto asNobody = [&](bool passesDirectories, std::vector<std::string> args) {
    std::vector<std::string> words = {"--reuid=nobody", "--regid=nogroup", "--clear-groups"};
    if (passesDirectories)
      words.insert(words.end(), {"--inh-caps=+dac_read_search", "--ambient-caps=+dac_read_search"});
    words.push_back(VRKMSCTL_BINARY);
    words.insert(words.end(), args.begin(), args.end());
    return ProcessRunner("/usr/bin/setpriv")
        .args(words)
        .env("VREST_ROOT", m_vrkms.root().path())
        .run();
  };
  EXPECT_EQ(asNobody(false, {"status"}).exitStatus, 3);  // the directory keeps it out
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{"status"}, {"key", "get", tag}, {"quiesce"}}) {
    const ProcessResult r = asNobody(true, args);
    EXPECT_EQ(r.exitStatus, 1) << args[0];
    EXPECT_TRUE(startsWith(r.err, "error NO_PERMISSION: ")) << args[0] << ": " << r.err;
  }
  // A grant by name, and one by number.
  m_vrkms.writeConf("VRKMS_GRANT = uid:nobody 1,28\n");
  EXPECT_EQ(asNobody(true, {"status"}).exitStatus, 0);
  EXPECT_TRUE(startsWith(asNobody(true, {"key", "get", tag}).err, "error NO_PERMISSION: "));
  m_vrkms.writeConf("VRKMS_GRANT = uid:65534 1,4\n");
  EXPECT_EQ(jsonField(asNobody(true, {"--json", "key", "get", tag}).out, "key"), key);
  EXPECT_EQ(m_vrkms.terminate(), std::make_pair(0, 0)) << m_vrkms.debugLog();
}

// A GIOP 1.0 reply (the version of a client's first call of a corbaloc
// object) to request `id` with `status`, little-endian; done() sets its size.
struct Cdr {
  std::string bytes = std::string("GIOP\x01\x00\x01\x01", 8) + "size";
  void ulong(uint32_t v, size_t align = 4) {
    bytes.resize((bytes.size() + align - 1) / align * align, '\0');
    bytes.append(reinterpret_cast<const char*>(&v), 4);
  }
  void string(const std::string& text) {
    ulong(static_cast<uint32_t>(text.size() + 1));
    bytes.append(text.c_str(), text.size() + 1);
  }
  Cdr(uint32_t id, uint32_t status) {
    for (const uint32_t v : {0u, id, status}) {  // no service context
      ulong(v);
    }
  }
  std::string done() {
    const uint32_t size = static_cast<uint32_t>(bytes.size() - 12);
    return bytes.replace(8, 4, reinterpret_cast<const char*>(&size), 4);
  }
};

// The reply to request `id`: a ServiceException whose details nest `depth`
// root causes deep, each written whole, as a hostile server may send it.
std::string nestedFailure(uint32_t id, int depth) {
  Cdr m(id, 1);  // user exception
  m.string("IDL:Ardentis/Vaultrest/TL/Framework/ServiceException:1.0");
  for (int level = 0; level <= depth; ++level) {
    m.ulong(0x7fffff02);
    m.string("IDL:Ardentis/Vaultrest/TL/Framework/ErrorCodeExceptionDetails:1.0");
    for (const int word : {0, 1, 1, 0, 1, 1, 1}) {  // expansion, strings, a null message
      word != 0 ? m.string("") : m.ulong(0);
    }
    m.ulong(level < depth ? 1 : 0);  // root causes
  }
  for (int level = 0; level <= depth; ++level) {
    m.ulong(0, 8);  // a long long 0, then the code
    m.ulong(0);
    m.ulong(1200);
  }
  return m.done();
}

// Serves one connection as a manager would, but answers every call but
// "_is_a" with nestedFailure(depth).
void serveNestedFailure(int listener, int depth) {
  const int fd = ::accept(listener, nullptr, nullptr);
  char header[12];
  while (::recv(fd, header, 12, MSG_WAITALL) == 12 && header[7] == 0) {
    uint32_t size = 0;
    std::memcpy(&size, header + 8, 4);
    std::string body(size, '\0');
    if (::recv(fd, &body[0], size, MSG_WAITALL) != static_cast<ssize_t>(size))
      break;
    size_t at = 0;  // service contexts, then the request id
    const auto ulong = [&] {
      uint32_t v = 0;
      at = (at + 3) / 4 * 4;
      std::memcpy(&v, body.data() + std::min(at, body.size() - 4), 4);
      at += 4;
      return v;
    };
    for (uint32_t contexts = ulong(); contexts > 0 && at < size; --contexts) {
      ulong();
      at += ulong();
    }
    const uint32_t id = ulong();
    Cdr isA(id, 0);
    isA.bytes.push_back('\1');  // true
    const std::string reply =
        CtlOutput::contains(body, std::string("_is_a", 6)) ? isA.done() : nestedFailure(id, depth);
    if (::send(fd, reply.data(), reply.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(reply.size()))
      break;
  }
  ::close(fd);
}

TEST_F(VrkmsSecurity, VrkmsctlDistrustsAReplyNestedBeyondReason) {
  const struct {
    int depth, exitStatus;
    const char* error;
  } rows[] = {{3, 1, "error 1200: "},
              {20000, 3, "error MARSHAL: the reply from corbaloc::127.0.0.1:"}};
  for (const auto& [depth, exitStatus, error] : rows) {
    int port = 0;
    const int listener = ServiceSandbox::bindLoopback(&port, true);
    std::thread fake(serveNestedFailure, listener, depth);
    const ProcessResult r =
        m_vrkms.ctl({"--endpoint", "127.0.0.1:" + std::to_string(port), "status"});
    fake.join();
    ::close(listener);
    EXPECT_TRUE(r.exited && r.exitStatus == exitStatus) << depth << ": " << r.err;
    EXPECT_TRUE(startsWith(r.err, error)) << r.err;
  }
}

TEST_F(VrkmsSecurity, GrantsLastReadWholeStayWhenTheConfigurationCannotBeRead) {
  ASSERT_TRUE(m_vrkms.makeStore());
  // A grant that cannot be read keeps the service from starting.
  m_vrkms.writeConf("VRKMS_GRANT = host:media01 1\n");
  EXPECT_FALSE(m_vrkms.start());
  EXPECT_TRUE(CtlOutput::contains(
      m_vrkms.stderrText(),
      "vrkms: cannot start: in " + path("etc/vr.conf") + ", the line \"VRKMS_GRANT = host:media01"))
      << m_vrkms.stderrText();
  m_vrkms.writeConf(grantLine({28}));
  const std::string tag = serveOneKey();
  KmsClient client(m_vrkms.reference());
  Facets::KMSQueryableFacet_ptr query = client.query();
  Facets::KMSControlFacet_ptr control = client.control();
  // Right 28 lets isQuiesced through; getKey asks for right 4.
  const auto rights = [&] {
    return outcome([&] { control->isQuiesced(); }) + "|" +
           outcome([&] { Facets::KeyRecord_var r = query->getKey(tag.c_str()); });
  };
  const std::string only28 = "|NO_PERMISSION", with4 = "|";
  ASSERT_EQ(rights(), only28);

  m_vrkms.writeConf(grantLine({28}) + grantLine({40}));
  const std::string whole = m_vrkms.readFile("etc/vr.conf");
  const std::string conf = m_vrkms.root().file("etc/vr.conf");
  // Emptied, cut in its last line ("... 40" read as "... 4"), removed, a
  // directory, a line that cannot be read, unreadable (root reads it anyway).
  std::vector<std::function<void()>> faults = {
      [&] { m_vrkms.writePrivate("etc/vr.conf", ""); },
      [&] { m_vrkms.writePrivate("etc/vr.conf", whole.substr(0, whole.size() - 2)); },
      [&] { ::unlink(conf.c_str()); },
      [&] { ::unlink(conf.c_str()), ::mkdir(conf.c_str(), 0700); },
      [&] { m_vrkms.writeConf(grantLine({4}) + "VRKMS_GRANT = 127.0.0.1 four\n"); },
  };
  if (::geteuid() != 0)
    faults.push_back([&] { m_vrkms.writeConf(grantLine({4})), ::chmod(conf.c_str(), 0); });
  for (size_t i = 0; i < faults.size(); ++i) {
    faults[i]();
    EXPECT_EQ(rights(), only28) << "fault " << i;
    ::rmdir(conf.c_str());
    m_vrkms.writeConf(grantLine({4, 28}));
    EXPECT_EQ(rights(), with4) << "restored after fault " << i;
    m_vrkms.writeConf(grantLine({28}));
    EXPECT_EQ(rights(), only28) << "fewer grants after fault " << i;
  }
  EXPECT_EQ(CtlOutput::countOf(m_vrkms.debugLog(), "the grants last read stay in force"),
            faults.size());
  EXPECT_EQ(m_vrkms.terminate(), std::make_pair(0, 0)) << m_vrkms.debugLog();
}

}  // namespace

// A passphrase leaves /proc/<pid>/cmdline once read; vrkms can be neither read
// without CAP_SYS_PTRACE (which all drop here) nor dump core; a signal at a
// passphrase prompt gives the terminal its echo back.
TEST(VrkmsSecrets, StayInsideTheProcessAndOffTheTerminal) {
  if (::access("/usr/bin/setpriv", X_OK) != 0) {
    GTEST_SKIP() << "setpriv is needed to run vrkms without CAP_SYS_PTRACE";
  }
  const std::vector<std::string> noPtrace = {"/usr/bin/setpriv", "--bounding-set=-sys_ptrace"};
  bool observable = false;  // the prober reads a process that did not protect itself
  {
    RunningProcess plain =
        ProcessRunner(noPtrace[0]).args({noPtrace[1], "/bin/sleep", "30"}).spawn();
    const std::string comm = "/proc/" + std::to_string(plain.pid()) + "/comm";
    for (int i = 0; i < 500 && readFile(comm) != "sleep\n"; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));  // setpriv has not run it yet
    }
    observable = readableWithoutPtraceCapability(plain.pid());
  }
  ServiceSandbox vrkms(9, noPtrace);
  vrkms.writeConf("");

  const std::string passphrase = "Hmk-Cm4dLn7e";
  RunningProcess admin =
      vrkms.runner(VRKMS_BINARY, {"-createemptydb", "-hmkpass", passphrase, "-hmkid", "h"})
          .spawnOnTerminal();
  std::string seen;
  ASSERT_TRUE(admin.awaitOutput(" : ", std::chrono::seconds(60), &seen)) << seen;  // the KPK's
  struct termios mode {};
  for (int i = 0; i < 500 && ::tcgetattr(admin.terminal(), &mode) == 0 && (mode.c_lflag & ECHO);
       ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_EQ(mode.c_lflag & ECHO, 0u) << "no prompt without echo";
  const std::string cmdline = readFile("/proc/" + std::to_string(admin.pid()) + "/cmdline");
  EXPECT_NE(cmdline.find("-hmkpass"), std::string::npos);
  EXPECT_EQ(cmdline.find(passphrase), std::string::npos);
  EXPECT_FALSE(observable && readableWithoutPtraceCapability(admin.pid()));
  EXPECT_TRUE(coreLimitIsZero(admin.pid()));

  ::kill(admin.pid(), SIGINT);
  const int status = admin.awaitExit(std::chrono::seconds(30));
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGINT) << status;
  ASSERT_EQ(::tcgetattr(admin.terminal(), &mode), 0);
  EXPECT_NE(mode.c_lflag & ECHO, 0u) << "echo left off";

  ASSERT_TRUE(vrkms.makeStore());
  ASSERT_TRUE(vrkms.start()) << vrkms.stderrText() << vrkms.debugLog();
  EXPECT_FALSE(observable && readableWithoutPtraceCapability(vrkms.pid()));
  EXPECT_TRUE(coreLimitIsZero(vrkms.pid()));
  EXPECT_EQ(vrkms.terminate(), std::make_pair(0, 0)) << vrkms.debugLog();
  if (!observable) {
    GTEST_SKIP() << "the rest passed; dumpability cannot be observed on this system";
  }
}
