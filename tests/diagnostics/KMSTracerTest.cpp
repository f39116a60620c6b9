#include "kms/server/diagnostics/KMSTracer.h"

#include <gtest/gtest.h>

#include "support/LogCapture.h"

using Vaultrest::DL::KMS::Utils::KMSTracer;

TEST(KMSTracer, TheHeldTracerLeavesWithItsHolder) {
  LogCapture log(Tracer::kLevel);
  {
    KMSTracer none;  // holding nothing is fine
    KMSTracer held(new Tracer(&log.logger(), nullptr, "first", __FILE__, __LINE__));
    held.reset(new Tracer(&log.logger(), nullptr, "second", __FILE__, __LINE__));
    EXPECT_EQ(LogCapture::containing(log.debugLines(), "Leaving first").size(), 1u);
    EXPECT_TRUE(LogCapture::containing(log.debugLines(), "Leaving second").empty());
  }
  EXPECT_EQ(LogCapture::containing(log.debugLines(), "Leaving second").size(), 1u);
}
