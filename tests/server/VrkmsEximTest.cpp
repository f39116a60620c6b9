// Export and import with vrkmsctl between real services: what arrives under new
// or preserved names is compared with what left, as vrkmsctl shows both.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <map>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "server/ServiceSandbox.h"

namespace {

using CtlOutput::contains;
using CtlOutput::countOf;
using CtlOutput::jsonField;

// The common suffix of imported group names, "_IMPORTED_" and the 14 digits
// of the time of the import, made alike for comparing two runs.
std::string sameStamp(const std::string& text) {
  static const std::regex stamp("_IMPORTED_[0-9]{14}(_[0-9]+)?");
  return std::regex_replace(text, stamp, "_IMPORTED_<time>");
}

// Keys a, b and c of `group` as `service` shows them.
std::string keysOf(const ServiceSandbox& service, const std::string& group) {
  std::string shown;
  for (const char* key : {"a", "b", "c"}) {
    shown += service.json({"key", "show", group, key});
  }
  return shown;
}

// The suffix that the group `name` got on import, read from the listing.
std::string importedName(const std::string& groupsJson, const std::string& name) {
  std::smatch found;
  const std::regex pattern("\"name\":\"(" + name + "_IMPORTED_[0-9]{14}(_[0-9]+)?)\"");
  return std::regex_search(groupsJson, found, pattern) ? found[1].str() : "<absent>";
}

// A source service's exports and what it showed, then target services to import them.
class VrkmsExim : public ::testing::Test {
 protected:
  std::string exported(const std::string& name) const { return m_source.path("out/" + name); }
  ProcessResult importFile(const std::string& file, std::vector<std::string> options,
                           bool json = false) {
    std::vector<std::string> args = {"import", exported(file), "--passphrase-file", m_passphrase};
    args.insert(args.end(), options.begin(), options.end());
    if (json)
      args.insert(args.begin(), "--json");
    return m_target->ctl(args);
  }
  std::string json(const std::vector<std::string>& args) { return m_target->json(args); }
  std::map<std::string, std::string> storeFiles() const {
    return ServiceSandbox::snapshot(m_target->path("kms"));
  }
  // Starts a new target service with a store of its own.
  void startTarget() {
    m_target = std::make_unique<ServiceSandbox>();
    ASSERT_TRUE(m_target->makeStore());
    ASSERT_TRUE(m_target->start()) << m_target->stderrText() << m_target->debugLog();
  }
  // The source store and its exports, and the refusals of export.
  void makeSource() {
    ServiceSandbox& service = m_source;
    ::mkdir(service.path("out").c_str(), 0700);
    const std::string keyPassphrase = service.writePrivate("key.pass", "key passphrase\n");
    ASSERT_TRUE(service.makeStore());
    ASSERT_TRUE(service.start()) << service.stderrText() << service.debugLog();
    service.json({"group", "create", "g", "--cipher", "AES256", "--description", "gd"});
    // a: from a passphrase (with its salt attribute), demoted by b; c prelive.
    service.json({"key", "create", "g", "a", "--passphrase-file", keyPassphrase});
    service.json({"key", "create", "g", "b", "--description", "bd"});
    service.json({"key", "create", "g", "c", "--state", "prelive"});
    service.json({"group", "create", "h", "--cipher", "AES128"});
    service.json({"key", "create", "h", "x"});
    service.json({"group", "create", "e", "--cipher", "BLOWFISH"});
    for (const std::string group : {"g", "h", "e"}) {
      m_shown["group show " + group] = service.json({"group", "show", group});
      m_shown["key list " + group] = service.json({"key", "list", group});
    }
    m_shown["keys g"] = keysOf(service, "g");
    for (const char* name : {"a", "b"}) {
      const std::string tag = jsonField(service.json({"key", "show", "g", name}), "tag");
      m_keys[name] = jsonField(service.json({"key", "get", tag}), "key");
    }
    const auto exportTo = [&](const std::string& file, std::vector<std::string> selection) {
      std::vector<std::string> args = {"export", exported(file), "--passphrase-file", m_passphrase};
      args.insert(args.end(), selection.begin(), selection.end());
      const ProcessResult r = service.ctl(args);
      EXPECT_EQ(r.exitStatus, 0) << file << ": " << r.out << r.err;
      EXPECT_EQ(r.out, "status 0: Success\n");
    };
    exportTo("all", {});
    // "*" wins over single names, in whatever order they come.
    exportTo("g", {"--select", "g/a", "--select", "g/*", "--select=g/b"});
    exportTo("h-alone", {"--select", "h"});
    exportTo("e", {"--select", "e/*"});
    // Export is a read: a quiesced store exports all the same.
    service.json({"quiesce"});
    exportTo("all-again", {});
    // Unknown names: every one is reported, and no file is written.
    const ProcessResult unknown =
        service.ctl({"--json", "export", exported("none"), "--passphrase-file", m_passphrase,
                     "--select", "nope/k", "--select", "g/zz"});
    EXPECT_EQ(unknown.exitStatus, 1);
    EXPECT_EQ(unknown.out,
              "{\"error_code\":1214,\"messages\":[{\"code\":8,\"args\":[\"zz\",\"g\"]},"
              "{\"code\":1,\"args\":[\"nope\"]}]}\n");
    EXPECT_EQ(service.terminate().second, 0) << service.debugLog();
  }

