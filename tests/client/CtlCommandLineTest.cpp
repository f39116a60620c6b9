// The client's side of a command: the command line, the endpoint, the JSON
// text, the wording of export and import results, the export file, and the
// program's exit statuses where no service answers.
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
  EXPECT_EQ(CtlEndpoint::toReference("giop:unix:/tmp/s"), "corbaloc:omniunix:/tmp/s:/KMS.KMSMgr");
  EXPECT_THROW(CtlEndpoint::toReference("giop:unix:"), UsageError);
  EXPECT_THROW(CtlEndpoint::toReference("giop:ssh:h:1"), UsageError);
  EXPECT_THROW(CtlEndpoint::toReference("host"), UsageError);
  EXPECT_THROW(CtlEndpoint::toReference("host:port"), UsageError);

  // By default the local endpoint, whatever the master configuration says.
  PlatformTestRoot root;
  root.writeConf("SERVER = localhost\nVRKMS_ENDPOINT = giop:tcp:192.0.2.7:4321\n");
  EXPECT_EQ(CtlEndpoint::configuredReference(),
            "corbaloc:omniunix:" + root.etcDir().substr(0, root.etcDir().size() - 4) +
                "/var/vrkms/local/vrkms.sock:/KMS.KMSMgr");
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

  // Nothing listens at the local endpoint, nor at port 1 (privileged,
  // unused).
  const ProcessResult down = run({"status"});
  EXPECT_EQ(down.exitStatus, 3);
  EXPECT_EQ(down.err, "error TRANSIENT: cannot reach the service at corbaloc:omniunix:" +
                          root.path() + "/var/vrkms/local/vrkms.sock:/KMS.KMSMgr\n");
  const ProcessResult downJson = run({"--endpoint", "127.0.0.1:1", "--json", "group", "list"});
  EXPECT_EQ(downJson.exitStatus, 3);
  EXPECT_EQ(downJson.out,
            "{\"error\":\"TRANSIENT\",\"message\":\"cannot reach the service at "
            "corbaloc::127.0.0.1:1/KMS.KMSMgr\"}\n");
}

TEST(CtlCommandLine, ExportAndImportArguments) {
  const CtlCommandLine exported = parse({"export", "--select", "g/*", "out.vrx", "--select=h",
                                         "--passphrase-file", "p", "--select", "g/a"});
  EXPECT_EQ(exported.command(), "export");
  EXPECT_EQ(exported.operands(), (std::vector<std::string>{"out.vrx"}));
  EXPECT_EQ(exported.values("--select"), (std::vector<std::string>{"g/*", "h", "g/a"}));
  EXPECT_EQ(exported.value("--passphrase-file"), "p");
  EXPECT_TRUE(parse({"export", "f"}).values("--select").empty());  // the whole store

  EXPECT_EQ(CtlCommands::parseSelection("g"), std::make_pair(std::string("g"), std::string()));
  EXPECT_EQ(CtlCommands::parseSelection("g/k"), std::make_pair(std::string("g"), std::string("k")));
  EXPECT_EQ(CtlCommands::parseSelection("g/*"), std::make_pair(std::string("g"), std::string("*")));
  // The group ends at the first '/'; the store judges the key name.
  EXPECT_EQ(CtlCommands::parseSelection("g/a/b"),
            std::make_pair(std::string("g"), std::string("a/b")));
  EXPECT_THROW(CtlCommands::parseSelection(""), UsageError);
  EXPECT_THROW(CtlCommands::parseSelection("/k"), UsageError);
  EXPECT_THROW(CtlCommands::parseSelection("g/"), UsageError);

  const CtlCommandLine imported =
      parse({"import", "in.vrx", "--preview", "--preserve-names", "--description", "moved"});
  EXPECT_EQ(imported.operands(), (std::vector<std::string>{"in.vrx"}));
  EXPECT_TRUE(imported.has("--preview"));
  EXPECT_TRUE(imported.has("--preserve-names"));
  EXPECT_EQ(imported.value("--description"), "moved");
  EXPECT_FALSE(parse({"import", "in.vrx"}).has("--preview"));

  EXPECT_EQ(usageErrorOf({"export"}), "export takes FILE");
  EXPECT_EQ(usageErrorOf({"import", "a", "b"}), "import takes FILE");
  // Only --select repeats.
  EXPECT_EQ(usageErrorOf({"export", "f", "--passphrase-file", "p", "--passphrase-file", "q"}),
            "--passphrase-file given twice");
  EXPECT_EQ(usageErrorOf({"import", "f", "--preview", "--preview"}), "--preview given twice");
  EXPECT_EQ(usageErrorOf({"export", "f", "--select"}), "--select needs a value");
  EXPECT_EQ(usageErrorOf({"import", "f", "--select", "g"}), "unknown option --select for import");
  EXPECT_EQ(usageErrorOf({"import", "f", "--preserve-names=yes"}),
            "--preserve-names takes no value");
  EXPECT_EQ(usageErrorOf({"export", "f", "--passphrase", "secret"}),
            "unknown option --passphrase for export");
}

