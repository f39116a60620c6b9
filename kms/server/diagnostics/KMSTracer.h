// A Tracer that is made only when wanted, for code whose entry tracing can be
// switched on and off:
//
//   Utils::KMSTracer trace;
//   if (s_debug) trace.reset(new Tracer(VRLogger::s_default, nullptr, "f", __FILE__, __LINE__));
#pragma once

#include "kms/platform/Tracer.h"

namespace Vaultrest {
namespace DL {
namespace KMS {
namespace Utils {

// Owns at most one heap Tracer, destroyed (logging its exit line) with the
// holder. Not copyable.
class KMSTracer {
 public:
  explicit KMSTracer(Tracer* tracer = nullptr) : m_tracer(tracer) {}
  ~KMSTracer();
  KMSTracer(const KMSTracer&) = delete;
  KMSTracer& operator=(const KMSTracer&) = delete;

  // Takes ownership of `tracer`; a Tracer held before is destroyed first.
  void reset(Tracer* tracer = nullptr);
  Tracer* get() const { return m_tracer; }

 private:
  Tracer* m_tracer;
};

}  // namespace Utils
}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
