#include "kms/platform/framework/TlsContext.h"

#include <openssl/err.h>
#include <openssl/x509.h>
#include <unistd.h>

#include "kms/platform/VrConfReader.h"
#include "kms/platform/framework/FrameworkLog.h"

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

std::string TlsContext::fromConfig(const VrConfReader& config, const std::string& prefix,
                                   Files* files, std::string* endpoint) {
  files->certificate = config.get(prefix + "CERT");
  files->key = config.get(prefix + "KEY");
  files->ca = config.get(prefix + "CA");
  const std::string configured = config.get(prefix + "ENDPOINT");
  endpoint->clear();
  if (files->certificate.empty() && files->key.empty() && files->ca.empty() && configured.empty()) {
    return "";
  }
  const std::pair<const char*, const std::string*> required[] = {
      {"CERT", &files->certificate}, {"KEY", &files->key}, {"CA", &files->ca}};
  for (const auto& file : required) {
    if (file.second->empty()) {
      return prefix + file.first + " is not set";
    }
    if (::access(file.second->c_str(), R_OK) != 0) {
      return prefix + file.first + " names a file that cannot be read: " + *file.second;
    }
  }
  *endpoint = configured.empty() ? kDefaultEndpoint : configured;
  return "";
}

void TlsContext::install(const Files& files) {
  // The ORB deletes the context it was given when it is destroyed.
  sslContext::singleton = new TlsContext(files);
}

std::string TlsContext::subjectOf(void* peerDetails) {
  X509* certificate = static_cast<X509*>(peerDetails);
  if (certificate == nullptr) {
    return "";
  }
  BIO* out = BIO_new(BIO_s_mem());
  if (out == nullptr) {
    return "";
  }
  std::string subject;
  // RFC 2253: most specific first, comma-separated, without spaces.
  if (X509_NAME_print_ex(out, X509_get_subject_name(certificate), 0, XN_FLAG_RFC2253) >= 0) {
    char* data = nullptr;
    const long length = BIO_get_mem_data(out, &data);
    if (length > 0) {
      subject.assign(data, static_cast<size_t>(length));
    }
  }
  BIO_free(out);
  return subject;
}

TlsContext::TlsContext(const Files& files) : sslContext(), m_files(files) {}

void TlsContext::fail(const std::string& what) {
  char text[256];
  for (unsigned long error = ERR_get_error(); error != 0; error = ERR_get_error()) {
    ERR_error_string_n(error, text, sizeof text);
    FW_DEBUG("TlsContext", 1, what << ": " << text);
  }
  FW_DEBUG("TlsContext", 1, "TLS cannot start: " << what);
  throw CORBA::INITIALIZE(0, CORBA::COMPLETED_NO);
}

void TlsContext::set_supported_versions() {
  if (SSL_CTX_set_min_proto_version(get_SSL_CTX(), TLS1_2_VERSION) != 1) {
    fail("cannot require TLS 1.2");
  }
}

void TlsContext::set_certificate() {
  if (m_files.certificate.empty()) {
    return;  // a client that shows no certificate
  }
  if (SSL_CTX_use_certificate_chain_file(get_SSL_CTX(), m_files.certificate.c_str()) != 1) {
    fail("cannot use the certificate " + m_files.certificate);
  }
}

void TlsContext::set_privatekey() {
  if (m_files.key.empty()) {
    return;
  }
  SSL_CTX* context = get_SSL_CTX();
  if (SSL_CTX_use_PrivateKey_file(context, m_files.key.c_str(), SSL_FILETYPE_PEM) != 1) {
    fail("cannot use the private key " + m_files.key);
  }
  if (SSL_CTX_check_private_key(context) != 1) {
    fail("the private key " + m_files.key + " does not match the certificate");
  }
}

void TlsContext::set_CA() {
  SSL_CTX* context = get_SSL_CTX();
  if (SSL_CTX_load_verify_locations(context, m_files.ca.c_str(), nullptr) != 1) {
    fail("cannot use the CA certificates " + m_files.ca);
  }
  // Tells a client which CA its certificate must come from.
  STACK_OF(X509_NAME)* names = SSL_load_client_CA_file(m_files.ca.c_str());
  if (names != nullptr) {
    SSL_CTX_set_client_CA_list(context, names);
  }
}

void TlsContext::set_DH() {
  // Finite-field key exchange, when it is negotiated at all, with groups of
  // OpenSSL's choosing that fit the certificate's strength.
  SSL_CTX_set_dh_auto(get_SSL_CTX(), 1);
}

void TlsContext::set_ephemeralRSA() {}

int TlsContext::set_verify_mode() {
  return SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT;
}

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
