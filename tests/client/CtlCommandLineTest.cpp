// The client's side of a command, up to where the service answers.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "kms/client/CtlCommandLine.h"
#include "kms/client/CtlCommands.h"
#include "kms/client/CtlEndpoint.h"
#include "kms/client/CtlExportFile.h"
#include "kms/client/CtlOpMessages.h"
#include "kms/client/JsonWriter.h"
#include "support/ProcessRunner.h"
#include "support/TempRoot.h"

using namespace Vaultrest::DL::KMSCtl;

// Operands and options in any order; a value is taken as it stands.
TEST(CtlCommandLine, OperandsOptionsAndEndpoints) {
  const CtlCommandLine line =
      CtlCommandLine::parse({"--json", "--endpoint", "corbaloc::h:1/KMS.KMSMgr", "key", "update",
                             "--state=active", "g", "--description", "--x--", "k"});
  EXPECT_EQ(line.operands(), (std::vector<std::string>{"g", "k"}));
  EXPECT_EQ(line.value("--state"), "active");
  EXPECT_EQ(line.value("--description"), "--x--");
  EXPECT_EQ(line.value("--move-to", "none"), "none");
  EXPECT_TRUE(CtlCommandLine::parse({"group", "create", "--help"}).helpRequested());
  EXPECT_EQ(CtlCommandLine::parse({"group", "update", "g", "--description", ""})
                .value("--description", "x"),
            "");
  // The store judges the key name of a selection.
  using Names = std::pair<std::string, std::string>;
  EXPECT_EQ(CtlCommands::parseSelection("g/a/b"), Names("g", "a/b"));
  EXPECT_EQ(CtlCommands::parseSelection("g"), Names("g", ""));
  EXPECT_EQ(CtlCommands::parseHex("00fFa0", "x"), std::string("\x00\xff\xa0", 3));
  for (const char* bad : {"", "/k", "g/"}) {
    EXPECT_THROW(CtlCommands::parseSelection(bad), UsageError) << bad;
  }
  for (const char* bad : {"abc", "", "0g"}) {
    EXPECT_THROW(CtlCommands::parseHex(bad, "x"), UsageError) << bad;
  }
  EXPECT_THROW(CtlCommands::parseState("KEY_"), UsageError);
  const std::pair<const char*, const char*> endpoints[] = {
      {"giop:tcp:10.1.2.3:7790", "corbaloc::10.1.2.3:7790/KMS.KMSMgr"},
      {"giop:tcp::7790", "corbaloc::127.0.0.1:7790/KMS.KMSMgr"},
      {"giop:tcp:0.0.0.0:1", "corbaloc::127.0.0.1:1/KMS.KMSMgr"},
      {"giop:tcp:[::]:1", "corbaloc::[::1]:1/KMS.KMSMgr"},
      {"giop:tcp:[::1]:1", "corbaloc::[::1]:1/KMS.KMSMgr"},
      {"corbaloc::h:2/Other", "corbaloc::h:2/Other"},
      {"IOR:0000", "IOR:0000"},
  };
  for (const auto& [endpoint, reference] : endpoints) {
    EXPECT_EQ(CtlEndpoint::toReference(endpoint), reference);
  }
  for (const char* bad : {"giop:unix:", "giop:ssh:h:1", "host", "host:port"}) {
    EXPECT_THROW(CtlEndpoint::toReference(bad), UsageError) << bad;
  }
}

TEST(CtlOutput, JsonEscapesEveryByteAndUnwordedMessagesShowAsTheyCame) {
  std::ostringstream out;
  JsonWriter json(out);  // (keys, booleans and nesting: VrkmsCtlTest, VrkmsEximTest)
  json.beginArray();
  json.value(std::string("a\"b\\c\n\x01\xe9", 8));
  json.beginObject();
  json.endObject();
  json.value(-1234567890123LL);
  json.endArray();
  EXPECT_EQ(out.str(), "[\"a\\\"b\\\\c\\u000a\\u0001\\u00e9\",{},-1234567890123]");
  // Arguments are put in as they are, in one pass.
  EXPECT_EQ(CtlOpMessages::text(4, {"a%2", "b%1"}), "Changing key group [a%2] to [b%1]");
  EXPECT_EQ(CtlOpMessages::text(1, {"g", "extra"}), "message 1: g, extra");
  EXPECT_EQ(CtlOpMessages::text(99, {}), "message 99");
}

