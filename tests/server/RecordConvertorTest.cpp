#include "kms/server/RecordConvertor.h"

#include <gtest/gtest.h>
#include <omniORB4/CORBA.h>

#include <string>

#include "kms/server/diagnostics/KeyStoreError.h"
#include "server/OrbTestSupport.h"
#include "support/LogCapture.h"

using Ardentis::Vaultrest::DL::KMS::RecordConvertor;
namespace Wire = Ardentis::Vaultrest::DL::KMSFacetsV1;
namespace Store = Vaultrest::DL::KMS;

namespace {

const int64_t kEpochTicks = 122192928000000000LL;

Store::KeyRecord_v1 sampleKey() {
  Store::KeyRecord_v1 rec;
  rec.setFields(std::string(32, '\x01') + "\xff", "key one", std::string(32, '\xab'),
                Store::KEY_ACTIVE, 1700000001, 1700000000, "the description", 7, Store::KPK_LOCAL,
                std::string(32, '\x7f'), "");
  rec.attributes().addAttribute("b-name", "two");
  rec.attributes().addAttribute("a-name", "one");
  return rec;
}

}  // namespace

TEST(RecordConvertor, TimesCountTicksFromTheGregorianReformAndRoundTripWholeSeconds) {
  EXPECT_EQ(RecordConvertor::toKsTime(kEpochTicks), 0u);
  EXPECT_EQ(RecordConvertor::toIdlTime(0), kEpochTicks);
  for (uint64_t seconds : {uint64_t{0}, uint64_t{1}, uint64_t{1700000000}, uint64_t{4102444800}}) {
    EXPECT_EQ(RecordConvertor::toKsTime(RecordConvertor::toIdlTime(seconds)), seconds);
  }
  // Below a second is lost going in.
  EXPECT_EQ(RecordConvertor::toKsTime(kEpochTicks + 10000000LL * 5 + 9999999), 5u);

  Store::KeyRecord_v1 rec = sampleKey();
  Wire::KeyRecord_var wire = RecordConvertor::toIdlKeyRecord(rec);
  EXPECT_EQ(wire->createTime, (12219292800LL + 1700000000LL) * 10000000LL);
  EXPECT_EQ(wire->updateTime, (12219292800LL + 1700000001LL) * 10000000LL);
}

TEST(RecordConvertor, KeyRecordCrossesTheBorderBothWays) {
  const Store::KeyRecord_v1 rec = sampleKey();
  Wire::KeyRecord_var wire = RecordConvertor::toIdlKeyRecord(rec);
  std::string tagHex;
  for (int i = 0; i < 32; ++i) {
    tagHex += "01";
  }
  EXPECT_EQ(std::string(wire->tag.in()), tagHex + "ff");
  std::string groupHex;
  std::string kpkHex;
  for (int i = 0; i < 32; ++i) {
    groupHex += "ab";
    kpkHex += "7f";
  }
  EXPECT_EQ(std::string(wire->keyGroup.in()), groupHex);
  EXPECT_EQ(std::string(wire->kpkTag.in()), kpkHex);
  EXPECT_EQ(wire->state, 1);
  EXPECT_EQ(wire->kpkType, 1);
  EXPECT_EQ(wire->rev, 7);
  EXPECT_EQ(wire->encKey.length(), 0u);  // a filtered record carries no key
  ASSERT_EQ(wire->attributeList.length(), 2u);
  EXPECT_STREQ(wire->attributeList[0].name, "a-name");  // the list's order
  EXPECT_STREQ(wire->attributeList[0].value, "one");
  EXPECT_STREQ(wire->attributeList[1].name, "b-name");

  EXPECT_EQ(RecordConvertor::toKsKeyRecord(wire.in()), rec);

  wire->encKey.length(3);
  wire->encKey[0] = 0;
  wire->encKey[1] = 0xff;
  wire->encKey[2] = 0x10;
  EXPECT_EQ(RecordConvertor::toKsKeyRecord(wire.in()).key(), std::string("\x00\xff\x10", 3));

  // A tag that is not strict hexadecimal arrives as no tag at all.
  wire->tag = "ABCDEF";
  wire->keyGroup = "abc";
  const Store::KeyRecord_v1 odd = RecordConvertor::toKsKeyRecord(wire.in());
  EXPECT_EQ(odd.tag(), "");
  EXPECT_EQ(odd.keyGroup(), "");
}

TEST(RecordConvertor, LongNamesAreCutAndUnknownEnumerationsRefused) {
  LogCapture log;
  Wire::KeyRecord_var wire = RecordConvertor::toIdlKeyRecord(sampleKey());
  wire->name = std::string(5000, 'n').c_str();
  wire->description = std::string(4097, 'd').c_str();
  const Store::KeyRecord_v1 rec = RecordConvertor::toKsKeyRecord(wire.in());
  EXPECT_EQ(rec.name(), std::string(4096, 'n'));
  EXPECT_EQ(rec.description(), std::string(4096, 'd'));
  EXPECT_EQ(LogCapture::containing(log.debugLines(),
                                   "KeyRecord_v1::setName: Encountered Name of size 5000. "
                                   "Truncating to 4096")
                .size(),
            1u);
  EXPECT_EQ(LogCapture::containing(log.debugLines(), "Encountered Description of size 4097").size(),
            1u);

  for (int state : {6, -1}) {
    wire->state = state;
    try {
      RecordConvertor::toKsKeyRecord(wire.in());
      ADD_FAILURE() << state;
    } catch (const Store::KeyStoreError& e) {
      EXPECT_EQ(e.status(), 1214);
    }
  }
  Wire::KeyGroupRecord group;
  group.type = 9;
  EXPECT_THROW(RecordConvertor::toKsKeyGroupRecord(group), Store::KeyStoreError);
}

