// Fuzzes the running service through its TCP endpoint: every input becomes
// GIOP messages (fuzz/giop/GiopFuzzInput.h gives the layout) sent on a fresh
// loopback connection to the service, which runs in this process so that
// the sanitizers and the fuzzer's coverage see the servants, the ORB glue
// and the store.
//
// The service is the real one: the framework's container started as vrkms
// starts it, with the manager, the three facets and a store with random
// master keys on a temporary root ($GIOP_FUZZ_TMPDIR, $TMPDIR or /tmp),
// removed at exit. Two groups and three keys are kept in it (Baseline), and
// their current tags, times and revisions replace the markers in the
// inputs.
//
// Failures, reported by abort():
//   - no answer to a request that needs one, and no end of the connection,
//     within the reply timeout: the service hangs;
//   - the service stops itself, or stops listening;
//   - every check interval and at exit, isQuiesced and getKeyStoreStats
//     sent as well-formed requests must succeed.
//
// The store is kept small: every reset interval, and when a kept record has
// been deleted or moved (at most every 50 inputs), every group is deleted
// and the kept records are made anew; the logs are emptied when they pass
// 64 MiB.
//
// Environment (all optional):
//   GIOP_FUZZ_TMPDIR          where the temporary root is made
//   GIOP_FUZZ_REPLY_TIMEOUT   seconds a reply may take (10)
//   GIOP_FUZZ_CHECK_EVERY     inputs between checks (100)
//   GIOP_FUZZ_RESET_EVERY     inputs between resets (2000)
//   GIOP_FUZZ_DEBUG_LEVEL     the service's debug log level (4)
//   GIOP_FUZZ_VERBOSE         1: one line on standard error per input, with
//                             the service's answer (for triage)
#include <sys/stat.h>
#include <unistd.h>

#include <ace/Service_Config.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <list>
#include <memory>
#include <string>
#include <thread>

#include "fuzz/giop/GiopBaseline.h"
#include "fuzz/giop/GiopConnection.h"
#include "fuzz/giop/GiopFuzzInput.h"
#include "kms/platform/VRLogFactory.h"
#include "kms/platform/VRLogger.h"
#include "kms/platform/VrConfReader.h"
#include "kms/platform/framework/StartServiceContainer.h"
#include "kms/server/KMSMgrService.h"
#include "kms/server/KMSServiceContainer.h"
#include "kms/server/keystore/crypto/KeyGen.h"
#include "kms/server/keystore/files/KMSFileLocator.h"
#include "kms/server/keystore/store/FileKeyStore.h"

namespace Fw = Ardentis::Vaultrest::TL::Framework;
namespace Remote = Ardentis::Vaultrest::DL::KMS;
namespace Facets = Ardentis::Vaultrest::DL::KMSFacetsV1;
using Vaultrest::DL::KMS::FileKeyStore;
using Vaultrest::DL::KMS::KeyGen;
using Vaultrest::DL::KMS::KMSFileLocator;
using Vaultrest::DL::KMS::KMSServiceContainer;

namespace {

constexpr unsigned long kOriginator = 286;
constexpr unsigned long kLibraryOriginator = 137;
constexpr uint64_t kRepairInterval = 50;
constexpr uintmax_t kLogLimit = 64u << 20;

long setting(const char* name, long fallback) {
  const char* text = std::getenv(name);
  if (text == nullptr || *text == '\0') {
    return fallback;
  }
  const long value = std::strtol(text, nullptr, 10);
  return value > 0 ? value : fallback;
}

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "==GiopRequestFuzz== %s\n", what.c_str());
  std::fflush(stderr);
  std::abort();
}

class FuzzedService {
 public:
  FuzzedService()
      : m_timeout(std::chrono::seconds(setting("GIOP_FUZZ_REPLY_TIMEOUT", 10))),
        m_checkEvery(static_cast<uint64_t>(setting("GIOP_FUZZ_CHECK_EVERY", 100))),
        m_resetEvery(static_cast<uint64_t>(setting("GIOP_FUZZ_RESET_EVERY", 2000))),
        m_verbose(setting("GIOP_FUZZ_VERBOSE", 0) != 0) {}

