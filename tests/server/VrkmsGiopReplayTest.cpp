// The GIOP fuzzer's corpus replayed against vrkms, a connection per file:
// answered as its name says (fuzz/giop/GiopSeeds.cpp), and the service serves on.
#include <gtest/gtest.h>

#include <filesystem>

#include <KMS.h>

#include "fuzz/giop/GiopBaseline.h"
#include "fuzz/giop/GiopConnection.h"
#include "fuzz/giop/GiopFuzzInput.h"
#include "server/ServiceClient.h"
#include "server/ServiceSandbox.h"

namespace Facets = Ardentis::Vaultrest::DL::KMSFacetsV1;
using namespace std::chrono_literals;

namespace {

using CtlOutput::startsWith;

// The body of the test; the harness's own calls through the stubs throw.
void replayCorpus() {
  std::map<std::string, std::string> files;  // the corpus by name, in order
  for (const auto& entry : std::filesystem::directory_iterator(std::string(VRKMS_SOURCE_DIR) +
                                                               "/fuzz/corpus/GiopRequestFuzz")) {
    files[entry.path().filename().string()] = readFile(entry.path().string());
  }
  ASSERT_GT(files.size(), 50u);

  ServiceSandbox sandbox(4);
  ASSERT_TRUE(sandbox.makeStore());
  ASSERT_TRUE(sandbox.start()) << sandbox.stderrText() << sandbox.debugLog();
  const uint16_t port = static_cast<uint16_t>(sandbox.port());

  KmsClient client(sandbox.reference());
  Facets::KMSControlFacet_ptr controlV1 = client.control();
  Facets::KMSQueryableFacet_ptr queryV1 = client.query();
  giopfuzz::Baseline baseline(controlV1, client.modify(), queryV1);
  baseline.reset();

  giopfuzz::ObjectKeys keys;
  ASSERT_TRUE(giopfuzz::fetchObjectKeys(port, keys, 10s));
  EXPECT_EQ(keys.key[giopfuzz::kManager], "KMS.KMSMgr");
  EXPECT_NE(keys.key[giopfuzz::kControl], keys.key[giopfuzz::kQuery]);

  int answeredWithResult = 0;
  for (const auto& [name, bytes] : files) {
    SCOPED_TRACE(name);
    if (!baseline.refresh())
      baseline.reset();
    const giopfuzz::Wire wire = giopfuzz::buildWire(reinterpret_cast<const uint8_t*>(bytes.data()),
                                                    bytes.size(), keys, baseline.markers());
    const giopfuzz::Exchange result = giopfuzz::exchange(port, wire, 20s);
    const bool ok = startsWith(name, "ok-"), sys = startsWith(name, "sys-");
    if (ok || sys || startsWith(name, "locate-")) {
      ASSERT_EQ(result.outcome, giopfuzz::Outcome::kReply) << giopfuzz::outcomeName(result.outcome);
      EXPECT_EQ(result.messageType, ok || sys ? giopwire::kReply : giopwire::kLocateReply);
    } else {
      ASSERT_NE(result.outcome, giopfuzz::Outcome::kTimedOut);
      ASSERT_NE(result.outcome, giopfuzz::Outcome::kNoConnection);
    }
    const int status = result.head.status;
    EXPECT_TRUE(ok ? status == giopwire::kNoException || status == giopwire::kUserException
                   : !sys || status == giopwire::kSystemException)
        << status;
    answeredWithResult += ok && result.head.status == giopwire::kNoException ? 1 : 0;
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

  EXPECT_EQ(sandbox.terminate(), std::make_pair(0, 0));
}

}  // namespace

TEST(VrkmsGiopReplay, CorpusIsAnsweredAsNamedAndTheServiceServesOn) {
  try {
    replayCorpus();
  } catch (const CORBA::Exception& e) {
    FAIL() << "the harness's own call failed: " << giopfuzz::Baseline::describe(e);
  }
}
