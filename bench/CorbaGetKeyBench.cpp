// Cost of getKey through the remote interface: a vrkms started on a loopback
// port under a temporary root, called by this process's client ORB on one
// thread and on four. Each iteration times one getKey and, as the reference,
// one isQuiesced: a call of the same shape (a string of a key's tag in, a
// record out, against a long out) that does no work in the store. The ratio
// isQuiesced / getKey says how close getKey comes to the bare cost of a
// remote call; the goal is at least 0.9. Both calls pass the peer check
// (the grants of the master configuration, read again only when the file
// changed) on plain TCP from loopback, which holds rights 4 and 28 by grant.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <KMS.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "bench/BenchReport.h"
#include "kms/platform/framework/FrameworkRegistrar.h"
#include "kms/server/RecordConvertor.h"
#include "kms/server/keystore/FileKeyStore.h"
#include "kms/server/keystore/KMSFileLocator.h"

namespace Remote = Ardentis::Vaultrest::DL::KMS;
namespace Facets = Ardentis::Vaultrest::DL::KMSFacetsV1;
using namespace Vaultrest::DL::KMS;

namespace {

using bench::Clock;
using bench::seconds;

// What the benchmarks share: the service and the client's facets.
struct Service {
  std::string root;
  pid_t pid = -1;
  CORBA::ORB_var orb;
  Facets::KMSQueryableFacet_var query;
  Facets::KMSControlFacet_var control;
  std::string tag;  // hex tag of the one active key
};

Service g_service;

// A loopback port that nothing listens on at the moment.
int freePort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  socklen_t length = sizeof address;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  ::close(fd);
  return ntohs(address.sin_port);
}

// A store with one group and one active key; the key's hex tag.
std::string makeStore(const std::string& kmsDir) {
  FileKeyStore::g_fips_mode_disabled = true;
  FileKeyStore store{KMSFileLocator(kmsDir)};
  if (store.createEmpty("", "hmk", "", "kpk", false) != 0 || store.init() != 0) {
    return "";
  }
  KeyGrpRecord_v1 group;
  group.setName("bench");
  group.setCipherType(CT_AES256_CBC);
  const KeyGrpRecord_v1 added = store.addKeyGroup(group);
  KeyRecord_v1 key;
  key.setName("key");
  key.setKeyGroup(added.tag());
  key.setState(KEY_ACTIVE);
  key.setKpkType(KPK_LOCAL);
  const KeyRecord_v1 made = store.addKey(key, "");
  store.shutdown();
  return Ardentis::Vaultrest::DL::KMS::RecordConvertor::binToHex(made.tag());
}

pid_t startVrkms() {
  const pid_t pid = ::fork();
  if (pid == 0) {
    const int null = ::open("/dev/null", O_RDWR);
    ::dup2(null, 1);
    ::dup2(null, 2);
    char* argv[] = {const_cast<char*>(VRKMS_BINARY), const_cast<char*>("-console"), nullptr};
    ::execv(VRKMS_BINARY, argv);
    ::_exit(127);
  }
  return pid;
}