  ServiceSandbox m_source;
  std::string m_passphrase = m_source.writePrivate("export.pass", "export passphrase\n");
  std::map<std::string, std::string> m_shown;  // what the source showed, by command
  std::map<std::string, std::string> m_keys;   // plain keys by key name
  std::unique_ptr<ServiceSandbox> m_target;
};

TEST_F(VrkmsExim, ExportedFilesImportUnderNewOrPreservedNames) {
  ASSERT_NO_FATAL_FAILURE(makeSource());
  // Only the finished files: no file for a refused export, no temporary one.
  std::vector<std::string> names;
  for (const auto& entry : ServiceSandbox::snapshot(m_source.path("out"))) {
    names.push_back(entry.first);
  }
  EXPECT_EQ(names, (std::vector<std::string>{"all", "all-again", "e", "g", "h-alone"}));
  // A store without groups has nothing to export, and the file is not made.
  startTarget();
  const std::string empty = m_target->path("empty.vrx");
  const ProcessResult r = m_target->ctl({"export", empty, "--passphrase-file", m_passphrase});
  EXPECT_EQ(r.exitStatus, 1);
  EXPECT_EQ(r.out, "status 1285: The key store holds no key groups; there is nothing to export.\n");
  EXPECT_FALSE(exists(empty));
  // Under new names, every key as it was; a preview changes nothing and says the same.
  const std::map<std::string, std::string> before = storeFiles();
  const ProcessResult preview = importFile("all", {"--preview"});
  EXPECT_EQ(preview.exitStatus, 0) << preview.out << preview.err;
  EXPECT_EQ(storeFiles(), before);
  const ProcessResult imported = importFile("all", {});
  EXPECT_EQ(imported.exitStatus, 0) << imported.out << imported.err;
  EXPECT_EQ(sameStamp(preview.out), sameStamp(imported.out));
  EXPECT_TRUE(contains(sameStamp(imported.out), "Changing key group [g] to [g_IMPORTED_<time>]\n"))
      << imported.out;
  EXPECT_TRUE(contains(imported.out, "\nstatus 0: Success\n"));
  EXPECT_NE(storeFiles(), before);
  // Groups keep their tags and all but their names; one suffix for all.
  const std::string groups = json({"group", "list"});
  const std::string g = importedName(groups, "g");
  ASSERT_NE(g, "<absent>") << groups;
  const std::string suffix = g.substr(1);
  EXPECT_EQ(importedName(groups, "h"), "h" + suffix);
  EXPECT_EQ(importedName(groups, "e"), "e" + suffix);
  for (const std::string name : {"g", "h", "e"}) {
    std::string expected = m_shown["group show " + name];
    expected.replace(expected.find("\"name\":\"" + name + "\""), name.size() + 9,
                     "\"name\":\"" + name + suffix + "\"");
    EXPECT_EQ(json({"group", "show", name + suffix}), expected);
  }
  // Keys arrive as they left: tags, states, times, revisions, attributes.
  EXPECT_EQ(keysOf(*m_target, g), m_shown["keys g"]);
  EXPECT_EQ(json({"key", "list", "h" + suffix}), m_shown["key list h"]);
  for (const char* name : {"a", "b"}) {
    const std::string tag = jsonField(json({"key", "show", g, name}), "tag");
    EXPECT_EQ(jsonField(json({"key", "get", tag}), "key"), m_keys[name]) << name;
  }
  // Import goes on while quiesced. The same keys again are duplicates of equal
  // value (every state); only an empty group with a new tag arrives.
  json({"quiesce"});
  const ProcessResult again = importFile("g", {}, true);
  EXPECT_EQ(again.exitStatus, 0) << again.out << again.err;
  EXPECT_EQ(again.out.rfind("{\"error_code\":0,\"messages\":[{\"code\":", 0), 0u) << again.out;
  EXPECT_EQ(countOf(again.out, "{\"code\":9,\"args\":[\""), 3u) << again.out;
  EXPECT_EQ(countOf(again.out, "{\"code\":5,\"args\":[\""), 1u) << again.out;
  EXPECT_EQ(countOf(again.out, "{\"code\":10,"), 0u);
  CtlOutput::expectFields(json({"status"}),
                          {{"numKeyGroups", "4"}, {"numKeys", "4"}, {"quiesceCount", "1"}});
  // A wrong passphrase opens nothing.
  const std::string wrong = m_target->writePrivate("wrong.pass", "export passphrase2\n");
  EXPECT_EQ(m_target->ctl({"import", exported("all"), "--passphrase-file", wrong}).exitStatus, 1);
  // With the names preserved, and its clashes.
  startTarget();
  {
    const ProcessResult imported = importFile("g", {"--preserve-names"});
    EXPECT_EQ(imported.exitStatus, 0) << imported.out << imported.err;
    EXPECT_TRUE(contains(imported.out, "Key group [g] imported as-is\n")) << imported.out;
    EXPECT_TRUE(contains(imported.out, "Key [c] of key group [g] imported as-is\n"));
    EXPECT_EQ(keysOf(*m_target, "g"), m_shown["keys g"]);
    EXPECT_EQ(json({"group", "show", "g"}), m_shown["group show g"]);
    // A group alone, and a group that is empty, arrive without keys.
    EXPECT_EQ(importFile("h-alone", {"--preserve-names"}).exitStatus, 0);
    EXPECT_EQ(importFile("e", {"--preserve-names"}).exitStatus, 0);
    EXPECT_EQ(jsonField(json({"group", "show", "h"}), "numKeys"), "0");
    EXPECT_EQ(jsonField(json({"group", "show", "h"}), "tag"),
              jsonField(m_shown["group show h"], "tag"));
    EXPECT_EQ(json({"group", "show", "e"}), m_shown["group show e"]);
    // The same group again clashes by name and by tag; nothing changes.
    const std::map<std::string, std::string> settled = storeFiles();
    EXPECT_EQ(importFile("g", {"--preserve-names"}).exitStatus, 1);
    EXPECT_EQ(storeFiles(), settled);
  }
}

}  // namespace
