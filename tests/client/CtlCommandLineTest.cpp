// The client's side of a command: the command line, the endpoint, the JSON
// text, and the program's exit statuses where no service answers.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>

#include "kms/client/CtlCommandLine.h"
#include "kms/client/CtlCommands.h"
#include "kms/client/CtlEndpoint.h"
#include "kms/client/CtlPrinter.h"
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
  EXPECT_FALSE(line.has("--move-to"));
  EXPECT_EQ(line.value("--move-to", "none"), "none");

  EXPECT_TRUE(parse({"unquiesce", "--force"}).has("--force"));
  EXPECT_EQ(parse({"status"}).command(), "status");
  EXPECT_TRUE(parse({"--help"}).helpRequested());
  EXPECT_TRUE(parse({"group", "create", "--help"}).helpRequested());
  EXPECT_EQ(parse({"group", "update", "g", "--description", ""}).value("--description", "x"), "");
}

TEST(CtlCommandLine, FaultsAreUsageErrors) {
  EXPECT_EQ(usageErrorOf({}), "no command given");
  EXPECT_EQ(usageErrorOf({"frobnicate"}), "unknown command frobnicate");
  EXPECT_EQ(usageErrorOf({"key", "steal"}), "unknown command key steal");
  EXPECT_EQ(usageErrorOf({"key"}), "unknown command key");
  EXPECT_EQ(usageErrorOf({"--verbose", "status"}), "unknown option --verbose");
  EXPECT_EQ(usageErrorOf({"--endpoint"}), "--endpoint needs a value");
  EXPECT_EQ(usageErrorOf({"status", "now"}), "status takes no operands");
  EXPECT_EQ(usageErrorOf({"key", "show", "g"}), "key show takes GROUP NAME");
  EXPECT_EQ(usageErrorOf({"group", "create", "g"}), "group create needs --cipher");
  EXPECT_EQ(usageErrorOf({"group", "create", "g", "--cipher"}), "--cipher needs a value");
  EXPECT_EQ(usageErrorOf({"group", "delete", "g", "--force=yes"}), "--force takes no value");
  EXPECT_EQ(usageErrorOf({"group", "delete", "g", "--force", "--force"}), "--force given twice");
  EXPECT_EQ(usageErrorOf({"group", "list", "--force"}), "unknown option --force for group list");
  // Passphrases are never taken from the command line.
  EXPECT_EQ(usageErrorOf({"key", "create", "g", "k", "--passphrase", "secret"}),
            "unknown option --passphrase for key create");
}

TEST(CtlCommandLine, NamesOfStatesAndCiphersAndHex) {
  EXPECT_EQ(CtlCommands::parseState("active"), 1);
  EXPECT_EQ(CtlCommands::parseState("KEY_TERMINATED"), 5);
  EXPECT_EQ(CtlCommands::parseState("PreLive"), 4);
  EXPECT_THROW(CtlCommands::parseState("invalid"), UsageError);
  EXPECT_THROW(CtlCommands::parseState("KEY_"), UsageError);
  EXPECT_EQ(CtlCommands::parseCipher("aes128"), 1);
  EXPECT_EQ(CtlCommands::parseCipher("CT_AES192_CBC"), 2);
  EXPECT_EQ(CtlCommands::parseCipher("Blowfish"), 4);
  EXPECT_THROW(CtlCommands::parseCipher("DES"), UsageError);
  EXPECT_EQ(CtlCommands::parseHex("00fFa0", "x"), std::string("\x00\xff\xa0", 3));
  EXPECT_THROW(CtlCommands::parseHex("abc", "x"), UsageError);
  EXPECT_THROW(CtlCommands::parseHex("", "x"), UsageError);
  EXPECT_THROW(CtlCommands::parseHex("0g", "x"), UsageError);

  EXPECT_EQ(CtlPrinter::stateName(3), "KEY_DEPRECATED");
  EXPECT_EQ(CtlPrinter::stateName(6), "* UNKNOWN STATE *");
  EXPECT_EQ(CtlPrinter::cipherName(4), "CT_BLOW_CBC");
  EXPECT_EQ(CtlPrinter::kpkTypeName(1), "KPK_LOCAL");
  // The wire's Epoch, and a second on either side of it.
  EXPECT_EQ(CtlPrinter::toSeconds(122192928000000000LL), 0);
  EXPECT_EQ(CtlPrinter::toSeconds(122192928000000000LL + 19999999), 1);
}

