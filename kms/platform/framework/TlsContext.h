// The TLS side of the ORB's SSL transport ("giop:ssl:"): this process's
// certificate and key, and the one CA whose certificates it accepts from
// the other end.
//
// Both ends verify: a server refuses in the handshake a client that shows
// no certificate or one that does not chain to the CA (expired ones
// included); a client refuses a server in the same way, so nothing it
// sends reaches an endpoint it has not verified. TLS 1.2 is the lowest
// version spoken.
//
// Ownership: install() hands the context to the ORB, which deletes it when
// it is destroyed. Install before ORB_init, on the thread that runs it;
// afterwards the ORB's threads use it at once.
#pragma once

#include <omniORB4/CORBA.h>
#include <omniORB4/sslContext.h>

#include <string>

class VrConfReader;

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

class TlsContext : public sslContext {
 public:
  struct Files {
    std::string certificate;  // PEM: this end's certificate (and chain)
    std::string key;          // PEM: its private key, unencrypted
    std::string ca;           // PEM: the CA(s) whose certificates are accepted
  };

  // The TLS settings in the master configuration under `prefix`
  // ("VRKMS_TLS_"): <prefix>CERT, <prefix>KEY, <prefix>CA and <prefix>ENDPOINT
  // (default kDefaultEndpoint). `*endpoint` is left empty when none of the
  // four is present: the service then has no TLS endpoint. Returns "" when
  // the settings can be used, otherwise what is wrong with them (one of the
  // three files missing or unreadable).
  static std::string fromConfig(const VrConfReader& config, const std::string& prefix, Files* files,
                                std::string* endpoint);

  // Every interface, one port above the service's plain TCP port.
  static constexpr const char* kDefaultEndpoint = "giop:ssl::7791";

  // Makes the ORB's SSL transport use `files`. The files are read when the
  // ORB starts; a file it cannot use makes ORB_init throw INITIALIZE.
  static void install(const Files& files);

  // The subject of the peer's certificate in RFC 2253 form
  // ("CN=media01,O=Example"), from what the ORB's interceptors give as the
  // peer details of an SSL connection (an X509*), or "" for none.
  static std::string subjectOf(void* peerDetails);

 protected:
  void set_supported_versions() override;
  void set_certificate() override;
  void set_privatekey() override;
  void set_CA() override;
  void set_DH() override;
  void set_ephemeralRSA() override;
  int set_verify_mode() override;

 private:
  explicit TlsContext(const Files& files);
  // Logs OpenSSL's error queue and throws CORBA::INITIALIZE.
  [[noreturn]] void fail(const std::string& what);

  const Files m_files;
};

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
