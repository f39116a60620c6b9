// The service object and the manager outside a running service: no ORB and
// no container, so every step that needs one must fail cleanly.
#include "kms/server/KMSMgrService.h"

#include <gtest/gtest.h>

#include "kms/server/KMSMgrImpl.h"
#include "support/LogCapture.h"
#include "support/PlatformTestRoot.h"

using Vaultrest::DL::KMS::KMSMgrService;
namespace Fw = Ardentis::Vaultrest::TL::Framework;
namespace Remote = Ardentis::Vaultrest::DL::KMS;

TEST(KMSMgrService, LifeCycleWithoutAnOrbFailsOnceAndIsNotRepeated) {
  PlatformTestRoot root;
  root.writeConf("SERVER = localhost\nKMS_DIR = " + root.etcDir() + "/../kms\n");
  LogCapture log;
  KMSMgrService service;
  // Before init there is nothing to forward to.
  EXPECT_EQ(service.resume(), 0);
  EXPECT_EQ(service.suspend(), 0);
  EXPECT_EQ(service.fini(), 0);

  EXPECT_EQ(service.init(0, nullptr), -1);  // no ORB to register the value types with
  ASSERT_NE(service.manager(), nullptr);
  EXPECT_FALSE(service.manager()->isActive());
  EXPECT_EQ(LogCapture::containing(log.appLines(), "286-35 ").size(), 1u);
  EXPECT_EQ(LogCapture::containing(log.appLines(), "286-34 ").size(), 1u);

  // A second init changes nothing.
  Remote::KMSMgrImpl* manager = service.manager();
  EXPECT_EQ(service.init(0, nullptr), 0);
  EXPECT_EQ(service.manager(), manager);
  EXPECT_EQ(LogCapture::containing(log.appLines(), "286-35 ").size(), 1u);

  // Not active: resume has no ORB to work with, suspend nothing to undo.
  EXPECT_EQ(service.resume(), 0);
  EXPECT_EQ(service.suspend(), 0);
  EXPECT_EQ(service.fini(), 0);
  EXPECT_FALSE(manager->isActive());
}

TEST(KMSMgrService, StoreThatCannotBeMadeStopsInit) {
  PlatformTestRoot root;  // no master configuration: no store directory
  LogCapture log;
  KMSMgrService service;
  EXPECT_EQ(service.init(0, nullptr), -1);
  EXPECT_EQ(LogCapture::containing(log.appLines(), "286-37 ").size(), 1u);
  EXPECT_EQ(LogCapture::containing(log.appLines(), "286-34 ").size(), 1u);
  EXPECT_FALSE(LogCapture::containing(log.debugLines(), "Exception Caught: Status=1200").empty());
}

TEST(KMSMgrService, RunOnAHostWithoutClusterDoesNothingMore) {
  PlatformTestRoot root;
  LogCapture log;
  KMSMgrService service;
  EXPECT_EQ(service.doRun(), 0);
  EXPECT_EQ(KMSMgrService::enableClusterServiceMonitoring(), 0);
  EXPECT_TRUE(LogCapture::containing(log.debugLines(), "cluster setup").empty());
}

TEST(KMSMgrImpl, ManagerWithoutAServiceHasNoPeerAndNoEximFacet) {
  PlatformTestRoot root;
  LogCapture log(4);
  Remote::KMSMgrImpl* manager = new Remote::KMSMgrImpl();
  EXPECT_STREQ(Remote::KMSMgrImpl::Name(), "KMS.KMSMgr");
  EXPECT_EQ(manager->getOrb(), nullptr);
  int major = 0, minor = 0, patch = 0;
  manager->getPeerVRVersion(major, minor, patch);
  EXPECT_EQ(major, -1);
  EXPECT_EQ(minor, -1);
  EXPECT_EQ(patch, -1);
  EXPECT_FALSE(
      LogCapture::containing(log.debugLines(), "Did not find Peer Version Information in TSS")
          .empty());

  try {
    manager->getEximFacet();
    ADD_FAILURE();
  } catch (const Fw::ServiceException& e) {
    const Fw::ErrorCodeExceptionDetails* details =
        Fw::ErrorCodeExceptionDetails::_downcast(e.details.in());
    ASSERT_NE(details, nullptr);
    EXPECT_EQ(details->errorCode(), 1200);
    EXPECT_STREQ(details->originatingMethod(), "KMSMgrImpl::getEximFacet");
  }
  EXPECT_FALSE(
      LogCapture::containing(log.debugLines(), "EximFacet is not supported in this release")
          .empty());
  EXPECT_FALSE(LogCapture::containing(log.debugLines(), "Throwing a  Error code 1200 (").empty());
  // Nothing is active: the facet getters give nil.
  EXPECT_TRUE(CORBA::is_nil(Remote::QueryableFacet_var(manager->getQueryableFacet()).in()));
  EXPECT_EQ(manager->suspend(), 0);
  manager->_remove_ref();
}
