// exportKS and importKS called directly, as the ORB calls them, over a real
// store: a refusal comes back as a status, not as an exception; a store that
// has lost its state raises on export and ends the process on import.
#include <gtest/gtest.h>

#include <list>
#include <string>

#include "kms/server/KMSModifiableFacetImpl.h"
#include "kms/server/KMSQueryableFacetImpl.h"
#include "kms/server/KMSServiceContainer.h"
#include "kms/server/keystore/FileKeyStore.h"
#include "kms/server/keystore/KMSFileLocator.h"
#include "support/LogCapture.h"
#include "support/TempRoot.h"

namespace Fw = Ardentis::Vaultrest::TL::Framework;
namespace Facets = Ardentis::Vaultrest::DL::KMSFacetsV1;
using Ardentis::Vaultrest::DL::KMS::KMSModifiableFacetImpl;
using Ardentis::Vaultrest::DL::KMS::KMSQueryableFacetImpl;
using Vaultrest::DL::KMS::FileKeyStore;
using Vaultrest::DL::KMS::KMSFileLocator;
using Vaultrest::DL::KMS::KMSServiceContainer;

namespace {

class EximFacet : public ::testing::Test {
 protected:
  void SetUp() override {
    FileKeyStore::g_fips_mode_disabled = true;
    ASSERT_EQ(m_store.createEmpty("", "hmk-1", "", "kpk-1", false), 0);
    ASSERT_EQ(m_store.init(), 0);
  }

  Facets::KSOpStatus* exportAll(Fw::octetSeq_var& data) {
    return m_query->exportKS(Facets::ExportKeyListSeq(), "pass", data.out());
  }

  TempRoot m_root{"vrkms-exim-facet"};
  LogCapture m_log{4};
  FileKeyStore m_store{KMSFileLocator(m_root.file("kms"))};
  PortableServer::Servant_var<KMSQueryableFacetImpl> m_query{new KMSQueryableFacetImpl(&m_store)};
  PortableServer::Servant_var<KMSModifiableFacetImpl> m_modify{
      new KMSModifiableFacetImpl(&m_store)};
};

TEST_F(EximFacet, RefusalsAreStatusesAndALostStoreRaisesOnExport) {
  KMSServiceContainer container(false, "vrkms", 286, std::list<std::string>{}, 10,
                                Fw::ServiceContainerOptions{0}, "");
  ASSERT_EQ(Fw::OrbService::Instance(), &container);

  // Nothing to export: a status with the code, an empty buffer, and the
  // service goes on.
  Fw::octetSeq_var data;
  Facets::KSOpStatus_var status = exportAll(data);
  EXPECT_EQ(status->error_code, 1285);
  EXPECT_EQ(status->messages.length(), 0u);
  EXPECT_EQ(data->length(), 0u);
  EXPECT_FALSE(container.stopRequested());

  // A buffer that is no export is refused by status too.
  Fw::octetSeq junk;
  junk.length(3);
  status = m_modify->importKS(junk, "pass", false, false, "");
  EXPECT_NE(status->error_code, 0);
  EXPECT_FALSE(container.stopRequested());

  // Once the store has dropped its state, export raises and stops the
  // service, as every other read does.
  ASSERT_EQ(m_store.shutdown(), 0);
  try {
    Facets::KSOpStatus_var lost = exportAll(data);
    ADD_FAILURE() << "export on a lost store returned";
  } catch (const Fw::ServiceException& e) {
    EXPECT_EQ(Fw::ErrorCodeExceptionDetails::_downcast(e.details.in())->errorCode(), 1202);
  }
  EXPECT_TRUE(container.stopRequested());
}

TEST_F(EximFacet, ImportOnALostStoreEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  ASSERT_EQ(m_store.shutdown(), 0);
  EXPECT_DEATH(
      {
        Facets::KSOpStatus_var status = m_modify->importKS(Fw::octetSeq(), "pass", false, true, "");
      },
      "terminate called after throwing an instance of '.*KeyStoreError'");
}

}  // namespace
