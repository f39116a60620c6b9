// Certificates for TLS tests, made with the openssl command in a directory of the test's own: a CA,
// and certificates it signs (P-256 keys, PEM, "<name>.pem" and "<name>.key").
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "support/ProcessRunner.h"

class TestCertificates {
 public:
  // A CA named `name` in `dir`: <dir>/<name>.pem and <dir>/<name>.key.
  TestCertificates(std::string dir, std::string name)
      : m_dir(std::move(dir)), m_name(std::move(name)) {
    openssl({"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
             "-keyout", key(m_name), "-out", cert(m_name), "-days", "2", "-subj", "/CN=" + m_name});
  }
  // A certificate for `subject` ("/CN=media01") signed by this CA, valid
  // for `days` from now (negative: expired already); its name.
  std::string issue(const std::string& name, const std::string& subject, int days = 2) const {
    openssl({"req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout",
             key(name), "-out", path(name + ".csr"), "-subj", subject});
    openssl({"x509", "-req", "-in", path(name + ".csr"), "-CA", cert(m_name), "-CAkey", key(m_name),
             "-set_serial", std::to_string(++m_serial), "-days", std::to_string(days), "-out",
             cert(name)});
    return name;
  }

  std::string ca() const { return cert(m_name); }
  std::string cert(const std::string& name) const { return path(name + ".pem"); }
  std::string key(const std::string& name) const { return path(name + ".key"); }
  // vrkmsctl's options for certificate `name` and this CA.
  std::vector<std::string> ctlOptions(const std::string& name) const {
    return {"--tls-cert", cert(name), "--tls-key", key(name), "--tls-ca", ca()};
  }

 private:
  std::string path(const std::string& file) const { return m_dir + "/" + file; }
  static void openssl(std::vector<std::string> args) {
    const ProcessResult r = ProcessRunner("/usr/bin/openssl").args(std::move(args)).run();
    if (!r.exited || r.exitStatus != 0) {
      throw std::runtime_error("openssl failed: " + r.err);
    }
  }

  std::string m_dir;
  std::string m_name;
  mutable int m_serial = 1;
};
