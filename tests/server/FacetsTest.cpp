// The facet servants called as the ORB calls them, over a real store; records at the border.
#include <ace/OS_NS_sys_utsname.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <list>
#include <string>

#include "kms/server/KMSControlFacetImpl.h"
#include "kms/server/KMSModifiableFacetImpl.h"
#include "kms/server/KMSQueryableFacetImpl.h"
#include "kms/server/KMSServiceContainer.h"
#include "kms/server/RecordConvertor.h"
#include "kms/server/diagnostics/KeyStoreError.h"
#include "kms/server/keystore/files/KMSFileLocator.h"
#include "kms/server/keystore/store/FileKeyStore.h"
#include "server/ServiceClient.h"
#include "support/LogCapture.h"
#include "support/TempRoot.h"

namespace Fw = Ardentis::Vaultrest::TL::Framework;
namespace Facets = Ardentis::Vaultrest::DL::KMSFacetsV1;
using namespace Ardentis::Vaultrest::DL::KMS;
namespace Store = Vaultrest::DL::KMS;

namespace {

constexpr int64_t kEpochTicks = 122192928000000000LL;  // 1970 in ticks of the IDL times

using ServiceClient::serviceError;

class Facet : public ::testing::Test {
 protected:
  void SetUp() override {
    Store::FileKeyStore::g_fips_mode_disabled = true;
    ASSERT_EQ(m_store.createEmpty("", "hmk-1", "", "kpk-1", false), 0);
    ASSERT_EQ(m_store.init(), 0);
  }
  TempRoot m_root{"vrkms-facet"};
  LogCapture m_log{4};
  Store::FileKeyStore m_store{Store::KMSFileLocator(m_root.file("kms"))};
  // Servants are reference counted; the _var lets go of the first count.
  PortableServer::Servant_var<KMSControlFacetImpl> m_control{new KMSControlFacetImpl(&m_store)};
  PortableServer::Servant_var<KMSQueryableFacetImpl> m_query{new KMSQueryableFacetImpl(&m_store)};
  PortableServer::Servant_var<KMSModifiableFacetImpl> m_modify{
      new KMSModifiableFacetImpl(&m_store)};
};

TEST_F(Facet, StoreErrorsBecomeServiceExceptionsAndALostStoreStopsTheService) {
  Store::KMSServiceContainer container(false, "vrkms", 286, std::list<std::string>{}, 10,
                                       Fw::ServiceContainerOptions{0}, "");
  ASSERT_EQ(Fw::OrbService::Instance(), &container);
  // The store stays live: the error goes back and the service goes on.
  try {
    m_control->unquiesce(true);
    ADD_FAILURE() << "no exception";
  } catch (const Fw::ServiceException& e) {
    const auto* details = Fw::ErrorCodeExceptionDetails::_downcast(e.details.in());
    ASSERT_NE(details, nullptr);
    ACE_utsname host;
    ASSERT_EQ(ACE_OS::uname(&host), 0);
    EXPECT_STREQ(details->originatingService(), "vrkms");
    EXPECT_STREQ(details->exceptionClassName(), "ServiceException");
    EXPECT_STREQ(details->originatingMethod(), "KMSControlFacetImpl::unquiesce");
    EXPECT_EQ(std::string(details->originatingHost()), std::string(host.nodename).substr(0, 64));
    EXPECT_LE(std::abs(details->timeStamp() - std::time(nullptr)), 60);
  }
  EXPECT_FALSE(container.stopRequested());
  // Once the store has dropped its state the process must not go on serving.
  ASSERT_EQ(m_store.shutdown(), 0);
  Fw::octetSeq_var data;
  EXPECT_EQ(serviceError([&] {
              Facets::KSOpStatus_var lost =
                  m_query->exportKS(Facets::ExportKeyListSeq(), "pass", data.out());
            }),
            1202);
  EXPECT_TRUE(container.stopRequested());
  EXPECT_TRUE(container.stoppedAbnormally());
  EXPECT_EQ(serviceError([&] { m_control->isQuiesced(); }), 1202);
}

// Without a service, a lost store only raises, but import ends the process.
TEST_F(Facet, FormsCountsArgumentsThatCannotReachTheStoreAndALostStore) {
  Facets::KeyRecord_var blank = m_modify->getNewKey();
  Facets::KeyGroupRecord_var form = m_modify->getNewKeyGroup();
  EXPECT_TRUE(blank->updateTime == kEpochTicks && form->createTime == kEpochTicks);
  // The counts of a group are the store's own, whatever was sent.
  form->name = "g";
  form->type = 1;
  form->stat.hasActiveKey = true;
  form->stat.numKeys = 99;
  Facets::KeyGroupRecord_var group = m_modify->createKeyGroup(form.in());
  EXPECT_TRUE(!group->stat.hasActiveKey && group->stat.numKeys == 0);
  blank->name = "k";
  blank->keyGroup = group->tag;
  blank->state = 1;
  blank->kpkType = 1;
  Facets::KeyRecord_var key = m_modify->createKey("", blank.in());
  // Tags not strict hexadecimal and KAD lengths above 4096 never reach the store.
  std::string upper = key->tag.in();
  std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
  Facets::KeyRecord_var record;
  Fw::octetSeq_var kad;
  const auto kadOf = [&](const std::string& tag, int length) {
    return serviceError(
        [&] { m_query->getKeyAndKad(tag.c_str(), length, record.out(), kad.out()); });
  };
  EXPECT_EQ(kadOf(upper, 12), 1215);
  EXPECT_EQ(kadOf(key->tag.in(), -1), 1214);
  EXPECT_EQ(kadOf(key->tag.in(), 4097), 1214);
  EXPECT_EQ(serviceError([&] { Facets::KeyRecord_var r = m_query->getKey(upper.c_str()); }), 1260);
  EXPECT_EQ(serviceError([&] { Facets::KeyRecord_var r = m_query->getKeyRecord("0g"); }), 1260);
  // The longest KAD is the tag padded with '0' characters.
  EXPECT_EQ(m_query->getKeyAndKad(key->tag, 4096, record.out(), kad.out()), 1);
  ASSERT_EQ(kad->length(), 4096u);
  EXPECT_EQ(kad[32], '0');
  EXPECT_EQ(record->encKey.length(), 16u);
  ASSERT_EQ(Fw::OrbService::Instance(), nullptr);
  ASSERT_EQ(m_store.shutdown(), 0);
  EXPECT_EQ(serviceError([&] { m_query->getKeyStoreStats(); }), 1202);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // The child runs the test anew and dies without its fixture's cleanup, so
  // it removes its own directories first.
  EXPECT_DEATH(
      {
        std::filesystem::remove_all(m_root.path());
        std::filesystem::remove_all(
            std::filesystem::path(m_log.logger().debugLogPath()).parent_path());
        Facets::KSOpStatus_var status = m_modify->importKS(Fw::octetSeq(), "pass", false, true, "");
      },
      "terminate called after throwing an instance of '.*KeyStoreError'");
}

// Times count 100 ns ticks from 1582: whole seconds round trip, fractions are lost.
TEST(RecordConvertor, KeyRecordCrossesTheBorderBothWays) {
  EXPECT_EQ(RecordConvertor::toKsTime(kEpochTicks + 10000000LL * 5 + 9999999), 5u);
  EXPECT_EQ(RecordConvertor::toKsTime(RecordConvertor::toIdlTime(4102444800)), 4102444800u);
  Store::KeyRecord_v1 rec;
  rec.setFields(std::string(32, '\x11') + "\xff", "key one", std::string(32, '\xab'),
                Store::KEY_ACTIVE, 1700000001, 1700000000, "the description", 7, Store::KPK_LOCAL,
                std::string(32, '\x7f'), "");
  rec.attributes().addAttribute("b-name", "two");
  rec.attributes().addAttribute("a-name", "one");
  Facets::KeyRecord_var wire = RecordConvertor::toIdlKeyRecord(rec);
  EXPECT_EQ(wire->createTime, kEpochTicks + 1700000000LL * 10000000LL);
  EXPECT_EQ(wire->updateTime, kEpochTicks + 1700000001LL * 10000000LL);
  EXPECT_EQ(std::string(wire->tag.in()), std::string(64, '1') + "ff");
  ASSERT_EQ(wire->attributeList.length(), 2u);
  EXPECT_STREQ(wire->attributeList[0].name, "a-name");  // the list's order
  // Any field lost or changed on one way shows on the way back.
  EXPECT_EQ(RecordConvertor::toKsKeyRecord(wire.in()), rec);
  CORBA::Octet bytes[] = {0, 0xff, 0x10};
  wire->encKey = Fw::octetSeq(3, 3, bytes);
  EXPECT_EQ(RecordConvertor::toKsKeyRecord(wire.in()).key(), std::string("\x00\xff\x10", 3));
  // A tag that is not strict hexadecimal arrives as no tag at all.
  wire->tag = "ABCDEF";
  wire->keyGroup = "abc";
  EXPECT_EQ(RecordConvertor::toKsKeyRecord(wire.in()).tag(), "");
  EXPECT_EQ(RecordConvertor::toKsKeyRecord(wire.in()).keyGroup(), "");
  // Unknown enumerations are refused. (Long names are cut: RecordsTest.)
  for (int state : {6, -1}) {
    wire->state = state;
    EXPECT_THROW(RecordConvertor::toKsKeyRecord(wire.in()), Store::KeyStoreError) << state;
  }
  Facets::KeyGroupRecord group;
  group.type = 9;
  EXPECT_THROW(RecordConvertor::toKsKeyGroupRecord(group), Store::KeyStoreError);
}

}  // namespace
