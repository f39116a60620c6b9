// The one exception type of the key store: a status code and where it was
// raised. Thrown by value (through KS_THROW), caught by reference.
#pragma once

#include <string>

namespace Vaultrest {
namespace DL {
namespace KMS {

class KeyStoreError {
 public:
  // `function` and `file` are copied; line 0 means no origin was recorded.
  KeyStoreError(int status, const char* function, const char* file, unsigned long line);
  KeyStoreError(const KeyStoreError&) = default;
  KeyStoreError& operator=(const KeyStoreError&) = default;

  int status() const { return m_status; }
  unsigned long line() const { return m_line; }
  const std::string& file() const { return m_file; }
  const std::string& function() const { return m_function; }

  // "Status=<n> (<getECmsg(n)>)" and, when `verbose` and line != 0,
  // ", Origin: <function> [<file>:<line>]". A code unknown to the catalogue
  // ends the text after "Status=<n> (".
  std::string str(bool verbose) const;

 private:
  int m_status;
  unsigned long m_line;
  std::string m_file;
  std::string m_function;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