bool startService() {
  const std::string kmsDir = g_service.root + "/kms";
  g_service.tag = makeStore(kmsDir);
  if (g_service.tag.empty()) {
    return false;
  }
  const int port = freePort();
  ::mkdir((g_service.root + "/etc").c_str(), 0700);
  std::ofstream(g_service.root + "/etc/vr.conf")
      << "SERVER = localhost\nKMS_DIR = " << kmsDir << "\n"
      << "VRKMS_ENDPOINT = giop:tcp:127.0.0.1:" << port << "\n"
      << "VRKMS_GRANT = 127.0.0.1 4,28\n";
  // The service refuses to start while any other vrkms runs on the machine
  // (tests on a shared machine start their own), so a start that ends at
  // once is tried again.
  const std::string ior = g_service.root + "/var/vrkms/KMS.KMSMgr.ior";
  bool up = false;
  for (int attempt = 0; attempt < 60 && !up; ++attempt) {
    g_service.pid = startVrkms();
    for (int i = 0; i < 1500; ++i) {
      struct stat info;
      if (::stat(ior.c_str(), &info) == 0) {
        up = true;
        break;
      }
      if (::waitpid(g_service.pid, nullptr, WNOHANG) == g_service.pid) {
        g_service.pid = -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (!up && g_service.pid > 0) {
      break;  // running but silent: stopService ends it
    }
  }
  if (!up) {
    std::fprintf(stderr, "vrkms did not start\n");
    return false;
  }
  int argc = 1;
  char name[] = "CorbaGetKeyBench";
  char* argv[] = {name, nullptr};
  // Over TCP, where every call's peer check finds the address's grant.
  const char* options[][2] = {{"clientTransportRule", "* tcp"}, {nullptr, nullptr}};
  g_service.orb = CORBA::ORB_init(argc, argv, "omniORB4", options);
  Ardentis::Vaultrest::TL::Framework::FrameworkRegistrar().init(g_service.orb.in());
  const std::string where = "corbaloc::127.0.0.1:" + std::to_string(port) + "/KMS.KMSMgr";
  try {
    CORBA::Object_var object = g_service.orb->string_to_object(where.c_str());
    Remote::KMSMgr_var mgr = Remote::KMSMgr::_narrow(object.in());
    Remote::QueryableFacet_var query = mgr->getQueryableFacet();
    Remote::ControlFacet_var control = mgr->getControlFacet();
    g_service.query = Facets::KMSQueryableFacet::_narrow(query.in());
    g_service.control = Facets::KMSControlFacet::_narrow(control.in());
  } catch (const CORBA::Exception&) {
    return false;
  }
  return !CORBA::is_nil(g_service.query.in()) && !CORBA::is_nil(g_service.control.in());
}

void stopService() {
  g_service.query = Facets::KMSQueryableFacet::_nil();
  g_service.control = Facets::KMSControlFacet::_nil();
  if (!CORBA::is_nil(g_service.orb.in())) {
    g_service.orb->destroy();
  }
  if (g_service.pid > 0) {
    ::kill(g_service.pid, SIGTERM);
    ::waitpid(g_service.pid, nullptr, 0);
  }
}

void BM_GetKeyOverCorba(benchmark::State& state) {
  double subject = 0;
  double reference = 0;
  for (auto _ : state) {
    Clock::time_point t0 = Clock::now();
    Facets::KeyRecord_var rec = g_service.query->getKey(g_service.tag.c_str());
    Clock::time_point t1 = Clock::now();
    benchmark::DoNotOptimize(rec->encKey.length());
    Clock::time_point t2 = Clock::now();
    const CORBA::Long count = g_service.control->isQuiesced();
    Clock::time_point t3 = Clock::now();
    benchmark::DoNotOptimize(count);
    subject += seconds(t0, t1);
    reference += seconds(t2, t3);
    state.SetIterationTime(seconds(t0, t1));
  }
  const std::string clients = std::to_string(state.threads()) + " client thread(s)";
  bench::report(state,
                {"getKey over the remote interface", "isQuiesced over the remote interface",
                 clients, bench::Ratio::kThroughput},
                subject, reference);
}
BENCHMARK(BM_GetKeyOverCorba)
    ->Threads(1)
    ->Threads(4)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  char dir[] = "/tmp/vrkms-bench-XXXXXX";
  if (mkdtemp(dir) == nullptr) {
    return 1;
  }
  g_service.root = dir;
  setenv("VREST_ROOT", dir, 1);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  int status = 0;
  if (startService()) {
    benchmark::RunSpecifiedBenchmarks();
  } else {
    status = 1;
  }
  benchmark::Shutdown();
  stopService();
  std::error_code ignored;
  std::filesystem::remove_all(dir, ignored);
  return status;
}