  void start() {
    // The ORB reports every malformed message on standard error otherwise.
    ::setenv("ORBtraceLevel", "0", 0);
    makeRoot();
    VRLogFactory* factory = VRLogFactory::Instance();
    VRLogger::s_default = factory->getLogger(kOriginator, true);
    VRLogger::s_defaultLib = factory->getLogger(kLibraryOriginator, false);
    VR_read_master_config();
    FileKeyStore::g_fips_mode_disabled = true;
    KeyGen::s_use_weak_kdf = true;
    {
      FileKeyStore store(KMSFileLocator(m_root + "/kms"));
      if (store.createEmpty("", "hmk-fuzz", "", "kpk-fuzz", false) != 0) {
        fail("cannot make the store under " + m_root);
      }
    }

    // As vrkms does it: the service's descriptor, then the container on
    // a thread of its own (the framework's control thread).
    ACE_Service_Config::current()->process_directive(ace_svc_desc_KMSMgrService, false);
    m_container = new KMSServiceContainer(false, "vrkms", kOriginator,
                                          std::list<std::string>{"static KMSMgrService"}, 10,
                                          Fw::ServiceContainerOptions{0}, "");
    m_container->getOrb()->m_useTSSResources = true;
    m_thread = std::thread([this] {
      char name[] = "vrkms";
      char* argv[] = {name, nullptr};
      m_result = Fw::startServiceContainer(m_container, 1, argv, kOriginator, true, false, "");
      m_ended = true;
    });

    const std::string ior = waitForAdvertisement();
    std::string key;
    std::string host;
    if (!giopwire::objectKeyOfIor(ior, key, &host, &m_port)) {
      fail("cannot read the manager's reference " + ior);
    }
    if (!giopfuzz::fetchObjectKeys(m_port, m_keys, m_timeout)) {
      fail("the manager did not hand out its facets");
    }

    // The harness's own calls go through the client stubs on the service's
    // ORB.
    CORBA::ORB_ptr orb = m_container->getOrb()->orb();
    CORBA::Object_var object = orb->string_to_object(ior.c_str());
    Remote::KMSMgr_var manager = Remote::KMSMgr::_narrow(object.in());
    Remote::ControlFacet_var control = manager->getControlFacet();
    Remote::ModifiableFacet_var modify = manager->getModifiableFacet();
    Remote::QueryableFacet_var query = manager->getQueryableFacet();
    Facets::KMSControlFacet_var controlV1 = Facets::KMSControlFacet::_narrow(control.in());
    Facets::KMSModifiableFacet_var modifyV1 = Facets::KMSModifiableFacet::_narrow(modify.in());
    Facets::KMSQueryableFacet_var queryV1 = Facets::KMSQueryableFacet::_narrow(query.in());
    m_baseline = std::make_unique<giopfuzz::Baseline>(controlV1.in(), modifyV1.in(), queryV1.in());
    reset();
  }

  void run(const uint8_t* data, size_t size) {
    ++m_inputs;
    if (m_inputs - m_lastReset >= m_resetEvery ||
        (m_stale && m_inputs - m_lastReset >= kRepairInterval)) {
      reset();
    }
    const giopfuzz::Wire wire = giopfuzz::buildWire(data, size, m_keys, m_baseline->markers());
    const giopfuzz::Exchange result = giopfuzz::exchange(m_port, wire, m_timeout);
    if (m_verbose) {
      std::fprintf(stderr, "==GiopRequestFuzz== input %llu: %s, message type %u, status %u\n",
                   static_cast<unsigned long long>(m_inputs), giopfuzz::outcomeName(result.outcome),
                   result.messageType, result.head.status);
    }
    if (result.outcome == giopfuzz::Outcome::kTimedOut) {
      fail("no answer from the service within the reply timeout");
    }
    if (result.outcome == giopfuzz::Outcome::kNoConnection) {
      fail("the service no longer listens");
    }
    if (m_container->stopRequested() || m_ended) {
      fail("the service stopped itself after this input");
    }
    // A change that went through may have touched a kept record.
    if (size >= giopfuzz::kPrefixSize && (data[0] & 0x03) == giopfuzz::kModifiable &&
        giopfuzz::succeeded(result) && !m_stale) {
      m_stale = !m_baseline->refresh();
    }
    if (m_inputs % m_checkEvery == 0) {
      check();
    }
  }