TEST(RecordConvertor, GroupStatsOnlyTravelOutward) {
  Store::KeyGrpRecord_v1 rec;
  rec.setFields(std::string(32, '\x05'), "group", Store::CT_AES256_CBC, 20, 10, "desc", 3);
  rec.setHasActiveKey(true);
  rec.setNumKeys(12);
  Wire::KeyGroupRecord_var wire = RecordConvertor::toIdlKeyGroupRecord(rec);
  EXPECT_TRUE(wire->stat.hasActiveKey);
  EXPECT_EQ(wire->stat.numKeys, 12);
  EXPECT_EQ(wire->type, 3);
  EXPECT_EQ(std::string(wire->tag.in()).substr(0, 6), "050505");
  EXPECT_EQ(std::string(wire->tag.in()).size(), 64u);

  // Whatever a client sends in stat, the store's record has its own counts.
  wire->stat.hasActiveKey = false;
  wire->stat.numKeys = 999;
  Store::KeyGrpRecord_v1 back = RecordConvertor::toKsKeyGroupRecord(wire.in());
  EXPECT_EQ(back, rec);
  EXPECT_FALSE(back.hasActiveKey());
  EXPECT_EQ(back.numKeys(), 0u);
  back.setHasActiveKey(true);
  back.setNumKeys(2);
  Wire::KeyGroupRecord_var again = RecordConvertor::toIdlKeyGroupRecord(back);
  EXPECT_EQ(again->stat.numKeys, 2);
}

TEST(RecordConvertor, OperationStatusKeepsMessagesAndArgumentsInOrder) {
  Store::KSOpStatus status;
  status.setErrCode(1283);
  status.addMessage(Store::KSOpMessage(Store::KSMSG_KEYGROUP_RENAMED, "old", "new"));
  status.addMessage(Store::KSOpMessage(Store::KSMSG_KEY_DUPLICATE, "k", "g", "k2", "g2"));
  status.addMessage(Store::KSOpMessage());
  Wire::KSOpStatus_var wire = RecordConvertor::toIdlKSOpStatus(status);
  EXPECT_EQ(wire->error_code, 1283);
  ASSERT_EQ(wire->messages.length(), 3u);
  EXPECT_EQ(wire->messages[0].msg_code, 4);
  ASSERT_EQ(wire->messages[0].args.length(), 2u);
  EXPECT_STREQ(wire->messages[0].args[1], "new");
  ASSERT_EQ(wire->messages[1].args.length(), 4u);
  EXPECT_STREQ(wire->messages[1].args[3], "g2");
  EXPECT_EQ(wire->messages[2].args.length(), 0u);
}

// What a CDR stream holds, read as the values of the kinds in `kinds`: 'l'
// long, 'L' long long, 's' string, 'o' sequence of octets, 'b' boolean,
// 'n' empty sequence; comma separated.
std::string readBack(cdrMemoryStream& stream, const std::string& kinds) {
  stream.rewindInputPtr();
  std::string out;
  for (char kind : kinds) {
    CORBA::Long l;
    CORBA::LongLong ll;
    CORBA::ULong n;
    out += out.empty() ? "" : ",";
    switch (kind) {
      case 'l':
        l <<= stream;
        out += std::to_string(l);
        break;
      case 'L':
        ll <<= stream;
        out += std::to_string(ll);
        break;
      case 's':
        out += CORBA::String_var(stream.unmarshalString()).in();
        break;
      case 'o':
        n <<= stream;
        for (CORBA::ULong i = 0; i < n; ++i) {
          out += "#" + std::to_string(stream.unmarshalOctet());
        }
        break;
      case 'b':
        out += stream.unmarshalBoolean() ? "true" : "false";
        break;
      case 'n':
        n <<= stream;
        out += "[" + std::to_string(n) + "]";
        break;
    }
  }
  return out;
}

// The fields of a record travel in the order of the interface definition;
// a peer that reads them in another order reads nonsense.
TEST(RecordConvertor, RecordFieldsGoOnTheWireInTheirFixedOrder) {
  testOrb();  // strings need the ORB's code sets
  Wire::KeyRecord record;
  record.kpkType = 11;
  record.updateTime = 22;
  record.keyGroup = "kg";
  record.kpkTag = "kt";
  record.rev = 33;
  record.encKey.length(1);
  record.encKey[0] = 0x44;
  record.description = "de";
  record.tag = "tg";
  record.createTime = 55;
  record.state = 66;
  record.attributeList.length(0);
  record.name = "nm";
  cdrMemoryStream stream;
  record >>= stream;
  EXPECT_EQ(readBack(stream, "lLsslossLlns"), "11,22,kg,kt,33,#68,de,tg,55,66,[0],nm");

  Wire::KeyGroupRecord group;
  group.updateTime = 1;
  group.type = 2;
  group.rev = 3;
  group.stat.hasActiveKey = true;
  group.stat.numKeys = 4;
  group.description = "d";
  group.tag = "t";
  group.createTime = 5;
  group.name = "n";
  cdrMemoryStream groupStream;
  group >>= groupStream;
  EXPECT_EQ(readBack(groupStream, "LllblssLns"), "1,2,3,true,4,d,t,5,[0],n");
}