TEST(CtlOpMessages, ArgumentsFillTheFormInOrderOrTheMessageShowsAsItCame) {
  // The forms with most arguments, and the one with two blanks in it.
  EXPECT_EQ(CtlOpMessages::text(9, {"k", "g", "sk", "sg"}),
            "Ignoring key [k] from group [g] which is a duplicate of existing key [sk] from group "
            "[sg]");
  EXPECT_EQ(CtlOpMessages::text(10, {"k", "g", "sk", "sg"}),
            "Key [k] from group [g] has the same tag as that of existing key [sk] from group [sg], "
            "but different value.");
  EXPECT_EQ(CtlOpMessages::text(3, {"g", "s"}),
            "Tag for key group [g]  conflicts with the existing key group [s]");
  EXPECT_EQ(CtlOpMessages::text(8, {"k", "g"}), "ERR: Key k does not exist in Key Group g");
  for (long code = 1; code <= 12; ++code) {
    EXPECT_NE(CtlOpMessages::form(code), nullptr) << code;
  }
  // Arguments are put in as they are, in one pass.
  EXPECT_EQ(CtlOpMessages::text(4, {"a%2", "b%1"}), "Changing key group [a%2] to [b%1]");
  // What the table cannot word is shown as it came.
  EXPECT_EQ(CtlOpMessages::text(4, {"g"}), "message 4: g");
  EXPECT_EQ(CtlOpMessages::text(1, {"g", "extra"}), "message 1: g, extra");
  EXPECT_EQ(CtlOpMessages::text(99, {}), "message 99");
}

TEST(CtlPrinter, AnOperationStatusAsTextAndAsJson) {
  namespace Facets = Ardentis::Vaultrest::DL::KMSFacetsV1;
  Facets::KSOpStatus status;
  status.error_code = 1283;
  status.messages.length(2);
  status.messages[0].msg_code = 2;
  status.messages[0].args.length(1);
  status.messages[0].args[0] = "g \"1\"";
  status.messages[1].msg_code = 42;
  std::ostringstream text;
  CtlPrinter(text, false).opStatus(status);
  EXPECT_EQ(text.str(),
            "Key group [g \"1\"] already exists in the database\n"
            "message 42\n"
            "status 1283: The import was refused. See the messages of the import for the "
            "reasons.\n");
  std::ostringstream json;
  CtlPrinter(json, true).opStatus(status);
  EXPECT_EQ(json.str(),
            "{\"error_code\":1283,\"messages\":[{\"code\":2,\"args\":[\"g \\\"1\\\"\"]},"
            "{\"code\":42,\"args\":[]}]}\n");
}

TEST(CtlExportFile, AppearsWholeWithMode0600OrNotAtAll) {
  TempRoot dir("vrkms-export-file");
  const std::string target = dir.file("out.vrx");
  const auto entries = [&] {
    std::vector<std::string> names;
    DIR* d = ::opendir(dir.path().c_str());
    while (dirent* entry = ::readdir(d)) {
      if (std::string(entry->d_name) != "." && std::string(entry->d_name) != "..") {
        names.push_back(entry->d_name);
      }
    }
    ::closedir(d);
    std::sort(names.begin(), names.end());
    return names;
  };
  const auto content = [](const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
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
  EXPECT_EQ(content(target), std::string("\x00\x01sealed", 8));
  struct stat info;
  ASSERT_EQ(::stat(target.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0600u);

  // Not committed (a refused export, a failure): the old file stays as it
  // was and the new one is gone.
  { CtlExportFile abandoned(target); }
  EXPECT_EQ(entries(), (std::vector<std::string>{"out.vrx"}));
  EXPECT_EQ(content(target), std::string("\x00\x01sealed", 8));
  // A later export replaces it whole.
  CtlExportFile(target).commit("new", 3);
  EXPECT_EQ(content(target), "new");

  EXPECT_THROW(CtlExportFile(dir.file("missing/out.vrx")), UsageError);
  EXPECT_THROW(CtlExportFile(dir.path() + "/"), UsageError);
}

TEST(CtlProgram, ExportAndImportRefuseBadInputBeforeTheService) {
  TempRoot root("vrkms-ctl");
  // Nothing listens here: a command that got as far as the service would
  // end with 3.
  ::mkdir(root.file("etc").c_str(), 0700);
  std::ofstream(root.file("etc/vr.conf")) << "VRKMS_ENDPOINT = giop:tcp:127.0.0.1:1\n";
  std::ofstream(root.file("empty.pass")) << "\n";
  std::ofstream(root.file("good.pass")) << "p\n";
  const auto run = [&](std::vector<std::string> args) {
    return ProcessRunner(VRKMSCTL_BINARY)
        .args(std::move(args))
        .env("VREST_ROOT", root.path())
        .run();
  };
  const ProcessResult empty =
      run({"export", root.file("out"), "--passphrase-file", root.file("empty.pass")});
  EXPECT_EQ(empty.exitStatus, 2);
  EXPECT_EQ(empty.err.rfind("vrkmsctl: the passphrase of an export must not be empty\n", 0), 0u)
      << empty.err;
  const ProcessResult missing =
      run({"import", root.file("none.vrx"), "--passphrase-file", root.file("good.pass")});
  EXPECT_EQ(missing.exitStatus, 2);
  EXPECT_EQ(missing.err.rfind("vrkmsctl: cannot read the export file " + root.file("none.vrx"), 0),
            0u)
      << missing.err;
  // Input that passes goes on to the service.
  EXPECT_EQ(
      run({"export", root.file("out"), "--passphrase-file", root.file("good.pass")}).exitStatus, 3);
  struct stat info;
  EXPECT_NE(::stat(root.file("out").c_str(), &info), 0);
}