  // The final check, then an orderly stop of the service and removal of the
  // root.
  void finish() {
    if (m_container == nullptr) {
      return;
    }
    check();
    m_baseline.reset();
    m_container->stopByEvent(false);
    m_thread.join();
    delete m_container;
    m_container = nullptr;
    if (m_result != 0) {
      fail("the service ended with " + std::to_string(m_result));
    }
    std::error_code ignored;
    std::filesystem::remove_all(m_root, ignored);
  }

 private:
  void makeRoot() {
    const char* base = std::getenv("GIOP_FUZZ_TMPDIR");
    if (base == nullptr || *base == '\0') {
      base = std::getenv("TMPDIR");
    }
    std::string pattern =
        std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/giop-fuzz-XXXXXX";
    if (::mkdtemp(&pattern[0]) == nullptr) {
      fail("cannot make a temporary directory " + pattern);
    }
    m_root = pattern;
    ::setenv("VREST_ROOT", m_root.c_str(), 1);
    ::mkdir((m_root + "/etc").c_str(), 0700);
    std::ofstream(m_root + "/etc/vr.conf")
        << "SERVER = localhost\n"
        << "KMS_DIR = " << m_root << "/kms\n"
        << "VRKMS_ENDPOINT = giop:tcp:127.0.0.1:\n"
        // The fuzzer calls from loopback, which holds only what it is granted.
        << "VRKMS_GRANT = 127.0.0.1 1,2,3,4,28,40\n"
        << "VRKMS_DEBUG_LEVEL = " << setting("GIOP_FUZZ_DEBUG_LEVEL", 4) << "\n";
  }

  // The stringified reference of the advertised manager.
  std::string waitForAdvertisement() {
    const std::string path = m_root + "/var/vrkms/KMS.KMSMgr.ior";
    for (int i = 0; i < 6000 && !m_ended; ++i) {
      std::ifstream in(path);
      std::string ior;
      if (in >> ior && !ior.empty()) {
        return ior;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    fail("the service did not start (see " + m_root + "/logs)");
  }

  void reset() {
    try {
      m_baseline->reset();
    } catch (const CORBA::Exception& e) {
      fail("cannot reset the store: " + giopfuzz::Baseline::describe(e));
    }
    m_stale = false;
    m_lastReset = m_inputs;
  }

  void check() {
    for (const auto& call : {std::make_pair(giopfuzz::kControl, "isQuiesced"),
                             std::make_pair(giopfuzz::kQuery, "getKeyStoreStats")}) {
      const giopfuzz::Exchange result = giopfuzz::exchange(
          m_port, giopfuzz::request(m_keys.key[call.first], call.second), m_timeout);
      if (!giopfuzz::succeeded(result)) {
        fail(std::string("the service no longer answers ") + call.second + ": " +
             giopfuzz::outcomeName(result.outcome));
      }
    }
    const std::string logs = m_root + "/logs/vrkms";
    std::error_code ignored;
    for (const char* name : {"/vrkms_debug.log", "/vrkms_app.log"}) {
      if (std::filesystem::file_size(logs + name, ignored) > kLogLimit) {
        // The loggers append, so they carry on at the new end.
        std::filesystem::resize_file(logs + name, 0, ignored);
      }
    }
  }

  const std::chrono::milliseconds m_timeout;
  const uint64_t m_checkEvery;
  const uint64_t m_resetEvery;
  const bool m_verbose;
  std::string m_root;
  KMSServiceContainer* m_container = nullptr;
  std::thread m_thread;
  std::atomic<bool> m_ended{false};
  int m_result = 0;
  uint16_t m_port = 0;
  giopfuzz::ObjectKeys m_keys;
  std::unique_ptr<giopfuzz::Baseline> m_baseline;
  uint64_t m_inputs = 0;
  uint64_t m_lastReset = 0;
  bool m_stale = false;
};

FuzzedService* g_service = nullptr;

void finishService() {
  g_service->finish();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  g_service = new FuzzedService();
  g_service->start();
  std::atexit(finishService);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  g_service->run(data, size);
  return 0;
}
