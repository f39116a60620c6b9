// Cost of getKey through the remote interface: a vrkms started on a loopback
// port under a temporary root, called by this process's client ORB on one
// thread and on four. Each iteration times one getKey and, as the reference,
// one isQuiesced: a call of the same shape (a string of a key's tag in, a
// record out, against a long out) that does no work in the store. The ratio
// isQuiesced / getKey says how close getKey comes to the bare cost of a
// remote call; the goal is at least 0.9. Both calls pass the peer check
// (the grants of the master configuration, read again only when the file
// changed) on plain TCP from loopback, which holds rights 4 and 28 by grant.
//
// getKey over TLS is timed against getKey over plain TCP in the same
// iterations, each on its own connection kept open (certificates made with
// the openssl command); the goal is at most 1.5 times the time. An ORB
// calls an object by one transport only, so the TLS client is a child
// process of its own, which times its call and hands the time back.
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
#include "kms/platform/framework/TlsContext.h"
#include "kms/server/RecordConvertor.h"
#include "kms/server/keystore/files/KMSFileLocator.h"
#include "kms/server/keystore/store/FileKeyStore.h"

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
  pid_t tlsClient = -1;  // the TLS client: times one getKey per byte sent
  int toTls = -1;
  int fromTls = -1;
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
  if (store.shutdown() != 0) {
    std::abort();
  }
  return Ardentis::Vaultrest::DL::KMS::RecordConvertor::binToHex(made.tag());
}

// A CA, a certificate for the service and one for this client under `dir`;
// false when the openssl command fails.
bool makeCertificates(const std::string& dir) {
  const std::string key = " -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes ";
  std::string script = "cd '" + dir + "' && openssl req -x509" + key +
                       "-keyout ca.key -out ca.pem -days 2 -subj /CN=bench-ca";
  for (const char* name : {"vrkms", "client"}) {
    script += std::string(" && openssl req") + key + "-keyout " + name + ".key -out " + name +
              ".csr -subj /CN=" + name + " && openssl x509 -req -in " + name +
              ".csr -CA ca.pem -CAkey ca.key -set_serial " + (name[0] == 'v' ? "2" : "3") +
              " -days 2 -out " + name + ".pem";
  }
  return std::system((script + " 2>/dev/null").c_str()) == 0;
}

// The TLS client's life: one getKey over TLS for every byte read from
// `in`, its time (double, seconds) written to `out`; ends at end of input.
[[noreturn]] void serveTlsTimings(const std::string& dir, int tlsPort, int in, int out) {
  Ardentis::Vaultrest::TL::Framework::TlsContext::install(
      {dir + "/client.pem", dir + "/client.key", dir + "/ca.pem"});
  int argc = 1;
  char name[] = "CorbaGetKeyBench-tls";
  char* argv[] = {name, nullptr};
  const char* options[][2] = {{"clientTransportRule", "* ssl"}, {nullptr, nullptr}};
  CORBA::ORB_var orb = CORBA::ORB_init(argc, argv, "omniORB4", options);
  Ardentis::Vaultrest::TL::Framework::FrameworkRegistrar().init(orb.in());
  try {
    const std::string tls = "corbaloc:ssliop:127.0.0.1:" + std::to_string(tlsPort) + "/KMS.KMSMgr";
    CORBA::Object_var object = orb->string_to_object(tls.c_str());
    Remote::KMSMgr_var mgr = Remote::KMSMgr::_narrow(object.in());
    Remote::QueryableFacet_var base = mgr->getQueryableFacet();
    Facets::KMSQueryableFacet_var query = Facets::KMSQueryableFacet::_narrow(base.in());
    char command;
    while (::read(in, &command, 1) == 1) {
      const Clock::time_point t0 = Clock::now();
      Facets::KeyRecord_var rec = query->getKey(g_service.tag.c_str());
      const double took = seconds(t0, Clock::now());
      benchmark::DoNotOptimize(rec->encKey.length());
      if (::write(out, &took, sizeof took) != sizeof took) {
        break;
      }
    }
  } catch (const CORBA::Exception& e) {
    std::fprintf(stderr, "TLS client: %s\n", e._name());
  }
  ::_exit(0);
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
  const int tlsPort = freePort();
  const std::string& dir = g_service.root;
  if (!makeCertificates(dir)) {
    return false;
  }
  ::mkdir((g_service.root + "/etc").c_str(), 0700);
  std::ofstream(g_service.root + "/etc/vr.conf")
      << "SERVER = localhost\nKMS_DIR = " << kmsDir << "\n"
      << "VRKMS_ENDPOINT = giop:tcp:127.0.0.1:" << port << "\n"
      << "VRKMS_GRANT = 127.0.0.1 1,4,28\nVRKMS_GRANT = cert:CN=client 1,4,28\n"
      << "VRKMS_TLS_CERT = " << dir << "/vrkms.pem\nVRKMS_TLS_KEY = " << dir << "/vrkms.key\n"
      << "VRKMS_TLS_CA = " << dir << "/ca.pem\nVRKMS_TLS_ENDPOINT = giop:ssl:127.0.0.1:" << tlsPort
      << "\n";
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
  // The TLS client starts before this process has an ORB of its own.
  int toChild[2];
  int fromChild[2];
  if (::pipe(toChild) != 0 || ::pipe(fromChild) != 0) {
    return false;
  }
  g_service.tlsClient = ::fork();
  if (g_service.tlsClient == 0) {
    ::close(toChild[1]);
    ::close(fromChild[0]);
    serveTlsTimings(dir, tlsPort, toChild[0], fromChild[1]);
  }
  ::close(toChild[0]);
  ::close(fromChild[1]);
  g_service.toTls = toChild[1];
  g_service.fromTls = fromChild[0];
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
  if (g_service.tlsClient > 0) {
    ::close(g_service.toTls);
    ::close(g_service.fromTls);
    ::waitpid(g_service.tlsClient, nullptr, 0);
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

void BM_GetKeyOverTls(benchmark::State& state) {
  double subject = 0;
  double reference = 0;
  for (auto _ : state) {
    double overTls = 0;
    const char command = 'k';
    if (::write(g_service.toTls, &command, 1) != 1 ||
        ::read(g_service.fromTls, &overTls, sizeof overTls) != sizeof overTls) {
      state.SkipWithError("the TLS client has gone");
      break;
    }
    Clock::time_point t0 = Clock::now();
    Facets::KeyRecord_var overTcp = g_service.query->getKey(g_service.tag.c_str());
    Clock::time_point t1 = Clock::now();
    benchmark::DoNotOptimize(overTcp->encKey.length());
    subject += overTls;
    reference += seconds(t0, t1);
    state.SetIterationTime(overTls);
  }
  bench::report(state, {"getKey over TLS", "getKey over plain TCP", "1 client thread(s)"}, subject,
                reference);
}
BENCHMARK(BM_GetKeyOverTls)->UseManualTime()->Unit(benchmark::kMicrosecond);

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
