// The committed corpus of the GIOP request fuzzer replayed against the built
// vrkms: each file becomes the bytes the fuzzer would send, on a connection
// of its own, and the service must answer as the file's name says (see
// fuzz/giop/GiopSeeds.cpp) and never leave a connection hanging. Afterwards
// the service must still serve and stop in order.
//
// Runs a process named vrkms: RESOURCE_LOCK vrkms_process.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <KMS.h>

#include "fuzz/giop/GiopBaseline.h"
#include "fuzz/giop/GiopConnection.h"
#include "fuzz/giop/GiopFuzzInput.h"
#include "server/OrbTestSupport.h"
#include "server/ServiceSandbox.h"
#include "support/ProcessRunner.h"

namespace Remote = Ardentis::Vaultrest::DL::KMS;
namespace Facets = Ardentis::Vaultrest::DL::KMSFacetsV1;
using namespace std::chrono_literals;

namespace {

struct CorpusFile {
  std::string name;
  std::string bytes;
};

std::vector<CorpusFile> corpus() {
  std::vector<CorpusFile> files;
  const std::filesystem::path dir =
      std::filesystem::path(VRKMS_SOURCE_DIR) / "fuzz" / "corpus" / "GiopRequestFuzz";
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    std::ifstream in(entry.path(), std::ios::binary);
    files.push_back(
        {entry.path().filename().string(), std::string(std::istreambuf_iterator<char>(in), {})});
  }
  std::sort(files.begin(), files.end(),
            [](const CorpusFile& a, const CorpusFile& b) { return a.name < b.name; });
  return files;
}

bool startsWith(const std::string& text, const char* prefix) {
  return text.compare(0, std::char_traits<char>::length(prefix), prefix) == 0;
}

// The body of the test; the harness's own calls through the stubs throw.
void replayCorpus() {
  const std::vector<CorpusFile> files = corpus();
  ASSERT_GT(files.size(), 50u);

  // A store with random master keys, made by vrkms itself: the service
  // starts without stretching a passphrase.
  ServiceSandbox sandbox;
  const ProcessResult made = ProcessRunner(VRKMS_BINARY)
                                 .args({"-createemptydb", "-hmkid", "hmk-1", "-randomhmk", "-kpkid",
                                        "kpk-1", "-randomkpk", "-overwrite"})
                                 .env("VREST_ROOT", sandbox.root().path())
                                 .timeout(std::chrono::seconds(60))
                                 .run();
  ASSERT_TRUE(made.exited && made.exitStatus == 0) << made.out << made.err;
  ASSERT_TRUE(sandbox.start()) << sandbox.readFile("stderr.txt") << sandbox.debugLog();
  const uint16_t port = static_cast<uint16_t>(sandbox.port());

  CORBA::Object_var object = testOrb()->string_to_object(sandbox.reference().c_str());
  Remote::KMSMgr_var manager = Remote::KMSMgr::_narrow(object.in());
  Remote::ControlFacet_var control = manager->getControlFacet();
  Remote::ModifiableFacet_var modify = manager->getModifiableFacet();
  Remote::QueryableFacet_var query = manager->getQueryableFacet();
  Facets::KMSControlFacet_var controlV1 = Facets::KMSControlFacet::_narrow(control.in());
  Facets::KMSModifiableFacet_var modifyV1 = Facets::KMSModifiableFacet::_narrow(modify.in());
  Facets::KMSQueryableFacet_var queryV1 = Facets::KMSQueryableFacet::_narrow(query.in());
  giopfuzz::Baseline baseline(controlV1.in(), modifyV1.in(), queryV1.in());
  baseline.reset();

  giopfuzz::ObjectKeys keys;
  ASSERT_TRUE(giopfuzz::fetchObjectKeys(port, keys, 10s));
  EXPECT_EQ(keys.key[giopfuzz::kManager], "KMS.KMSMgr");
  EXPECT_NE(keys.key[giopfuzz::kControl], keys.key[giopfuzz::kQuery]);

  int answeredWithResult = 0;
  for (const CorpusFile& file : files) {
    SCOPED_TRACE(file.name);
    if (!baseline.refresh()) {
      baseline.reset();
    }
    const giopfuzz::Wire wire =
        giopfuzz::buildWire(reinterpret_cast<const uint8_t*>(file.bytes.data()), file.bytes.size(),
                            keys, baseline.markers());
    const giopfuzz::Exchange result = giopfuzz::exchange(port, wire, 20s);
    ASSERT_NE(result.outcome, giopfuzz::Outcome::kTimedOut);
    ASSERT_NE(result.outcome, giopfuzz::Outcome::kNoConnection);
    if (startsWith(file.name, "ok-")) {
      ASSERT_EQ(result.outcome, giopfuzz::Outcome::kReply) << giopfuzz::outcomeName(result.outcome);
      EXPECT_EQ(result.messageType, giopwire::kReply);
      EXPECT_TRUE(result.head.status == giopwire::kNoException ||
                  result.head.status == giopwire::kUserException)
          << "reply status " << result.head.status;
      answeredWithResult += result.head.status == giopwire::kNoException ? 1 : 0;
    } else if (startsWith(file.name, "sys-")) {
      ASSERT_EQ(result.outcome, giopfuzz::Outcome::kReply) << giopfuzz::outcomeName(result.outcome);
      EXPECT_EQ(result.head.status, giopwire::kSystemException);
    } else if (startsWith(file.name, "locate-")) {
      ASSERT_EQ(result.outcome, giopfuzz::Outcome::kReply) << giopfuzz::outcomeName(result.outcome);
      EXPECT_EQ(result.messageType, giopwire::kLocateReply);
    }
  }
  // Most valid requests find what their markers name and succeed.
  EXPECT_GT(answeredWithResult, 40);

  // Still serving, through raw requests and through the stubs.
  for (const auto& call : {std::make_pair(giopfuzz::kControl, "isQuiesced"),
                           std::make_pair(giopfuzz::kQuery, "getKeyStoreStats")}) {
    EXPECT_TRUE(giopfuzz::succeeded(
        giopfuzz::exchange(port, giopfuzz::request(keys.key[call.first], call.second), 20s)))
        << call.second;
  }
  EXPECT_GE(controlV1->isQuiesced(), 0);
  Facets::KeyGroupRecordSeq_var groups = queryV1->getAllKeyGroupRecords();
  EXPECT_GE(groups->length(), 2u);

  const std::pair<int, int> stopped = sandbox.terminate();
  EXPECT_EQ(stopped.first, 0);
  EXPECT_EQ(stopped.second, 0);
}

}  // namespace

TEST(VrkmsGiopReplay, CorpusIsAnsweredAsNamedAndTheServiceServesOn) {
  try {
    replayCorpus();
  } catch (const CORBA::Exception& e) {
    FAIL() << "the harness's own call failed: " << giopfuzz::Baseline::describe(e);
  }
}
