#include "kms/server/diagnostics/KMSTracer.h"

namespace Vaultrest {
namespace DL {
namespace KMS {
namespace Utils {

KMSTracer::~KMSTracer() {
  delete m_tracer;
}

void KMSTracer::reset(Tracer* tracer) {
  if (tracer != m_tracer) {
    delete m_tracer;
    m_tracer = tracer;
  }
}

}  // namespace Utils
}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