// Hidden beside the target until whole; one not committed is removed.
TEST(CtlExportFile, AppearsWholeOrNotAtAll) {
  TempRoot dir("vrkms-export-file");
  const std::string target = dir.file("out.vrx");
  for (const std::string& content : {std::string("\x00\x01sealed", 8), std::string("new")}) {
    CtlExportFile file(target);
    EXPECT_EQ(file.tempPath().rfind(dir.file(".out.vrx."), 0), 0u) << file.tempPath();
    EXPECT_EQ(::access(file.tempPath().c_str(), F_OK), 0);
    file.commit(content.data(), content.size());
    EXPECT_EQ(readFile(target), content);
  }
  std::string temp;
  {
    CtlExportFile abandoned(target);
    temp = abandoned.tempPath();
  }
  EXPECT_NE(::access(temp.c_str(), F_OK), 0);
  EXPECT_THROW(CtlExportFile(dir.file("missing/out.vrx")), UsageError);
  EXPECT_THROW(CtlExportFile(dir.path() + "/"), UsageError);
}

// Usage faults exit 2 before anything is sent; an unreachable service 3, leaving no file.
TEST(CtlProgram, BadInputAndAnUnreachableServiceHaveTheirOwnStatuses) {
  TempRoot root("vrkms-ctl");
  std::ofstream(root.file("empty.pass")) << "\n";
  std::ofstream(root.file("good.pass")) << "p\n";
  const auto run = [&](const std::vector<std::string>& args) {
    return ProcessRunner(VRKMSCTL_BINARY).args(args).env("VREST_ROOT", root.path()).run();
  };
  const ProcessResult help = run({"--help"});
  EXPECT_EQ(help.exitStatus, 0);
  EXPECT_EQ(help.out.rfind("usage: vrkmsctl", 0), 0u);
  // Each fault and how its standard error begins.
  const std::pair<std::vector<std::string>, const char*> faults[] = {
      {{}, "no command given\nusage: vrkmsctl"},
      {{"key", "steal"}, "unknown command key steal\n"},
      {{"key"}, "unknown command key\n"},
      {{"--verbose", "status"}, "unknown option --verbose\n"},
      {{"--endpoint"}, "--endpoint needs a value\n"},
      {{"status", "now"}, "status takes no operands\n"},
      {{"key", "get"}, "key get takes TAG\n"},
      {{"import", "a", "b"}, "import takes FILE\n"},
      {{"group", "create", "g"}, "group create needs --cipher\n"},
      {{"group", "create", "g", "--cipher"}, "--cipher needs a value\n"},
      {{"group", "delete", "g", "--force=yes"}, "--force takes no value\n"},
      {{"group", "delete", "g", "--force", "--force"}, "--force given twice\n"},
      {{"group", "list", "--force"}, "unknown option --force for group list\n"},
      // Passphrases are never taken from the command line.
      {{"key", "create", "g", "k", "--passphrase", "secret"},
       "unknown option --passphrase for key create\n"},
      {{"--endpoint", "corbaloc:nonsense", "status"}, ""},
      {{"group", "create", "g", "--cipher", "DES"}, ""},
      {{"key", "recover", "g", "k", "--tag", "00"},
       "a passphrase is needed: give --passphrase-file FILE"},
      {{"key", "create", "g", "k", "--passphrase-file", root.file("none")}, ""},
      {{"export", root.file("out"), "--passphrase-file", root.file("empty.pass")},
       "the passphrase of an export must not be empty\n"},
      {{"import", root.file("none.vrx"), "--passphrase-file", root.file("good.pass")},
       "cannot read the export file "},
  };
  for (const auto& [args, err] : faults) {
    const ProcessResult r = run(args);
    EXPECT_EQ(r.exitStatus, 2) << r.err;
    EXPECT_EQ(r.err.rfind("vrkmsctl: " + std::string(err), 0), 0u) << r.err;
  }
  // Nothing listens at port 1 (privileged, unused).
  const ProcessResult down = run({"--endpoint", "127.0.0.1:1", "--json", "group", "list"});
  EXPECT_EQ(down.exitStatus, 3);
  EXPECT_EQ(down.out,
            "{\"error\":\"TRANSIENT\",\"message\":\"cannot reach the service at "
            "corbaloc::127.0.0.1:1/KMS.KMSMgr\"}\n");
  EXPECT_EQ(run({"--endpoint", "127.0.0.1:1", "export", root.file("out"), "--passphrase-file",
                 root.file("good.pass")})
                .exitStatus,
            3);
  const std::filesystem::directory_iterator left(root.path());  // the two passphrase files
  EXPECT_EQ(std::distance(begin(left), end(left)), 2);
}
