#include "kms/server/diagnostics/KeyStoreError.h"

#include <sstream>

#include "kms/platform/CrvnLis.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

KeyStoreError::KeyStoreError(int status, const char* function, const char* file, unsigned long line)
    : m_status(status),
      m_line(line),
      m_file(file != nullptr ? file : ""),
      m_function(function != nullptr ? function : "") {}

std::string KeyStoreError::str(bool verbose) const {
  std::ostringstream os;
  os << "Status=" << m_status << " (";
  const char* text = getECmsg(m_status);
  if (text == nullptr) {
    // As with a stream given a null text: everything after this is lost.
    os.setstate(std::ios_base::badbit);
  }
  os << text << ")";
  if (verbose && m_line != 0) {
    os << ", Origin: " << m_function << " [" << m_file << ":" << m_line << "]";
  }
  return os.str();
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