TEST(CtlEndpoint, ReferencesFromEndpointsAndTheMasterConfiguration) {
  EXPECT_EQ(CtlEndpoint::toReference("giop:tcp:10.1.2.3:7790"),
            "corbaloc::10.1.2.3:7790/KMS.KMSMgr");
  EXPECT_EQ(CtlEndpoint::toReference("host.example:99"), "corbaloc::host.example:99/KMS.KMSMgr");
  EXPECT_EQ(CtlEndpoint::toReference("giop:tcp::7790"), "corbaloc::127.0.0.1:7790/KMS.KMSMgr");
  EXPECT_EQ(CtlEndpoint::toReference("giop:tcp:0.0.0.0:1"), "corbaloc::127.0.0.1:1/KMS.KMSMgr");
  EXPECT_EQ(CtlEndpoint::toReference("giop:tcp:[::]:1"), "corbaloc::[::1]:1/KMS.KMSMgr");
  EXPECT_EQ(CtlEndpoint::toReference("giop:tcp:[::1]:1"), "corbaloc::[::1]:1/KMS.KMSMgr");
  EXPECT_EQ(CtlEndpoint::toReference("corbaloc::h:2/Other"), "corbaloc::h:2/Other");
  EXPECT_EQ(CtlEndpoint::toReference("IOR:0000"), "IOR:0000");
  EXPECT_THROW(CtlEndpoint::toReference("giop:unix:/tmp/socket"), UsageError);
  EXPECT_THROW(CtlEndpoint::toReference("host"), UsageError);
  EXPECT_THROW(CtlEndpoint::toReference("host:port"), UsageError);

  PlatformTestRoot root;
  EXPECT_EQ(CtlEndpoint::configuredReference(), "corbaloc::127.0.0.1:7790/KMS.KMSMgr");
  root.writeConf("SERVER = localhost\nVRKMS_ENDPOINT = giop:tcp:192.0.2.7:4321\n");
  EXPECT_EQ(CtlEndpoint::configuredReference(), "corbaloc::192.0.2.7:4321/KMS.KMSMgr");
}

TEST(JsonWriter, NestsAndEscapesEveryByte) {
  std::ostringstream out;
  JsonWriter json(out);
  json.beginObject();
  json.key("s");
  json.value(std::string("a\"b\\c\n\x01\xe9", 8));
  json.key("n");
  json.value(-5);
  json.key("list");
  json.beginArray();
  json.value(true);
  json.beginObject();
  json.endObject();
  json.value(1234567890123LL);
  json.endArray();
  json.key("empty");
  json.beginArray();
  json.endArray();
  json.endObject();
  EXPECT_EQ(out.str(),
            "{\"s\":\"a\\\"b\\\\c\\u000a\\u0001\\u00e9\",\"n\":-5,"
            "\"list\":[true,{},1234567890123],\"empty\":[]}");
}

TEST(CtlProgram, UsageErrorsAndAnUnreachableServiceHaveTheirOwnStatuses) {
  TempRoot root("vrkms-ctl");
  const auto run = [&](std::vector<std::string> args) {
    return ProcessRunner(VRKMSCTL_BINARY)
        .args(std::move(args))
        .env("VREST_ROOT", root.path())
        .run();
  };
  const ProcessResult help = run({"--help"});
  EXPECT_EQ(help.exitStatus, 0);
  EXPECT_EQ(help.out.rfind("usage: vrkmsctl", 0), 0u);
  const ProcessResult usage = run({"key", "get"});
  EXPECT_EQ(usage.exitStatus, 2);
  EXPECT_EQ(usage.err.rfind("vrkmsctl: key get takes TAG\nusage: vrkmsctl", 0), 0u) << usage.err;
  EXPECT_EQ(run({"--endpoint", "corbaloc:nonsense", "status"}).exitStatus, 2);
  EXPECT_EQ(run({"group", "create", "g", "--cipher", "DES"}).exitStatus, 2);
  EXPECT_EQ(run({"key", "recover", "g", "k", "--tag", "00"})
                .err.rfind("vrkmsctl: a passphrase is needed: give --passphrase-file FILE", 0),
            0u);
  EXPECT_EQ(run({"key", "create", "g", "k", "--passphrase-file", root.file("none")}).exitStatus, 2);

  // Nothing listens at the configured endpoint (port 1: privileged, unused).
  ::mkdir(root.file("etc").c_str(), 0700);
  std::ofstream(root.file("etc/vr.conf")) << "VRKMS_ENDPOINT = giop:tcp:127.0.0.1:1\n";
  const ProcessResult down = run({"status"});
  EXPECT_EQ(down.exitStatus, 3);
  EXPECT_EQ(down.err,
            "error TRANSIENT: cannot reach the service at corbaloc::127.0.0.1:1/KMS.KMSMgr\n");
  const ProcessResult downJson = run({"--json", "group", "list"});
  EXPECT_EQ(downJson.exitStatus, 3);
  EXPECT_EQ(downJson.out,
            "{\"error\":\"TRANSIENT\",\"message\":\"cannot reach the service at "
            "corbaloc::127.0.0.1:1/KMS.KMSMgr\"}\n");
}
