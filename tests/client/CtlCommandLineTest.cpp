// The client's side of a command: the command line, the endpoint, the JSON
// text, the wording of import messages it cannot word, the export file, and
// the program's exit statuses where no service answers. (What the service
// answers, and how vrkmsctl shows it, is tested against the running service:
// VrkmsCtlTest, VrkmsEximTest.)
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>

#include "kms/client/CtlCommandLine.h"
#include "kms/client/CtlCommands.h"
#include "kms/client/CtlEndpoint.h"
#include "kms/client/CtlExportFile.h"
#include "kms/client/CtlOpMessages.h"
#include "kms/client/JsonWriter.h"
#include "support/PlatformTestRoot.h"
#include "support/ProcessRunner.h"
#include "support/TempRoot.h"

using namespace Vaultrest::DL::KMSCtl;

namespace {

CtlCommandLine parse(std::vector<std::string> args) {
  return CtlCommandLine::parse(args);
}

std::string usageErrorOf(std::vector<std::string> args) {
  try {
    CtlCommandLine::parse(args);
  } catch (const UsageError& e) {
    return e.what();
  }
  return "";
}

std::string fileText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

TEST(CtlCommandLine, CommandsTakeOperandsAndOptionsInAnyOrder) {
  const CtlCommandLine line =
      parse({"--json", "--endpoint", "corbaloc::h:1/KMS.KMSMgr", "key", "update", "--state=active",
             "g", "--description", "--x--", "k"});
  EXPECT_TRUE(line.json());
  EXPECT_EQ(line.endpoint(), "corbaloc::h:1/KMS.KMSMgr");
  EXPECT_EQ(line.command(), "key update");
  EXPECT_EQ(line.operands(), (std::vector<std::string>{"g", "k"}));
  EXPECT_EQ(line.value("--state"), "active");
  EXPECT_EQ(line.value("--description"), "--x--");  // a value is taken as it stands
  EXPECT_EQ(line.value("--move-to", "none"), "none");
  EXPECT_TRUE(parse({"group", "create", "--help"}).helpRequested());
  EXPECT_EQ(parse({"group", "update", "g", "--description", ""}).value("--description", "x"), "");

  const CtlCommandLine exported = parse({"export", "--select", "g/*", "out.vrx", "--select=h",
                                         "--passphrase-file", "p", "--select", "g/a"});
  EXPECT_EQ(exported.operands(), (std::vector<std::string>{"out.vrx"}));
  EXPECT_EQ(exported.values("--select"), (std::vector<std::string>{"g/*", "h", "g/a"}));
  EXPECT_TRUE(parse({"export", "f"}).values("--select").empty());  // the whole store
  EXPECT_EQ(CtlCommands::parseSelection("g/a/b"),
            std::make_pair(std::string("g"), std::string("a/b")));  // the store judges the key
  EXPECT_EQ(CtlCommands::parseSelection("g"), std::make_pair(std::string("g"), std::string()));
  for (const char* bad : {"", "/k", "g/"}) {
    EXPECT_THROW(CtlCommands::parseSelection(bad), UsageError) << bad;
  }
  EXPECT_EQ(CtlCommands::parseState("PreLive"), 4);
  EXPECT_EQ(CtlCommands::parseCipher("CT_AES192_CBC"), 2);
  EXPECT_THROW(CtlCommands::parseState("KEY_"), UsageError);
  EXPECT_EQ(CtlCommands::parseHex("00fFa0", "x"), std::string("\x00\xff\xa0", 3));
  for (const char* bad : {"abc", "", "0g"}) {
    EXPECT_THROW(CtlCommands::parseHex(bad, "x"), UsageError) << bad;
  }
}

TEST(CtlCommandLine, FaultsAreUsageErrors) {
  const std::pair<std::vector<std::string>, const char*> faults[] = {
      {{}, "no command given"},
      {{"key", "steal"}, "unknown command key steal"},
      {{"key"}, "unknown command key"},
      {{"--verbose", "status"}, "unknown option --verbose"},
      {{"--endpoint"}, "--endpoint needs a value"},
      {{"status", "now"}, "status takes no operands"},
      {{"key", "show", "g"}, "key show takes GROUP NAME"},
      {{"import", "a", "b"}, "import takes FILE"},
      {{"group", "create", "g"}, "group create needs --cipher"},
      {{"group", "create", "g", "--cipher"}, "--cipher needs a value"},
      {{"group", "delete", "g", "--force=yes"}, "--force takes no value"},
      {{"group", "delete", "g", "--force", "--force"}, "--force given twice"},
      {{"export", "f", "--passphrase-file", "p", "--passphrase-file", "q"},
       "--passphrase-file given twice"},
      {{"group", "list", "--force"}, "unknown option --force for group list"},
      {{"import", "f", "--select", "g"}, "unknown option --select for import"},
      // Passphrases are never taken from the command line.
      {{"key", "create", "g", "k", "--passphrase", "secret"},
       "unknown option --passphrase for key create"},
  };
  for (const auto& fault : faults) {
    EXPECT_EQ(usageErrorOf(fault.first), fault.second);
  }
}

TEST(CtlEndpoint, ReferencesFromEndpointsAndTheMasterConfiguration) {
  const std::pair<const char*, const char*> rows[] = {
      {"giop:tcp:10.1.2.3:7790", "corbaloc::10.1.2.3:7790/KMS.KMSMgr"},
      {"host.example:99", "corbaloc::host.example:99/KMS.KMSMgr"},
      {"giop:tcp::7790", "corbaloc::127.0.0.1:7790/KMS.KMSMgr"},
      {"giop:tcp:0.0.0.0:1", "corbaloc::127.0.0.1:1/KMS.KMSMgr"},
      {"giop:tcp:[::]:1", "corbaloc::[::1]:1/KMS.KMSMgr"},
      {"giop:tcp:[::1]:1", "corbaloc::[::1]:1/KMS.KMSMgr"},
      {"corbaloc::h:2/Other", "corbaloc::h:2/Other"},
      {"IOR:0000", "IOR:0000"},
      {"giop:unix:/tmp/s", "corbaloc:omniunix:/tmp/s:/KMS.KMSMgr"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(CtlEndpoint::toReference(row.first), row.second);
  }
  for (const char* bad : {"giop:unix:", "giop:ssh:h:1", "host", "host:port"}) {
    EXPECT_THROW(CtlEndpoint::toReference(bad), UsageError) << bad;
  }
  // By default the local endpoint, whatever the master configuration says.
  PlatformTestRoot root;
  root.writeConf("SERVER = localhost\nVRKMS_ENDPOINT = giop:tcp:192.0.2.7:4321\n");
  EXPECT_EQ(CtlEndpoint::configuredReference(),
            "corbaloc:omniunix:" + root.etcDir().substr(0, root.etcDir().size() - 4) +
                "/var/vrkms/local/vrkms.sock:/KMS.KMSMgr");
}

TEST(CtlOutput, JsonEscapesEveryByteAndUnwordedMessagesShowAsTheyCame) {
  std::ostringstream out;
  JsonWriter json(out);
  json.beginObject();
  json.key("s");
  json.value(std::string("a\"b\\c\n\x01\xe9", 8));
  json.key("list");
  json.beginArray();
  json.value(true);
  json.beginObject();
  json.endObject();
  json.value(-1234567890123LL);
  json.endArray();
  json.endObject();
  EXPECT_EQ(out.str(),
            "{\"s\":\"a\\\"b\\\\c\\u000a\\u0001\\u00e9\",\"list\":[true,{},-1234567890123]}");

  // Arguments are put in as they are, in one pass.
  EXPECT_EQ(CtlOpMessages::text(4, {"a%2", "b%1"}), "Changing key group [a%2] to [b%1]");
  EXPECT_EQ(CtlOpMessages::text(4, {"g"}), "message 4: g");
  EXPECT_EQ(CtlOpMessages::text(1, {"g", "extra"}), "message 1: g, extra");
  EXPECT_EQ(CtlOpMessages::text(99, {}), "message 99");
}

TEST(CtlExportFile, AppearsWholeWithMode0600OrNotAtAll) {
  TempRoot dir("vrkms-export-file");
  const std::string target = dir.file("out.vrx");
  const auto entries = [&] {
    std::vector<std::string> names;
    DIR* d = ::opendir(dir.path().c_str());
    while (dirent* entry = ::readdir(d)) {
      if (entry->d_name[0] != '.' || std::string(entry->d_name).size() > 2) {
        names.push_back(entry->d_name);
      }
    }
    ::closedir(d);
    std::sort(names.begin(), names.end());
    return names;
  };
  {
    CtlExportFile file(target);
    // Hidden beside the target until it is whole.
    const std::string tempName = file.tempPath().substr(dir.path().size() + 1);
    EXPECT_EQ(tempName.rfind(".out.vrx.", 0), 0u) << tempName;
    EXPECT_EQ(entries(), (std::vector<std::string>{tempName}));
    file.commit("\x00\x01sealed", 8);
  }
  EXPECT_EQ(entries(), (std::vector<std::string>{"out.vrx"}));
  EXPECT_EQ(fileText(target), std::string("\x00\x01sealed", 8));
  struct stat info;
  ASSERT_EQ(::stat(target.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0600u);

  // Not committed (a refused export, a failure): the old file stays as it
  // was and the new one is gone; a later export replaces it whole.
  { CtlExportFile abandoned(target); }
  EXPECT_EQ(entries(), (std::vector<std::string>{"out.vrx"}));
  EXPECT_EQ(fileText(target), std::string("\x00\x01sealed", 8));
  CtlExportFile(target).commit("new", 3);
  EXPECT_EQ(fileText(target), "new");
  EXPECT_THROW(CtlExportFile(dir.file("missing/out.vrx")), UsageError);
  EXPECT_THROW(CtlExportFile(dir.path() + "/"), UsageError);
}

// Usage faults end with 2 before anything is sent, an unreachable service
// with 3.
TEST(CtlProgram, BadInputAndAnUnreachableServiceHaveTheirOwnStatuses) {
  TempRoot root("vrkms-ctl");
  std::ofstream(root.file("empty.pass")) << "\n";
  std::ofstream(root.file("good.pass")) << "p\n";
  const auto run = [&](std::vector<std::string> args) {
    return ProcessRunner(VRKMSCTL_BINARY)
        .args(std::move(args))
        .env("VREST_ROOT", root.path())
        .run();
  };
  const ProcessResult help = run({"--help"});
  EXPECT_EQ(help.exitStatus, 0);
  EXPECT_EQ(help.out.rfind("usage: vrkmsctl", 0), 0u);
  const struct {
    std::vector<std::string> args;
    const char* err;  // how standard error begins
  } faults[] = {
      {{"key", "get"}, "vrkmsctl: key get takes TAG\nusage: vrkmsctl"},
      {{"--endpoint", "corbaloc:nonsense", "status"}, "vrkmsctl: "},
      {{"group", "create", "g", "--cipher", "DES"}, "vrkmsctl: "},
      {{"key", "recover", "g", "k", "--tag", "00"},
       "vrkmsctl: a passphrase is needed: give --passphrase-file FILE"},
      {{"key", "create", "g", "k", "--passphrase-file", root.file("none")}, "vrkmsctl: "},
      {{"export", root.file("out"), "--passphrase-file", root.file("empty.pass")},
       "vrkmsctl: the passphrase of an export must not be empty\n"},
      {{"import", root.file("none.vrx"), "--passphrase-file", root.file("good.pass")},
       "vrkmsctl: cannot read the export file "},
  };
  for (const auto& fault : faults) {
    const ProcessResult r = run(fault.args);
    EXPECT_EQ(r.exitStatus, 2) << fault.args[0] << r.err;
    EXPECT_EQ(r.err.rfind(fault.err, 0), 0u) << r.err;
  }

  // Nothing listens at the local endpoint, nor at port 1 (privileged,
  // unused); input that passes goes on to the service.
  const ProcessResult down = run({"status"});
  EXPECT_EQ(down.exitStatus, 3);
  EXPECT_EQ(down.err, "error TRANSIENT: cannot reach the service at corbaloc:omniunix:" +
                          root.path() + "/var/vrkms/local/vrkms.sock:/KMS.KMSMgr\n");
  const ProcessResult downJson = run({"--endpoint", "127.0.0.1:1", "--json", "group", "list"});
  EXPECT_EQ(downJson.exitStatus, 3);
  EXPECT_EQ(downJson.out,
            "{\"error\":\"TRANSIENT\",\"message\":\"cannot reach the service at "
            "corbaloc::127.0.0.1:1/KMS.KMSMgr\"}\n");
  EXPECT_EQ(run({"--endpoint", "127.0.0.1:1", "export", root.file("out"), "--passphrase-file",
                 root.file("good.pass")})
                .exitStatus,
            3);
  struct stat info;
  EXPECT_NE(::stat(root.file("out").c_str(), &info), 0);
}
